// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// msg_debug, and a program that has one of its own.
#include "msg_support.h"

#include <msg/sinks.h>
#include <support/files.h>

#include <unistd.h>

using namespace zel::test;

TEST(MsgDebug, WritesALineWithoutAPrefix) {
    const Outcome outcome = run_messages([] {
        msg_set_print_prefix("print: ");
        msg_debug("%d clients", 12);
    });
    EXPECT_EQ(outcome.out, "12 clients\n");
    EXPECT_EQ(outcome.err, "");
}

TEST(MsgDebug, TheLineGoesToTheStreamsOfItsTypeAndIsFlushed) {
    const Outcome outcome = run_messages([] {
        msg_clear_streams(MSG_DEBUG);
        FILE *own = fdopen(dup(STDERR_FILENO), "w");
        msg_add_stream(MSG_DEBUG, own);
        msg_debug("here");
        _exit(0);
    });
    EXPECT_EQ(outcome.err, "here\n");
    EXPECT_EQ(outcome.out, "");
}

TEST(MsgDebug, TheLineIsWrapped) {
    const Outcome outcome = run_messages([] {
        msg_set_width_limit(9);
        msg_debug("one two three");
    });
    EXPECT_EQ(outcome.out, "one two\nthree\n");
}

TEST(MsgDebug, ItCanBeContinued) {
    const Outcome outcome = run_messages([] {
        msg_debug("one");
        MSG_CONT("two");
    });
    EXPECT_EQ(outcome.out, "one\ntwo\n");
}

TEST(MsgDebug, AProgramKeepsItsOwnBesideEitherLibrary) {
    for (const char *program : {"own_debug_static", "own_debug_shared"}) {
        const Outcome outcome = run_program({companion_path(program)});
        EXPECT_EQ(outcome.out, "own\n") << program;
        EXPECT_EQ(outcome.err, "Warning: others\n") << program;
        EXPECT_EQ(outcome.status, 0) << program;
    }
}
