// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Diagnostic texts as they stand.
#include "msg_support.h"
#include "sinks_support.h"

#include <support/interpose.h>

#include <cerrno>
#include <cstdlib>

using namespace zel::test;

TEST(MsgDiagText, TheTextIsWrittenAsItStands) {
    const Outcome outcome = run_messages([] {
        msg_add_stream(MSG_DIAG, stdout);
        msg_diag_text("50% done, %s %m %% %n\n$x");
    });
    EXPECT_EQ(outcome.out, "50% done, %s %m %% %n\n$x");
}

TEST(MsgDiagText, ATextOfAnyLengthIsWhole) {
    const std::string text(100000, '%');
    const Outcome outcome = run_messages([&text] {
        msg_add_stream(MSG_DIAG, stdout);
        msg_diag_text(text.c_str());
    });
    EXPECT_EQ(outcome.out, text);
}

TEST(MsgDiagText, EachStreamOfTheTypeGetsIt) {
    const Outcome outcome = run_messages([] {
        msg_add_stream(MSG_DIAG, stdout);
        msg_add_stream(MSG_DIAG, stderr);
        msg_diag_text("text\n");
    });
    EXPECT_EQ(outcome.out, "text\n");
    EXPECT_EQ(outcome.err, "text\n");
}

TEST(MsgDiagText, WithoutAStreamNothingIsDone) {
    const Outcome outcome = run_messages([] {
        errno = EPERM;
        {
            const Interposed failing(hook::malloc, [](size_t) -> void * { abort(); });
            msg_diag_text("text\n");
        }
        const bool kept = errno == EPERM;
        msg_print("kept %d", kept ? 1 : 0);
        msg_diag_text("text\n");
    });
    EXPECT_EQ(outcome.out, "kept 1\n");
    EXPECT_EQ(outcome.err, "");
}

TEST(MsgDiagText, TheEmptyTextAndNullWriteNothing) {
    const Outcome outcome = run_messages([] {
        msg_add_stream(MSG_DIAG, stdout);
        msg_diag_text("");
        msg_diag_text(nullptr);
        msg_diag_text("end");
    });
    EXPECT_EQ(outcome.out, "end");
}

TEST(MsgDiagText, AStreamThatFailsStaysAndErrnoIsKept) {
    const Outcome outcome = run_messages([] {
        msg_add_stream(MSG_DIAG, open_full_stream(_IONBF));
        msg_add_stream(MSG_DIAG, stdout);
        errno = EPERM;
        msg_diag_text("one\n");
        const bool kept = errno == EPERM;
        printf("%d streams, kept %d", _msg_get_stream_desc(MSG_DIAG)->count, kept ? 1 : 0);
    });
    EXPECT_EQ(outcome.out, "one\n2 streams, kept 1");
    EXPECT_EQ(outcome.err, "");
}

TEST(MsgDiagText, WithTheSyncFlagEachTextIsForcedToDisk) {
    const Outcome outcome = run_messages([] {
        msg_sync_mode(MSG_DIAG, 1);
        FILE *file = tmpfile();
        msg_add_stream(MSG_DIAG, file);
        const int expected = fileno(file);
        const Interposed watching(hook::fsync, [&](int fd) {
            printf("%s ", fd == expected ? contents(file).c_str() : "?");
            return 0;
        });
        msg_diag_text("one");
        msg_diag_text("");
    });
    EXPECT_EQ(outcome.out, "one one ");
}

TEST(MsgDiagText, TheColumnAndTheLastMessageStay) {
    const Outcome outcome = run_messages([] {
        msg_add_stream(MSG_DIAG, stderr);
        msg_print_wrap("one ");
        msg_diag_text("text\n");
        MSG_CONT("two");
    });
    EXPECT_EQ(outcome.out, "one two");
    EXPECT_EQ(outcome.err, "text\n");
}
