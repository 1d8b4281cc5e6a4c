// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Waiting for processes and ending them.
#include "pair_support.h"

#include <msg/msg.h>

#include <csignal>
#include <cstdlib>
#include <sys/wait.h>
#include <unistd.h>

using namespace zel::test;

namespace {

pid_t fork_exiting(int status) {
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(status);
    }
    wait_until_ended(pid);
    return pid;
}

// A child that lives until a signal ends it.
pid_t fork_waiting() {
    const pid_t pid = fork();
    while (pid == 0) {
        pause();
    }
    return pid;
}

pid_t fork_killed(int signal) {
    const pid_t pid = fork_waiting();
    kill(pid, signal);
    wait_until_ended(pid);
    return pid;
}

struct Reaped {
    int32_t result;
    int32_t exit_code;
    int32_t signal;
    bool operator==(const Reaped &) const = default;
};

void PrintTo(const Reaped &reaped, std::ostream *out) {
    *out << "result " << reaped.result << ", exit code " << reaped.exit_code << ", signal " << reaped.signal;
}

Reaped wait_nohang(pid_t pid) {
    Reaped reaped = {.result = 0, .exit_code = 999, .signal = 999};
    reaped.result = platform_wait_nohang(pid, &reaped.exit_code, &reaped.signal);
    return reaped;
}

// The results of platform_wait_nohang for that wait status.
Reaped decoded(int status) {
    const Interposed giving(hook::waitpid, [status](pid_t pid, int *out, int) {
        *out = status;
        return pid;
    });
    return wait_nohang(4711);
}

// A waitpid that fails with the errors in turn and then is as if the process had ended with that status.
struct FailingWait {
    FailingWait(std::vector<int> errors, int status) : errors_(std::move(errors)), status_(status) {}
    std::vector<int> errno_before = {};

private:
    pid_t wait(pid_t pid, int *status, int options) {
        EXPECT_EQ(options, 0);
        const size_t call = errno_before.size();
        errno_before.push_back(errno);
        if (call < errors_.size()) {
            errno = errors_[call];
            return -1;
        }
        if (status != nullptr) {
            *status = status_;
        }
        return pid;
    }

    std::vector<int> errors_;
    int status_;
    Interposed<pid_t(pid_t, int *, int)> waitpid_{
        hook::waitpid, [this](pid_t pid, int *status, int options) { return wait(pid, status, options); }};
};

const std::string kInterrupted = "waitpid: : Interrupted system call\n";
const std::string kNoChild = "waitpid: : No child processes\n";
const std::string kTryAgain = "waitpid: : Resource temporarily unavailable\n";

// The diagnostic lines of a body, then its own output.
std::string reports_of(const std::function<void()> &body) {
    const Outcome outcome = run_in_child([&body] {
        msg_add_stream(MSG_DIAG, stdout);
        body();
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "");
    return outcome.out;
}

constexpr int kStorm = 200; // signals before the child is let go

volatile sig_atomic_t storm_signals = 0;
int storm_release = -1; // where the child waits for a byte

// The storm ends with its last signal. On a slow machine the next one would come before the wait has begun anew.
void count_storm(int /*signal*/) {
    storm_signals = storm_signals + 1;
    if (storm_signals == kStorm) {
        alarm(0);
        [[maybe_unused]] const ssize_t written = write(storm_release, "x", 1);
    }
}

// A child that ends with status 5 when the storm has raged long enough.
pid_t fork_child_of_storm() {
    int ends[2];
    if (pipe(ends) != 0) {
        abort();
    }
    storm_release = ends[1];
    const pid_t pid = fork();
    if (pid == 0) {
        char byte;
        _exit(read(ends[0], &byte, 1) == 1 ? 5 : 6);
    }
    return pid;
}

} // namespace

TEST(WaitNohang, AChildThatRunsIsZeroAndBothOutputsAreZero) {
    const pid_t pid = fork_waiting();
    EXPECT_EQ(wait_nohang(pid), (Reaped{0, 0, 0}));
    kill(pid, SIGKILL);
    EXPECT_EQ(reap(pid), -SIGKILL);
}

TEST(WaitNohang, AnExitCodeIsTold) {
    for (const int code : {0, 1, 7, 128, 255}) {
        const pid_t pid = fork_exiting(code);
        EXPECT_EQ(wait_nohang(pid), (Reaped{pid, code, 0}));
    }
}

TEST(WaitNohang, ADeathBySignalIsTold) {
    for (const int signal : {SIGHUP, SIGKILL, SIGTERM, SIGUSR1}) {
        const pid_t pid = fork_killed(signal);
        EXPECT_EQ(wait_nohang(pid), (Reaped{pid, 0, signal}));
    }
}

TEST(WaitNohang, TheBitsOfAStatusAreReadAsTheSystemWritesThem) {
    EXPECT_EQ(decoded(0x0000), (Reaped{4711, 0, 0}));
    EXPECT_EQ(decoded(0xff00), (Reaped{4711, 255, 0}));
    EXPECT_EQ(decoded(0x0001), (Reaped{4711, 0, 1}));
    EXPECT_EQ(decoded(0x008b), (Reaped{4711, 0, 11})) << "a core was written";
    EXPECT_EQ(decoded(0x007e), (Reaped{4711, 0, 126}));
    EXPECT_EQ(decoded(0x137f), (Reaped{4711, 0, 0})) << "stopped, not dead";
}

TEST(WaitNohang, IsOneCallThatDoesNotBlock) {
    std::string calls;
    const Interposed recorded(hook::waitpid, [&calls](pid_t pid, int *, int options) {
        calls += std::to_string(pid) + (options == WNOHANG ? " nohang;" : " otherwise;");
        errno = EINTR;
        return -1;
    });
    EXPECT_EQ(wait_nohang(4711), (Reaped{-1, 0, 0}));
    EXPECT_EQ(calls, "4711 nohang;");
}

TEST(WaitNohang, ExitCodeAndSignalMayBeNull) {
    int32_t exit_code = 999;
    pid_t pid = fork_exiting(3);
    EXPECT_EQ(platform_wait_nohang(pid, &exit_code, nullptr), pid);
    EXPECT_EQ(exit_code, 3);
    int32_t signal = 999;
    pid = fork_killed(SIGKILL);
    EXPECT_EQ(platform_wait_nohang(pid, nullptr, &signal), pid);
    EXPECT_EQ(signal, SIGKILL);
    pid = fork_exiting(3);
    EXPECT_EQ(platform_wait_nohang(pid, nullptr, nullptr), pid);
}

TEST(WaitNohang, AProcessThatIsNoChildIsAnErrorWithoutAReport) {
    EXPECT_EQ(reports_of([] {
                  const Reaped reaped = wait_nohang(getpid());
                  printf("%d %d %d %d\n", reaped.result, reaped.exit_code, reaped.signal, errno);
              }),
              "-1 0 0 " + std::to_string(ECHILD) + "\n");
}

TEST(WaitNohang, AnAnswerThatNamesNoProcessHasNoStatus) {
    for (const pid_t group : {0, -1}) {
        const Interposed answering(hook::waitpid, [group](pid_t, int *status, int) {
            *status = 0x0709;
            return group;
        });
        EXPECT_EQ(wait_nohang(group), (Reaped{group, 0, 0}));
    }
}

TEST(WaitChild, TheStatusIsTheSystems) {
    int32_t status = 999;
    pid_t pid = fork_exiting(7);
    EXPECT_EQ(platform_wait_child(pid, &status), pid);
    EXPECT_EQ(status, 0x0700);
    pid = fork_killed(SIGKILL);
    EXPECT_EQ(platform_wait_child(pid, &status), pid);
    EXPECT_EQ(status, SIGKILL);
}

TEST(WaitChild, TheStatusMayBeNull) {
    const pid_t pid = fork_exiting(7);
    EXPECT_EQ(platform_wait_child(pid, nullptr), pid);
    EXPECT_FALSE(has_children());
}

TEST(WaitChild, TheCallBlocksUntilTheChildEnds) {
    PairHandle *ph = start({.companion = "pair_ender"});
    const pid_t pid = ph->companion_pid;
    std::string order;
    const Interposed recorded(hook::waitpid, [&](pid_t child, int *status, int options) {
        EXPECT_EQ(hook::waitpid.real(child, nullptr, WNOHANG), 0) << "it runs still";
        order += "asked;";
        send_value(ph, 9);
        return hook::waitpid.real(child, status, options);
    });
    int32_t status = 0;
    EXPECT_EQ(platform_wait_child(pid, &status), pid);
    EXPECT_EQ(order, "asked;");
    EXPECT_EQ(status, 0x0900);
    platform_pair_close(ph);
}

TEST(WaitChild, InterruptionsAreReportedAndTheWaitGoesOn) {
    EXPECT_EQ(reports_of([] {
                  const FailingWait failing({EINTR, EAGAIN, EINTR}, 0x0500);
                  int32_t status = 0;
                  const int32_t result = platform_wait_child(4711, &status);
                  printf("%d %x\n", result, static_cast<unsigned>(status));
              }),
              kInterrupted + kTryAgain + kInterrupted + "4711 500\n");
}

TEST(WaitChild, ErrnoIsClearedBeforeEveryRetry) {
    const FailingWait failing({EINTR, EAGAIN}, 0);
    errno = E2BIG;
    EXPECT_EQ(platform_wait_child(4711, nullptr), 4711);
    EXPECT_EQ(failing.errno_before, (std::vector<int>{E2BIG, 0, 0}));
}

TEST(WaitChild, AnotherErrorIsReportedOnceAndEndsTheWait) {
    EXPECT_EQ(reports_of([] {
                  const int32_t result = platform_wait_child(getpid(), nullptr);
                  const int error = errno;
                  printf("%d %d\n", result, error);
              }),
              kNoChild + "-1 " + std::to_string(ECHILD) + "\n");
}

TEST(WaitChild, AnErrorAfterInterruptionsEndsTheWaitToo) {
    EXPECT_EQ(reports_of([] {
                  const FailingWait failing({EINTR, ECHILD}, 0);
                  printf("%d\n", platform_wait_child(4711, nullptr));
              }),
              kInterrupted + kNoChild + "-1\n");
}

TEST(WaitChild, AStormOfSignalsIsReportedCallByCall) {
    const std::string said = reports_of([] {
        const pid_t pid = fork_child_of_storm();
        int failed = 0;
        const Interposed counting(hook::waitpid, [&failed](pid_t child, int *status, int options) {
            const pid_t result = hook::waitpid.real(child, status, options);
            failed += result == -1;
            return result;
        });
        start_timer_signals(count_storm, 500);
        int32_t status = 0;
        const int32_t result = platform_wait_child(pid, &status);
        printf("%s %x %d %s\n", result == pid ? "reaped" : "lost", static_cast<unsigned>(status), failed,
               failed > kStorm / 10 ? "interrupted" : "calm");
    });
    size_t reports = 0;
    size_t at = 0;
    for (; said.compare(at, kInterrupted.size(), kInterrupted) == 0; at += kInterrupted.size()) {
        ++reports;
    }
    EXPECT_EQ(said.substr(at), "reaped 500 " + std::to_string(reports) + " interrupted\n");
}

TEST(KillAndReap, AProcessIsTerminatedAndWaitedFor) {
    const pid_t pid = fork_waiting();
    std::vector<int> signals;
    const Interposed recorded(hook::kill, [&signals](pid_t child, int signal) {
        signals.push_back(signal);
        return hook::kill.real(child, signal);
    });
    EXPECT_EQ(platform_kill_and_reap(pid), 1);
    EXPECT_EQ(signals, std::vector<int>{SIGTERM});
    EXPECT_FALSE(has_children());
}

TEST(KillAndReap, SigkillIsForASigtermThatCannotBeSent) {
    const pid_t pid = fork_waiting();
    std::vector<int> signals;
    const Interposed recorded(hook::kill, [&signals](pid_t child, int signal) {
        signals.push_back(signal);
        if (signal == SIGTERM) {
            errno = EPERM;
            return -1;
        }
        return hook::kill.real(child, signal);
    });
    EXPECT_EQ(platform_kill_and_reap(pid), 1);
    EXPECT_EQ(signals, (std::vector<int>{SIGTERM, SIGKILL}));
    EXPECT_FALSE(has_children());
}

TEST(KillAndReap, WhenNeitherCanBeSentNobodyIsWaitedFor) {
    const Interposed failing(hook::kill, fail_always(hook::kill, EPERM, -1));
    const FailingWait waiting({}, 0);
    EXPECT_EQ(platform_kill_and_reap(4711), 0);
    EXPECT_EQ(waiting.errno_before.size(), 0u);
}

TEST(KillAndReap, AWaitThatEndsInAnErrorIsReportedAndStillASuccess) {
    EXPECT_EQ(reports_of([] {
                  const Interposed sent(hook::kill, [](pid_t, int) { return 0; });
                  printf("%d\n", platform_kill_and_reap(getpid()));
              }),
              kNoChild + "1\n");
}

TEST(KillAndReap, AnInterruptedWaitIsReportedAndGoesOn) {
    EXPECT_EQ(reports_of([] {
                  const Interposed sent(hook::kill, [](pid_t, int) { return 0; });
                  const FailingWait failing({EINTR, EAGAIN}, 0);
                  const int result = platform_kill_and_reap(4711);
                  printf("%d %zu\n", result, failing.errno_before.size());
              }),
              kInterrupted + kTryAgain + "1 3\n");
}

TEST(KillAndReap, NoNumberBelowOneIsEverSignalled) {
    int calls = 0;
    const Interposed counting(hook::kill, count_calls(hook::kill, calls, 0));
    const FailingWait waiting({}, 0);
    for (const int32_t pid : {0, -1, -2, -getpid(), INT32_MIN}) {
        EXPECT_EQ(platform_kill_and_reap(pid), 0) << pid;
    }
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(waiting.errno_before.size(), 0u);
}

TEST(KillAndReap, ACompanionThatDelaysItsEndIsWaitedForAndNotKilled) {
    PairHandle *ph = start({.companion = "pair_slow_end", .arguments = {"300"}});
    int32_t value = -1;
    ASSERT_TRUE(receive_value(ph, &value)) << "it is ready for the signal";
    EXPECT_EQ(platform_pair_kill_child(ph), 1);
    EXPECT_FALSE(has_children());
    ASSERT_TRUE(receive_value(ph, &value)) << "it came to its own end";
    EXPECT_EQ(value, 1) << "one SIGTERM and no more";
    EXPECT_FALSE(receive_value(ph, &value));
    platform_pair_close(ph);
}
