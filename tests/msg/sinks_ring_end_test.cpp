// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Rings at the end of the process.
#include "msg_support.h"
#include "sinks_support.h"

#include <components/platform/zel_pair_connection.h>
#include <malloc/debug_heap.h>
#include <malloc/zel_malloc.h>
#include <support/interpose.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <sys/wait.h>
#include <unistd.h>

using namespace zel::test;

namespace {

// The end of a process with a ring on standard output, which holds "held" and its errors.
Outcome end_by(const std::function<void()> &end) {
    return run_messages([&end] {
        FILE *ring = msg_open_ring(1000, STDOUT_FILENO);
        msg_add_stream(MSG_ERROR, ring);
        fputs("held\n", ring);
        end();
    });
}

} // namespace

TEST(RingAtEnd, EachFatalCallWritesItOutWithItsMessage) {
    EXPECT_EQ(end_by([] { msg_fatal("x"); }).out, "held\nError: x\n");
    EXPECT_EQ(end_by([] { msg_internal_error("x"); }).out, "held\nInternal error: x\n");
    EXPECT_EQ(end_by([] { msg_primary_fatal("x"); }).out, "held\nError: x\n");
    EXPECT_EQ(end_by([] { msg_primary_internal_error("x"); }).out, "held\nInternal error: x\n");
    const std::string with_error = "held\nError: x\n       System error message: No such file or directory\n";
    EXPECT_EQ(end_by([] {
                  errno = ENOENT;
                  msg_fatal_syserr("x");
              }).out,
              with_error);
    EXPECT_EQ(end_by([] {
                  errno = ENOENT;
                  msg_primary_fatal_syserr("x");
              }).out,
              with_error);
}

TEST(RingAtEnd, AFatalCallThatWritesNothingWritesTheRingOut) {
    const Outcome outcome = end_by([] {
        msg_set_primary(0);
        msg_primary_fatal("x");
    });
    EXPECT_EQ(outcome.out, "held\n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(RingAtEnd, ADamagedBlockWritesItOut) {
    const Outcome outcome = end_by([] {
        zel_enable_malloc_debug(ZEL_MALLOC_CHECK_PTR);
        char *block = static_cast<char *>(zel_malloc(8, "test", "block"));
        block[8] = '!';
        zel_free(block);
    });
    EXPECT_EQ(outcome.out.substr(0, 12), "held\nError: ");
    EXPECT_EQ(outcome.status, 1);
}

TEST(RingAtEnd, AListWithoutItsFirstSlotsWritesItOut) {
    const Outcome outcome = run_messages([] {
        FILE *ring = msg_open_ring(1000, STDOUT_FILENO);
        fputs("held\n", ring);
        const Interposed failing(hook::malloc, fail_always(hook::malloc, ENOMEM, nullptr));
        msg_print("x");
    });
    EXPECT_EQ(outcome.out, "held\n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(RingAtEnd, AFailedAssertionWritesItOut) {
    const Outcome outcome = end_by([] { platform_pair_send(nullptr, "x", 1); });
    EXPECT_EQ(outcome.out, "held\n");
    EXPECT_EQ(outcome.signal, SIGABRT);
}

TEST(RingAtEnd, AnOrdinaryEndDoesNotWriteItOut) {
    EXPECT_EQ(end_by([] { exit(0); }).out, "");
    EXPECT_EQ(end_by([] { exit(1); }).out, "");
}

TEST(RingAtEnd, RingsAreWrittenInTheOrderOfTheirOpening) {
    const Outcome outcome = run_messages([] {
        FILE *first = msg_open_ring(100, STDOUT_FILENO);
        FILE *closed = msg_open_ring(100, STDOUT_FILENO);
        FILE *nowhere = msg_open_ring(100, -1);
        FILE *bad = msg_open_ring(100, 1000000);
        FILE *last = msg_open_ring(100, STDOUT_FILENO);
        fputs("last\n", last);
        fputs("bad\n", bad);
        fputs("nowhere\n", nowhere);
        fputs("closed\n", closed);
        fputs("first\n", first);
        fclose(closed);
        msg_fatal("x");
    });
    EXPECT_EQ(outcome.out, "first\nlast\n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(RingAtEnd, AFatalCallOfAnExitHandlerDoesNotWriteItAgain) {
    const Outcome outcome = end_by([] {
        atexit([] { msg_fatal("handler"); });
        msg_fatal("x");
    });
    EXPECT_EQ(outcome.out, "held\nError: x\n");
    EXPECT_EQ(outcome.err, "Error: x\nError: handler\n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(RingAtEnd, AnExitHandlerStillFindsItsText) {
    static FILE *ring;
    const Outcome outcome = run_messages([] {
        ring = msg_open_ring(100, -1);
        fputs("held\n", ring);
        atexit([] { msg_write_ring(ring, STDOUT_FILENO); });
        msg_fatal("x");
    });
    EXPECT_EQ(outcome.out, "held\n");
}

TEST(RingAtEnd, APipeThatNobodyReadsLeavesTheStatusAlone) {
    const Outcome outcome = run_messages([] {
        signal(SIGPIPE, SIG_DFL);
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        FILE *ring = msg_open_ring(100, ends[1]);
        fputs("held\n", ring);
        close(ends[0]);
        msg_fatal("x");
    });
    EXPECT_EQ(outcome.err, "Error: x\n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(RingAtEnd, ACompanionThatCannotBeExecutedWritesNoneOut) {
    const Outcome outcome = end_by([] {
        PairHandle *pair =
            platform_pair_parent_open_lp("RING_PAIR", 1, 1, "/nowhere/x", nullptr, "x", static_cast<char *>(nullptr));
        int status = 0;
        waitpid(platform_pair_companion_pid(pair), &status, 0);
        printf("%d", WEXITSTATUS(status));
    });
    EXPECT_EQ(outcome.out, "1");
}

#ifndef ZEL_SMALL_CONSTANTS
// Holds that the area of a message has room for the report.
TEST(RingAtEndSize, ARequestThatFindsNoMemoryWritesItOutWithoutAny) {
    const Outcome outcome = end_by([] {
        zel_free(zel_malloc(1, "test", "block"));
        const Interposed failing(hook::malloc, fail_always(hook::malloc, ENOMEM, nullptr));
        zel_malloc(SIZE_MAX / 2, "test", "block");
    });
    EXPECT_EQ(outcome.out.substr(0, 31), "held\nError: test (via zel_mallo");
    EXPECT_EQ(outcome.status, 1);
}
#endif
