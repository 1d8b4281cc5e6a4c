// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Ending a companion, whatever it does.
#include "spawn_support.h"

#include <csignal>
#include <cstring>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace zel::test;

namespace {

// Far above what a slow machine needs.
constexpr int32_t kLong = 30000;

// A companion that is ready to be ended.
PairHandle *start_ready(const char *name, std::vector<std::string> arguments = {}) {
    PairHandle *ph = start({.companion = name, .arguments = std::move(arguments)});
    int32_t ready;
    EXPECT_TRUE(receive_value(ph, &ready));
    return ph;
}

PairHandle *start_echo() {
    PairHandle *ph = start();
    EXPECT_TRUE(echoes(ph, 1));
    return ph;
}

void stop_by_signal(const PairHandle *ph) {
    kill(ph->companion_pid, SIGSTOP);
    siginfo_t info = {};
    waitid(P_PID, static_cast<id_t>(ph->companion_pid), &info, WSTOPPED | WNOWAIT);
}

// The companion has ended by that signal, or with that status, and is closed.
void expect_end(PairHandle *ph, int32_t status, int32_t signal) {
    EXPECT_EQ(ph->child_exit_status, status);
    EXPECT_EQ(ph->child_term_signal, signal);
    EXPECT_FALSE(has_children());
    platform_pair_close(ph);
}

} // namespace

TEST(PairStop, ACompanionEndsBySigterm) {
    PairHandle *ph = start_echo();
    EXPECT_EQ(platform_pair_stop(ph, kLong), 1);
    expect_end(ph, 0, SIGTERM);
}

TEST(PairStop, ASpawnedCompanionEndsToo) {
    PairHandle *ph = spawn_companion("pair_echo");
    EXPECT_EQ(platform_pair_stop(ph, kLong), 1);
    expect_end(ph, 0, SIGTERM);
}

TEST(PairStop, ACompanionThatIsStoppedEnds) {
    PairHandle *ph = start_echo();
    stop_by_signal(ph);
    EXPECT_EQ(platform_pair_stop(ph, kLong), 1);
    expect_end(ph, 0, SIGTERM);
}

TEST(PairStop, ACompanionThatIgnoresSigtermIsKilled) {
    PairHandle *ph = start_ready("pair_stubborn");
    const int64_t before = milliseconds_now();
    EXPECT_EQ(platform_pair_stop(ph, 50), 1);
    EXPECT_GE(milliseconds_now() - before, 50);
    expect_end(ph, 0, SIGKILL);
}

TEST(PairStop, ACompanionThatIgnoresSigtermAndIsStoppedIsKilled) {
    PairHandle *ph = start_ready("pair_stubborn");
    stop_by_signal(ph);
    EXPECT_EQ(platform_pair_stop(ph, 1), 1);
    expect_end(ph, 0, SIGKILL);
}

TEST(PairStop, WithoutAGraceItIsKilledAtOnce) {
    PairHandle *ph = start_ready("pair_stubborn");
    EXPECT_EQ(platform_pair_stop(ph, 0), 1);
    expect_end(ph, 0, SIGKILL);
}

TEST(PairStop, ACompanionThatTakesItsTimeHasIt) {
    PairHandle *ph = start_ready("pair_slow_end", {"50"});
    EXPECT_EQ(platform_pair_stop(ph, kLong), 1);
    int32_t terminations;
    EXPECT_TRUE(receive_value(ph, &terminations));
    EXPECT_EQ(terminations, 1);
    expect_end(ph, kServed, 0);
}

TEST(PairStop, ANegativeGraceHasNoEnd) {
    PairHandle *ph = start_ready("pair_slow_end", {"50"});
    EXPECT_EQ(platform_pair_stop(ph, -1), 1);
    expect_end(ph, kServed, 0);
}

TEST(PairStop, ACompanionThatHasEndedKeepsItsStatus) {
    PairHandle *ph = start({.companion = "pair_ender"});
    const int32_t value = 9;
    platform_pair_send(ph, &value, sizeof value);
    wait_until_ended(ph->companion_pid);
    EXPECT_EQ(platform_pair_stop(ph, kLong), 1);
    EXPECT_EQ(platform_pair_stop(ph, kLong), 1) << "and again";
    expect_end(ph, 9, 0);
}

TEST(PairStop, ACompanionThatWasReapedElsewhereIsNotSignalled) {
    const Outcome outcome = run_in_child([] {
        for (const bool old_kernel : {false, true}) {
            PairHandle *ph = start_missing();
            reap(ph->companion_pid);
            if (old_kernel) {
                forget_system_calls({SYS_pidfd_open});
            }
            int signals = 0;
            const Interposed counting(hook::kill, [&signals](pid_t pid, int signal) {
                signals += signal == 0 ? 0 : 1;
                return hook::kill.real(pid, signal);
            });
            const int result = platform_pair_stop(ph, kLong);
            printf("%d %d %d, ", result, errno == ECHILD ? 1 : 0, signals);
        }
    });
    EXPECT_EQ(outcome.out, "-1 1 0, -1 1 0, ");
}

// A handler of SIGCHLD reaps the companion right after stop has looked.
TEST(PairStop, ACompanionThatIsReapedInBetweenIsNotSignalled) {
    PairHandle *ph = start_missing();
    wait_until_ended(ph->companion_pid);
    int looks = 0;
    const Interposed reaping(hook::waitpid, [&looks](pid_t pid, int *status, int options) {
        const pid_t result = hook::waitpid.real(pid, status, options);
        return looks++ == 0 ? 0 : result;
    });
    EXPECT_EQ(platform_pair_stop(ph, kLong), -1);
    EXPECT_EQ(errno, ECHILD);
    EXPECT_EQ(looks, 2);
    platform_pair_close(ph);
}

TEST(PairStop, AnOlderKernelEndsCompanionsToo) {
    const Outcome outcome = run_in_child([] {
        forget_system_calls({SYS_pidfd_open});
        PairHandle *ph = start_ready("pair_stubborn");
        stop_by_signal(ph);
        const int result = platform_pair_stop(ph, 20);
        printf("%d %d %d", result, ph->child_term_signal, has_children() ? 1 : 0);
    });
    EXPECT_EQ(outcome.out, "1 9 0");
}

TEST(PairStop, ACompanionThatMayNotBeSignalledIsTold) {
    const Outcome outcome = run_in_child([] {
        forget_system_calls({SYS_pidfd_open});
        PairHandle *ph = start_echo();
        int result;
        {
            const Interposed refusing(hook::kill, fail_always(hook::kill, EPERM, -1));
            result = platform_pair_stop(ph, kLong);
        }
        printf("%d %d %d", result, errno == EPERM ? 1 : 0, echoes(ph, 7) ? 1 : 0);
        finish(ph);
    });
    EXPECT_EQ(outcome.out, "0 1 1");
}

TEST(PairStop, AWaitThatFailsDoesNotSpareTheCompanion) {
    PairHandle *ph = start_ready("pair_stubborn");
    {
        const Interposed failing(hook::ppoll, fail_always(hook::ppoll, ENOMEM, -1));
        platform_pair_stop(ph, kLong);
    }
    EXPECT_EQ(platform_pair_wait(ph, kLong), 1);
    expect_end(ph, 0, SIGKILL);
}

// A debugger sees the end of its process before the parent does.
TEST(PairStop, ACompanionUnderADebuggerThatIsInNoHurryIsWaitedFor) {
    PairHandle *ph = start_echo();
    int ready[2];
    int go[2];
    ASSERT_EQ(pipe(ready) | pipe(go), 0);
    const pid_t debugger = fork();
    if (debugger == 0) {
        char byte = ptrace(PTRACE_SEIZE, ph->companion_pid, nullptr, nullptr) == 0 ? 'y' : 'n';
        hook::write.real(ready[1], &byte, 1);
        hook::read.real(go[0], &byte, 1);
        _exit(0); // its process is its parent's from now on
    }
    char byte = 0;
    ASSERT_EQ(hook::read.real(ready[0], &byte, 1), 1);
    ASSERT_EQ(byte, 'y');
    kill(ph->companion_pid, SIGKILL);
    int waits = 0;
    {
        const Interposed counting(hook::ppoll,
                                  [&waits](pollfd *fds, nfds_t count, const timespec *time, const sigset_t *mask) {
                                      ++waits;
                                      return hook::ppoll.real(fds, count, time, mask);
                                  });
        EXPECT_EQ(platform_pair_wait(ph, 100), 0) << "it cannot be reaped yet";
    }
    EXPECT_LT(waits, 60) << "the wait rests in between";
    ASSERT_EQ(hook::write.real(go[1], "x", 1), 1);
    EXPECT_EQ(reap(debugger), 0);
    EXPECT_EQ(platform_pair_wait(ph, kLong), 1);
    expect_end(ph, 0, SIGKILL);
    for (const int fd : {ready[0], ready[1], go[0], go[1]}) {
        close(fd);
    }
}
