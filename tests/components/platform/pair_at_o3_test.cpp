// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The pair unit compiled at the level that leaves out the most.
#include <components/platform/zel_pair_connection.h>
#include <support/interpose.h>

#include <gtest/gtest.h>

using namespace zel::test;

TEST(PairAtO3, AClosedHandleIsNoLongerValid) {
    PairHandle *ph = platform_pair_child_open("A_VARIABLE_THAT_NOBODY_SETS", 0, 1);
    EXPECT_EQ(platform_pair_valid(ph), 1);
    int valid = -1;
    {
        const Interposed looking(hook::free, [&valid](void *block) {
            valid = platform_pair_valid(static_cast<const PairHandle *>(block));
            hook::free.real(block);
        });
        platform_pair_close(ph);
    }
    EXPECT_EQ(valid, 0);
}
