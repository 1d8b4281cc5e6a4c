// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
#include <msg/msg.h>
#include <support/child.h>
#include <support/interpose.h>

using namespace zel::test;

TEST(MsgPrint, AnEmptyTextIsAnEmptyLine) {
    const Outcome outcome = run_in_child([] { msg_print("%s", ""); });
    EXPECT_EQ(outcome.out, "\n");
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
}
TEST(MsgPrint, Fatal) {
    const Outcome outcome = run_in_child([] { errno = 2; msg_fatal_syserr("cannot open %s", "x"); });
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "Error: cannot open x\n       System error message: No such file or directory\n");
    EXPECT_EQ(outcome.status, 1);
}
