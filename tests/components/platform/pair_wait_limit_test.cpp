// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Waiting for a companion with a limit.
#include "spawn_support.h"

#include <csignal>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace zel::test;

namespace {

// Far above what a slow machine needs, far below what a hang would take.
constexpr int32_t kLong = 30000;

struct Ending {
    int result;
    int32_t exit_status;
    int32_t signal;
    bool operator==(const Ending &) const = default;
};

void PrintTo(const Ending &ending, std::ostream *out) {
    *out << "result " << ending.result << ", status " << ending.exit_status << ", signal " << ending.signal;
}

// A pair_ender that is told to end in that way is waited for.
Ending wait_for_ender(int32_t value, int32_t milliseconds) {
    PairHandle *ph = start({.companion = "pair_ender"});
    EXPECT_EQ(platform_pair_send(ph, &value, sizeof value), static_cast<int32_t>(sizeof value));
    const int result = platform_pair_wait(ph, milliseconds);
    const Ending ending = {result, ph->child_exit_status, ph->child_term_signal};
    platform_pair_close(ph);
    return ending;
}

// Every number below the limit is taken, until the scope ends.
struct NoDescriptorFree {
    NoDescriptorFree() {
        getrlimit(RLIMIT_NOFILE, &before);
        const rlimit lowered = {.rlim_cur = static_cast<rlim_t>(*open_descriptors().rbegin() + 1),
                                .rlim_max = before.rlim_max};
        setrlimit(RLIMIT_NOFILE, &lowered);
        for (int fd = dup(0); fd != -1; fd = dup(0)) {
            taken.push_back(fd);
        }
    }
    ~NoDescriptorFree() {
        for (const int fd : taken) {
            close(fd);
        }
        setrlimit(RLIMIT_NOFILE, &before);
    }
    NoDescriptorFree(const NoDescriptorFree &) = delete;
    NoDescriptorFree &operator=(const NoDescriptorFree &) = delete;

    rlimit before = {};
    std::vector<int> taken;
};

void expect_failure(int result, int error) {
    EXPECT_EQ(errno, error);
    EXPECT_EQ(result, -1);
}

} // namespace

TEST(PairWait, TheFieldsSayHowTheCompanionEnded) {
    EXPECT_EQ(wait_for_ender(0, kLong), (Ending{1, 0, 0}));
    EXPECT_EQ(wait_for_ender(7, kLong), (Ending{1, 7, 0}));
    EXPECT_EQ(wait_for_ender(-SIGTERM, kLong), (Ending{1, 0, SIGTERM}));
    EXPECT_EQ(wait_for_ender(3, -1), (Ending{1, 3, 0})) << "without a limit";
}

TEST(PairWait, ACompanionThatHasEndedIsReapedAtOnce) {
    PairHandle *ph = start_missing();
    wait_until_ended(ph->companion_pid);
    EXPECT_EQ(platform_pair_wait(ph, 0), 1);
    EXPECT_EQ(ph->child_exit_status, 1);
    EXPECT_FALSE(has_children());
    platform_pair_close(ph);
}

TEST(PairWait, AnEndThatIsKnownIsToldAgain) {
    PairHandle *ph = start_missing();
    EXPECT_EQ(platform_pair_wait(ph, kLong), 1);
    int calls = 0;
    const Interposed counting(hook::waitpid, count_calls(hook::waitpid, calls, -1));
    EXPECT_EQ(platform_pair_wait(ph, kLong), 1);
    EXPECT_EQ(platform_pair_wait(ph, 0), 1);
    EXPECT_EQ(calls, 0);
    platform_pair_close(ph);
}

TEST(PairWait, AnEndThatAnotherCallHasSeenIsTold) {
    PairHandle *ph = start_missing();
    wait_until_ended(ph->companion_pid);
    EXPECT_EQ(platform_pair_companion_alive(ph), 0);
    EXPECT_EQ(platform_pair_wait(ph, kLong), 1);
    EXPECT_EQ(ph->child_exit_status, 1);
    platform_pair_close(ph);
}

TEST(PairWait, TheTimeIsWaitedForAndNotCutShort) {
    PairHandle *ph = start();
    const int64_t before = milliseconds_now();
    EXPECT_EQ(platform_pair_wait(ph, 0), 0);
    EXPECT_EQ(platform_pair_wait(ph, 60), 0);
    EXPECT_GE(milliseconds_now() - before, 60);
    EXPECT_EQ(ph->child_exit_status, PLATFORM_PAIR_STATUS_UNKNOWN);
    EXPECT_TRUE(echoes(ph, 2));
    EXPECT_EQ(finish(ph), kServed);
}

TEST(PairWait, SignalsNeitherShortenNorLengthenTheTime) {
    for (const bool old_kernel : {false, true}) {
        const Outcome outcome = run_in_child([old_kernel] {
            if (old_kernel) {
                forget_system_calls({SYS_pidfd_open});
            }
            PairHandle *ph = start();
            echoes(ph, 1);
            start_timer_signals([](int) {}, 1000);
            const int64_t before = milliseconds_now();
            const int result = platform_pair_wait(ph, 100);
            const int64_t taken = milliseconds_now() - before;
            printf("%d %d %d", result, taken >= 100 ? 1 : 0, taken < 10000 ? 1 : 0);
            kill(ph->companion_pid, SIGKILL);
        });
        EXPECT_EQ(outcome.out, "0 1 1") << old_kernel;
    }
}

TEST(PairWait, AnInterruptedLookAtTheChildIsRepeated) {
    PairHandle *ph = start_missing();
    wait_until_ended(ph->companion_pid);
    const Interposed interrupted(hook::waitpid, fail_nth(hook::waitpid, 0, EINTR, -1));
    EXPECT_EQ(platform_pair_wait(ph, 0), 1);
    platform_pair_close(ph);
}

TEST(PairWait, AnOlderKernelIsAskedAgainAndAgain) {
    const Outcome outcome = run_in_child([] {
        forget_system_calls({SYS_pidfd_open});
        const Ending ending = wait_for_ender(7, kLong);
        PairHandle *ph = start({.companion = "pair_slow_end", .arguments = {"30"}});
        int32_t ready;
        receive_value(ph, &ready);
        kill(ph->companion_pid, SIGTERM);
        printf("%d %d, without a limit %d", ending.result, ending.exit_status, platform_pair_wait(ph, -1));
    });
    EXPECT_EQ(outcome.out, "1 7, without a limit 1");
}

TEST(PairWait, NoDescriptorNeedsToBeFree) {
    PairHandle *ph = start({.companion = "pair_ender"});
    const int32_t value = 5;
    const NoDescriptorFree none;
    EXPECT_EQ(platform_pair_wait(ph, 20), 0);
    EXPECT_EQ(platform_pair_send(ph, &value, sizeof value), static_cast<int32_t>(sizeof value));
    EXPECT_EQ(platform_pair_wait(ph, kLong), 1);
    EXPECT_EQ(ph->child_exit_status, 5);
    platform_pair_close(ph);
}

TEST(PairWait, NoDescriptorIsLeftOpen) {
    PairHandle *ph = start();
    const std::set<int> before = open_descriptors();
    EXPECT_EQ(platform_pair_wait(ph, 1), 0);
    EXPECT_EQ(platform_pair_stop(ph, 0), 1);
    EXPECT_EQ(open_descriptors(), before);
    platform_pair_close(ph);
}

TEST(PairWait, AWaitThatFailsIsTold) {
    PairHandle *ph = start();
    {
        const Interposed failing(hook::ppoll, fail_always(hook::ppoll, ENOMEM, -1));
        expect_failure(platform_pair_wait(ph, kLong), ENOMEM);
    }
    EXPECT_EQ(finish(ph), kServed);
}

TEST(PairWait, ACompanionThatWasReapedElsewhereIsAnError) {
    PairHandle *ph = start_missing();
    EXPECT_EQ(reap(ph->companion_pid), 1);
    expect_failure(platform_pair_wait(ph, kLong), ECHILD);
    EXPECT_EQ(ph->child_exit_status, PLATFORM_PAIR_STATUS_UNKNOWN);
    int kills = 0;
    const Interposed counting(hook::kill, count_calls(hook::kill, kills, 0));
    expect_failure(platform_pair_wait(ph, kLong), ECHILD);
    EXPECT_EQ(platform_pair_kill_child(ph), 0);
    EXPECT_EQ(kills, 0) << "the number may be another's";
    platform_pair_close(ph);
}

TEST(PairWait, ACompanionThatKillChildHasReapedIsAnError) {
    PairHandle *ph = start();
    EXPECT_EQ(platform_pair_kill_child(ph), 1);
    int calls = 0;
    const Interposed counting(hook::waitpid, count_calls(hook::waitpid, calls, 0));
    expect_failure(platform_pair_wait(ph, kLong), ECHILD);
    EXPECT_EQ(calls, 0) << "a later child may have its number";
    platform_pair_close(ph);
}

TEST(PairWait, AParentThatIgnoresSigchldLearnsTheEndAndNotHow) {
    const Outcome outcome = run_in_child([] {
        signal(SIGCHLD, SIG_IGN);
        PairHandle *ph = start_missing();
        const int result = platform_pair_wait(ph, kLong);
        printf("%d %d", result, errno == ECHILD ? 1 : 0);
    });
    EXPECT_EQ(outcome.out, "-1 1");
}

TEST(PairWait, KillChildSignalsNobodyAfterIt) {
    PairHandle *ph = start_missing();
    EXPECT_EQ(platform_pair_wait(ph, kLong), 1);
    int kills = 0;
    const Interposed counting(hook::kill, count_calls(hook::kill, kills, 0));
    EXPECT_EQ(platform_pair_kill_child(ph), 0);
    EXPECT_EQ(kills, 0);
    platform_pair_close(ph);
}

TEST(PairWait, AHandleWithoutACompanionIsRefused) {
    PairHandle *ph = start_without_sockets();
    expect_failure(platform_pair_wait(ph, kLong), EINVAL);
    expect_failure(platform_pair_stop(ph, kLong), EINVAL);
    platform_pair_close(ph);
    const LocalPair companions;
    companions.ph->companion_pid = getpid();
    expect_failure(platform_pair_wait(companions.ph, kLong), EINVAL);
    expect_failure(platform_pair_stop(companions.ph, kLong), EINVAL);
}

TEST(PairWait, ADamagedHandleIsAnAssertion) {
    PairHandle record = sample_record(1);
    for (const auto &[call, name] :
         {std::pair{&platform_pair_wait, "platform_pair_wait"}, std::pair{&platform_pair_stop, "platform_pair_stop"}}) {
        const Outcome outcome = run_in_child([&record, tried = call] { tried(&record, 0); });
        EXPECT_EQ(outcome.signal, SIGABRT);
        EXPECT_NE(outcome.err.find(std::string(name) + ": Assertion `platform_pair_valid(ph)' failed."),
                  std::string::npos)
            << outcome.err;
    }
}
