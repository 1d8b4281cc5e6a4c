// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The calls that end the process.
#include "msg_support.h"

#include <cerrno>
#include <cstdlib>
#include <support/interpose.h>
#include <vector>

using namespace zel::test;

namespace {

struct FatalCall {
    const char *name;
    const char *prefix;
    bool primary_only;
    bool system_error;
    void (*write)();
};

const std::vector<FatalCall> kFatalCalls = {
    {"msg_fatal", "Error: ", false, false, [] { msg_fatal("cannot open %s", "x"); }},
    {"msg_internal_error", "Internal error: ", false, false, [] { msg_internal_error("cannot open %s", "x"); }},
    {"msg_fatal_syserr", "Error: ", false, true, [] { msg_fatal_syserr("cannot open %s", "x"); }},
    {"msg_primary_fatal", "Error: ", true, false, [] { msg_primary_fatal("cannot open %s", "x"); }},
    {"msg_primary_internal_error", "Internal error: ", true, false,
     [] { msg_primary_internal_error("cannot open %s", "x"); }},
    {"msg_primary_fatal_syserr", "Error: ", true, true, [] { msg_primary_fatal_syserr("cannot open %s", "x"); }},
};

void PrintTo(const FatalCall &call, std::ostream *out) {
    *out << call.name;
}

std::string expected_text(const FatalCall &call) {
    const std::string mp = call.primary_only ? "" : "[3] ";
    const std::string first = mp + call.prefix + "cannot open x\n";
    const std::string indentation(std::string(call.prefix).size(), ' ');
    return call.system_error ? first + mp + indentation + "System error message: No such file or directory\n" : first;
}

class MsgFatalCalls : public testing::TestWithParam<FatalCall> {};

} // namespace

TEST_P(MsgFatalCalls, AFatalCallWritesAnErrorAndEndsWithStatusOne) {
    const FatalCall &call = GetParam();
    const Outcome outcome = run_messages([&call] {
        msg_set_mp_prefix("[3] ");
        errno = ENOENT;
        call.write();
    });
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, expected_text(call));
    EXPECT_EQ(outcome.status, 1);
}

TEST_P(MsgFatalCalls, AFatalCallWithoutThePrimaryFlagIsSilentIfPrimaryOnly) {
    const FatalCall &call = GetParam();
    const Outcome outcome = run_messages([&call] {
        msg_set_mp_prefix("[3] ");
        msg_set_primary(0);
        errno = ENOENT;
        call.write();
    });
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, call.primary_only ? "" : expected_text(call));
    EXPECT_EQ(outcome.status, 1);
}

TEST_P(MsgFatalCalls, AFatalCallWithoutMemoryEndsWithStatusOne) {
    const FatalCall &call = GetParam();
    const Outcome outcome = run_messages([&call] {
        // Within a message, which has the fixed area.
        on_first_piece(MSG_DEBUG, [&call] {
            const Interposed failing(hook::malloc, fail_always(hook::malloc, ENOMEM, nullptr));
            call.write();
        });
        output(MSG_DEBUG, MSG_FMT_LINE, 0, 0, "", "text");
    });
    const std::string lost = "A message could not be formatted and is lost.\n";
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, call.system_error ? lost + lost : lost);
    EXPECT_EQ(outcome.status, 1);
}

#ifndef ZEL_SMALL_CONSTANTS
// The fixed area holds the text.
TEST_P(MsgFatalCalls, AFatalCallNeedsNoMemory) {
    const FatalCall &call = GetParam();
    const Outcome outcome = run_messages([&call] {
        msg_set_mp_prefix("[3] ");
        _msg_get_stream_desc(MSG_ERROR);
        const Interposed failing(hook::malloc, fail_always(hook::malloc, ENOMEM, nullptr));
        errno = ENOENT;
        call.write();
    });
    EXPECT_EQ(outcome.err, expected_text(call));
    EXPECT_EQ(outcome.status, 1);
}
#endif

TEST_P(MsgFatalCalls, AFatalCallLeavesByExitSoThatStreamsAreFlushed) {
    const FatalCall &call = GetParam();
    const Outcome outcome = run_messages([&call] {
        atexit([] { fputs("handler ran, ", stdout); });
        fputs("buffered, ", stdout);
        call.write();
    });
    EXPECT_EQ(outcome.out, "buffered, handler ran, ");
    EXPECT_EQ(outcome.status, 1);
}

INSTANTIATE_TEST_SUITE_P(, MsgFatalCalls, testing::ValuesIn(kFatalCalls),
                         [](const testing::TestParamInfo<FatalCall> &call) { return std::string(call.param.name); });

TEST(MsgFatal, TheSystemErrorIsTheOneOnEntry) {
    const Outcome outcome = run_messages([] {
        // The first stream of the errors fails with an error of its own in the middle of
        // the message.
        msg_clear_streams(MSG_ERROR);
        msg_add_stream(MSG_ERROR, open_full_stream(_IONBF));
        msg_add_stream(MSG_ERROR, stdout);
        errno = EACCES;
        msg_fatal_syserr("no entry");
    });
    EXPECT_EQ(outcome.out, "no entry\n       System error message: Permission denied\n");
    EXPECT_EQ(outcome.err, "Warning: Error during output of error message.  This stream will no longer be\n"
                           "         used.\n"
                           "         Stream error was: No space left on device\n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(MsgFatal, AnUnwrittenPrimaryMessageAddsNoSystemErrorText) {
    const Outcome outcome = run_messages([] {
        msg_warn_wrap("counting");
        msg_set_primary(0);
        errno = ENOENT;
        msg_primary_fatal_syserr("lost");
    });
    EXPECT_EQ(outcome.err, "Warning: counting");
    EXPECT_EQ(outcome.status, 1);
}

TEST(MsgFatal, TheSystemErrorOfASuccessIsItsText) {
    const Outcome outcome = run_messages([] {
        errno = 0;
        msg_fatal_syserr("odd");
    });
    EXPECT_EQ(outcome.err, "Error: odd\n       System error message: Success\n");
    EXPECT_EQ(outcome.status, 1);
}
