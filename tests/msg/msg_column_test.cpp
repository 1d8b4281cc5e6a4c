// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The column of a line that never ends. The counter is set by hand: it would take two
// thousand million characters to get there.
#include "msg_support.h"

#include <msg/internal/state.h>

#include <gtest/gtest.h>

using namespace zel::test;

TEST(MsgColumn, AnEndlessLineStopsCountingAtTheLargestNumber) {
    const Outcome outcome = run_messages([] {
        msg_print_raw("x");
        zel::msg::state.column = INT32_MAX - 2;
        for (int piece = 0; piece < 3; ++piece) {
            MSG_CONT("yy");
        }
        fprintf(stderr, "%d\n", zel::msg::state.column);
        msg_print_wrap("next");
        fprintf(stderr, "%d\n", zel::msg::state.column);
    });
    EXPECT_EQ(outcome.out, "xyyyyyy\nnext");
    EXPECT_EQ(outcome.err, "2147483647\n4\n");
    EXPECT_EQ(outcome.status, 0);
}
