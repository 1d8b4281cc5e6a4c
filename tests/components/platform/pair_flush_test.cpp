// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The flush of the output streams before a fork, when nobody reads what they write.
#include "pair_support.h"

#include <components/platform/file_control.h>

#include <csignal>
#include <cstdlib>
#include <unistd.h>

using namespace zel::test;

namespace {

// From now on standard output is a pipe that nobody reads.
void lose_reader() {
    int ends[2];
    if (pipe(ends) != 0) {
        _exit(9);
    }
    dup2(ends[1], STDOUT_FILENO);
    close(ends[0]);
    close(ends[1]);
}

bool is_blocked(int signal) {
    sigset_t mask;
    sigprocmask(SIG_SETMASK, nullptr, &mask);
    return sigismember(&mask, signal) == 1;
}

bool is_pending(int signal) {
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, signal) == 1;
}

void block(int signal) {
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, signal);
    sigprocmask(SIG_BLOCK, &mask, nullptr);
}

// How a process ends that starts a companion with something left to write to nobody.
Outcome start_after(void (*prepare)()) {
    return run_in_child([prepare] {
        lose_reader();
        prepare();
        printf("to nobody");
        PairHandle *ph = start({.ignore_sigpipe = 1});
        const bool served = echoes(ph, 1);
        finish(ph);
        _exit(served ? 0 : 2);
    });
}

} // namespace

TEST(FlushBeforeFork, WithoutAReaderTheParentThatIgnoresSigpipeLivesOn) {
    const Outcome outcome = start_after([] {});
    EXPECT_EQ(outcome.signal, 0);
    EXPECT_EQ(outcome.status, 0);
}

TEST(FlushBeforeFork, AHandlerOfTheProgramsIsNotCalled) {
    const Outcome outcome = start_after([] { signal(SIGPIPE, [](int) { _exit(7); }); });
    EXPECT_EQ(outcome.status, 0);
}

TEST(FlushBeforeFork, NoSignalIsLeftPendingWhereOneIsBlockedOrIgnored) {
    const Outcome outcome = run_in_child([] {
        lose_reader();
        for (const bool ignored : {false, true}) {
            signal(SIGPIPE, ignored ? SIG_IGN : SIG_DFL);
            block(SIGPIPE);
            printf("to nobody");
            platform_wait_child(platform_spawnl("true", "true", nullptr), nullptr);
            if (is_pending(SIGPIPE) || !is_blocked(SIGPIPE)) {
                _exit(1);
            }
        }
        _exit(0);
    });
    EXPECT_EQ(outcome.status, 0);
}

TEST(FlushBeforeFork, ASignalThatWasPendingBeforeStaysPending) {
    const Outcome outcome = run_in_child([] {
        lose_reader();
        block(SIGPIPE);
        raise(SIGPIPE);
        printf("to nobody");
        platform_wait_child(platform_spawnl("true", "true", nullptr), nullptr);
        _exit(is_pending(SIGPIPE) ? 0 : 1);
    });
    EXPECT_EQ(outcome.status, 0);
}

TEST(FlushBeforeFork, TheForkComesWithTheMaskAndTheDispositionAsTheyWere) {
    bool as_before = false;
    const Interposed looking(hook::fork, [&as_before] {
        struct sigaction action = {};
        hook::sigaction.real(SIGPIPE, nullptr, &action);
        as_before = !is_blocked(SIGPIPE) && !is_pending(SIGPIPE) && action.sa_handler == SIG_DFL;
        return hook::fork.real();
    });
    PairHandle *ph = start();
    EXPECT_TRUE(as_before);
    EXPECT_EQ(finish(ph), kServed);
}

TEST(FlushBeforeFork, OnlySigpipeIsBlockedMeanwhile) {
    bool seen = false;
    const Interposed looking(hook::fflush, [&seen](FILE *stream) {
        seen = is_blocked(SIGPIPE) && !is_blocked(SIGTERM) && !is_blocked(SIGALRM);
        return hook::fflush.real(stream);
    });
    PairHandle *ph = start();
    EXPECT_TRUE(seen);
    EXPECT_EQ(finish(ph), kServed);
}

TEST(FlushBeforeFork, AFailedFlushLeavesErrno) {
    const Outcome outcome = run_in_child([] {
        lose_reader();
        printf("to nobody");
        errno = E2BIG;
        const Interposed looking(hook::fork, []() -> pid_t { _exit(errno == E2BIG ? 0 : 1); });
        start();
    });
    EXPECT_EQ(outcome.status, 0);
}
