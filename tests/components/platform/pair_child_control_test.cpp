// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The companion's side of the control: its pair kept to itself, its end with that of its parent.
#include "spawn_support.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace zel::test;

namespace {

const std::string kHybridVariable = std::string(kPairVariable) + "_HYBRID";

bool is_close_on_exec(int fd) {
    return (hook::fcntl.real(fd, F_GETFD, 0) & FD_CLOEXEC) != 0;
}

int seal_fails_with(PairHandle *ph, const char *env_name) {
    errno = 0;
    return platform_pair_child_seal(ph, env_name) == 0 ? errno : -1;
}

int follow_fails_with(const PairHandle *ph, int signal) {
    errno = 0;
    return platform_pair_follow_parent(ph, signal) == 0 ? errno : -1;
}

int followed_signal() {
    int signal = -1;
    prctl(PR_GET_PDEATHSIG, &signal);
    return signal;
}

// Three generations: this process, a parent, its companion. The companion runs the body with the handle of its end, and
// ends with what that returns, as an exit status. The parent ends as soon as the companion asks it to, which it does by
// closing the descriptor that the body gets.
struct Generations {
    int status = 0; // of the companion, as wait gives it

    template <typename Body>
    explicit Generations(Body body) {
        prctl(PR_SET_CHILD_SUBREAPER, 1); // the companion becomes a child of this process
        int ends[2];
        int numbers[2];
        EXPECT_EQ(pipe(ends) | pipe(numbers), 0);
        const pid_t parent = fork();
        if (parent == 0) {
            become_parent(ends, numbers, body);
        }
        close(ends[0]);
        close(ends[1]);
        close(numbers[1]);
        pid_t companion = 0;
        EXPECT_EQ(read(numbers[0], &companion, sizeof companion), static_cast<ssize_t>(sizeof companion));
        close(numbers[0]);
        wait_until_ended(parent); // not reaped before its companion has ended
        EXPECT_EQ(hook::waitpid.real(companion, &status, 0), companion);
        EXPECT_EQ(reap(parent), 0);
        prctl(PR_SET_CHILD_SUBREAPER, 0);
    }

    template <typename Body>
    [[noreturn]] static void become_parent(const int *ends, const int *numbers, Body body) {
        const pid_t pid = getpid();
        const pid_t companion = fork();
        if (companion == 0) {
            close(ends[0]);
            close(numbers[0]);
            close(numbers[1]);
            setenv(kPairVariable, (std::to_string(pid) + " 0 pid-rtx_fd_l").c_str(), 1);
            PairHandle *ph = platform_pair_child_open(kPairVariable, 0, 1);
            const int status = body(ph, ends[1]);
            platform_pair_close(ph);
            _exit(status);
        }
        close(ends[1]);
        hook::write.real(numbers[1], &companion, sizeof companion);
        char byte;
        hook::read.real(ends[0], &byte, 1);
        _exit(0);
    }

    int exit_status() const { return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status); }
};

void wait_for_another_parent(pid_t parent) {
    while (getppid() == parent) {
        usleep(100);
    }
}

} // namespace

// ---- Sealing --------------------------------------------------------------------------------------------------------

TEST(PairChildSeal, TheEndAndTheVariablesStayWithTheCompanion) {
    const LocalPair pair;
    const ScopedVariable variable(kPairVariable, "1 2 pid-rtx_fd_l");
    const ScopedVariable hybrid(kHybridVariable, "0");
    const ScopedVariable other(kHybridVariable + "S", "stays");
    hook::fcntl.real(pair.ph->rx_fd, F_SETFD, 0);
    EXPECT_EQ(platform_pair_child_seal(pair.ph, kPairVariable), 1);
    EXPECT_TRUE(is_close_on_exec(pair.ph->rx_fd));
    EXPECT_EQ(getenv(kPairVariable), nullptr);
    EXPECT_EQ(getenv(kHybridVariable.c_str()), nullptr);
    EXPECT_STREQ(getenv((kHybridVariable + "S").c_str()), "stays");
    EXPECT_EQ(platform_pair_child_seal(pair.ph, kPairVariable), 1) << "and again";
}

TEST(PairChildSeal, TheSealedPairStillServes) {
    const LocalPair pair;
    platform_pair_child_seal(pair.ph, kPairVariable);
    int32_t value = 77;
    EXPECT_EQ(write(pair.peer, &value, sizeof value), static_cast<ssize_t>(sizeof value));
    EXPECT_EQ(platform_pair_recv(pair.ph, &value, sizeof value), static_cast<int32_t>(sizeof value));
}

TEST(PairChildSeal, AFailureChangesNothing) {
    const LocalPair pair;
    const ScopedVariable variable(kPairVariable, "1 2 pid-rtx_fd_l");
    const ScopedVariable hybrid(kHybridVariable, "0");
    hook::fcntl.real(pair.ph->rx_fd, F_SETFD, 0);
    EXPECT_EQ(seal_fails_with(pair.ph, ""), EINVAL);
    EXPECT_EQ(seal_fails_with(pair.ph, "A=B"), EINVAL);
    pair.ph->parent = 1;
    EXPECT_EQ(seal_fails_with(pair.ph, kPairVariable), EINVAL);
    pair.ph->parent = 0;
    {
        const Interposed failing(hook::malloc, fail_always(hook::malloc, ENOMEM, nullptr));
        EXPECT_EQ(seal_fails_with(pair.ph, kPairVariable), ENOMEM);
    }
    {
        const Interposed failing(hook::fcntl, fail_always(hook::fcntl, EBADF, -1));
        EXPECT_EQ(seal_fails_with(pair.ph, kPairVariable), EBADF);
    }
    EXPECT_FALSE(is_close_on_exec(pair.ph->rx_fd));
    EXPECT_NE(getenv(kPairVariable), nullptr);
    EXPECT_NE(getenv(kHybridVariable.c_str()), nullptr);
}

TEST(PairChildSeal, AHandleThatIsNotOpenIsRefused) {
    const ScopedVariable variable(kPairVariable, "abc pid-rtx_fd_l");
    PairHandle *ph = platform_pair_child_open(kPairVariable, 0, 1);
    EXPECT_EQ(seal_fails_with(ph, kPairVariable), EBADF);
    EXPECT_NE(getenv(kPairVariable), nullptr);
    platform_pair_close(ph);
}

// ---- Following the parent -------------------------------------------------------------------------------------------

TEST(PairFollowParent, TheCompanionEndsWithItsParent) {
    const Generations generations([](const PairHandle *ph, int parents_end) {
        if (platform_pair_follow_parent(ph, SIGKILL) != 1 || followed_signal() != SIGKILL) {
            return 1;
        }
        close(parents_end);
        for (;;) {
            pause();
        }
    });
    EXPECT_EQ(generations.exit_status(), -SIGKILL);
}

TEST(PairFollowParent, AParentThatHasEndedAlreadyIsNotedAtOnce) {
    const Generations generations([](const PairHandle *ph, int parents_end) {
        const pid_t parent = getppid();
        close(parents_end);
        wait_for_another_parent(parent);
        platform_pair_follow_parent(ph, SIGTERM);
        return 1;
    });
    EXPECT_EQ(generations.exit_status(), -SIGTERM);
}

// The parent of this one is not reaped before its companion has ended.
TEST(PairFollowParent, AnOlderKernelIsAskedForTheProcess) {
    const Generations generations([](const PairHandle *ph, int parents_end) {
        const pid_t parent = getppid();
        forget_system_calls({SYS_pidfd_open});
        close(parents_end);
        wait_for_another_parent(parent);
        return follow_fails_with(ph, SIGTERM) == ECHILD ? 3 : 1;
    });
    EXPECT_EQ(generations.exit_status(), 3) << "a process that is not reaped exists";
}

TEST(PairFollowParent, ASignalThatIsHandledIsASuccess) {
    const Generations generations([](const PairHandle *ph, int parents_end) {
        const pid_t parent = getppid();
        static volatile sig_atomic_t handled = 0;
        signal(SIGUSR1, [](int) { handled = 1; });
        close(parents_end);
        wait_for_another_parent(parent);
        return platform_pair_follow_parent(ph, SIGUSR1) == 1 && handled == 1 ? 5 : 1;
    });
    EXPECT_EQ(generations.exit_status(), 5);
}

TEST(PairFollowParent, AnotherProcessInBetweenIsAnError) {
    const LocalPair pair;
    pair.ph->kind = PLATFORM_PAIR_KIND_LOCAL;
    pair.ph->companion_pid = getpid(); // it lives and is not the parent of this process
    prctl(PR_SET_PDEATHSIG, SIGUSR2);
    EXPECT_EQ(follow_fails_with(pair.ph, SIGKILL), ECHILD);
    EXPECT_EQ(followed_signal(), SIGUSR2) << "what was asked for before is in place";
    prctl(PR_SET_PDEATHSIG, 0);
}

TEST(PairFollowParent, BothKindsOfAnInheritedEndMayFollow) {
    const LocalPair pair;
    pair.ph->companion_pid = getppid();
    for (const int32_t kind : {PLATFORM_PAIR_KIND_PLAIN, PLATFORM_PAIR_KIND_LOCAL}) {
        pair.ph->kind = kind;
        EXPECT_EQ(platform_pair_follow_parent(pair.ph, SIGUSR1), 1);
        EXPECT_EQ(followed_signal(), SIGUSR1);
        prctl(PR_SET_PDEATHSIG, 0);
    }
}

TEST(PairFollowParent, AnotherHandleOrNoSignalIsRefused) {
    const LocalPair pair;
    pair.ph->companion_pid = getppid();
    for (const int32_t kind : {PLATFORM_PAIR_KIND_HYBRID, PLATFORM_PAIR_KIND_NONE}) {
        pair.ph->kind = kind;
        EXPECT_EQ(follow_fails_with(pair.ph, SIGKILL), EINVAL);
    }
    pair.ph->kind = PLATFORM_PAIR_KIND_LOCAL;
    for (const int signal : {0, -1, -SIGKILL, 65, INT32_MAX}) {
        EXPECT_EQ(follow_fails_with(pair.ph, signal), EINVAL) << signal;
    }
    pair.ph->parent = 1;
    EXPECT_EQ(follow_fails_with(pair.ph, SIGKILL), EINVAL);
    EXPECT_EQ(followed_signal(), 0);
}

TEST(PairChildControl, ADamagedHandleIsAnAssertion) {
    PairHandle record = sample_record(0);
    const Outcome sealed = run_in_child([&record] { platform_pair_child_seal(&record, "X"); });
    EXPECT_NE(sealed.err.find("platform_pair_child_seal: Assertion"), std::string::npos) << sealed.err;
    const Outcome followed = run_in_child([&record] { platform_pair_follow_parent(&record, SIGKILL); });
    EXPECT_NE(followed.err.find("platform_pair_follow_parent: Assertion"), std::string::npos) << followed.err;
}
