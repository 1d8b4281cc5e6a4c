// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The primary flag, and the messages that are written only while it is set.
#include "msg_support.h"

using namespace zel::test;

TEST(MsgPrimary, TheFlagIsSetAtFirstAndReadsAsWritten) {
    const Outcome outcome = run_messages([] {
        printf("%d ", msg_is_primary());
        for (const int flag : {0, 1, -3, 7}) {
            msg_set_primary(flag);
            printf("%d ", msg_is_primary());
        }
    });
    EXPECT_EQ(outcome.out, "1 0 1 -3 7 ");
}

TEST(MsgPrimary, AnyFlagButZeroLetsPrimaryMessagesThrough) {
    const Outcome outcome = run_messages([] {
        msg_set_primary(-3);
        msg_primary_print("text");
    });
    EXPECT_EQ(outcome.out, "text\n");
}

TEST(MsgPrimary, AnUnwrittenMessageLeavesOpenLinesAlone) {
    const Outcome outcome = run_messages([] {
        msg_print_wrap("open");
        msg_set_primary(0);
        msg_primary_print("unwritten");
        MSG_CONT(" still");
    });
    EXPECT_EQ(outcome.out, "open still");
}

TEST(MsgPrimary, AnUnwrittenMessageIsNotEvenLookedAt) {
    const Outcome outcome = run_messages([] {
        msg_set_primary(0);
        msg_primary_print("$5");
        output(3, MSG_FMT_LINE, 1, 0, "", "unknown type");
    });
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
}
