// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The parent's open when a step fails.
#include "pair_support.h"

#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

using namespace zel::test;

namespace {

// A fork that fails with the errors in turn, and then is real. Counts the attempts.
struct FailingFork {
    explicit FailingFork(std::vector<int> errors) : errors_(std::move(errors)) {}
    size_t attempts = 0;

private:
    pid_t attempt() {
        if (attempts >= errors_.size()) {
            ++attempts;
            return hook::fork.real();
        }
        errno = errors_[attempts++];
        return -1;
    }

    std::vector<int> errors_;
    Interposed<pid_t()> fork_{hook::fork, [this] { return attempt(); }};
};

std::vector<int> times(size_t count, int error) {
    return std::vector<int>(count, error);
}

void expect_nothing_open(const PairHandle *ph, int error, const char *text) {
    EXPECT_EQ(ph->error_number, error);
    EXPECT_STREQ(ph->error_text, text);
    EXPECT_EQ(ph->companion_pid, 0);
    EXPECT_EQ(ph->rx_fd, -1);
    EXPECT_EQ(ph->tx_fd, -1);
    EXPECT_EQ(ph->parent, 1);
    EXPECT_EQ(ph->kind, 12);
    EXPECT_EQ(ph->child_exit_status, 256);
    EXPECT_EQ(ph->child_term_signal, 0);
    EXPECT_EQ(platform_pair_valid(ph), 1);
}

// Whether two descriptors are the ends of one pair.
bool are_connected(int one, int other) {
    char byte = 0;
    return write(one, "x", 1) == 1 && recv(other, &byte, 1, MSG_DONTWAIT) == 1 && byte == 'x';
}

} // namespace

TEST(PairStartFailure, AFailedSocketpairIsReportedInTheHandle) {
    const Interposed failing(hook::socketpair, fail_always(hook::socketpair, EMFILE, -1));
    int forks = 0;
    const Interposed counting(hook::fork, [&forks] {
        ++forks;
        return hook::fork.real();
    });
    PairHandle *ph = start({.blocking = 0});
    expect_nothing_open(ph, EMFILE, "socketpair create failed");
    EXPECT_EQ(forks, 0);
    EXPECT_EQ(platform_pair_ok(ph), 0);
    platform_pair_close(ph);
}

TEST(PairStartFailure, SocketsThatCannotBeMovedAreAFailedSocketpair) {
    const Outcome outcome = run_in_child([] {
        close(STDIN_FILENO);
        const std::set<int> before = open_descriptors();
        const Interposed failing(hook::fcntl, fail_always(hook::fcntl, EMFILE, -1));
        const PairHandle *ph = start();
        printf("%d %s %d %d\n", ph->error_number, ph->error_text, ph->rx_fd, ph->companion_pid);
        printf("%s\n", open_descriptors() == before ? "nothing left open" : "something left open");
    });
    EXPECT_EQ(outcome.out, std::to_string(EMFILE) + " socketpair create failed -1 0\nnothing left open\n");
}

TEST(PairStartFailure, AForkIsTriedAgainWhileTheProcessTableIsFull) {
    FailingFork failing(times(30, EAGAIN));
    PairHandle *ph = start();
    EXPECT_EQ(failing.attempts, 31u);
    EXPECT_EQ(ph->error_number, 0);
    EXPECT_EQ(ph->error_text, nullptr);
    EXPECT_TRUE(echoes(ph, 7));
    EXPECT_EQ(finish(ph), kServed);
}

TEST(PairStartFailure, AForkIsTriedThirtyOneTimesAndNoMore) {
    const std::set<int> before = open_descriptors();
    FailingFork failing(times(40, EAGAIN));
    PairHandle *ph = start();
    EXPECT_EQ(failing.attempts, 31u);
    expect_nothing_open(ph, EAGAIN, "fork failed");
    platform_pair_close(ph);
    EXPECT_EQ(close_added_since(before), 2u);
}

TEST(PairStartFailure, AForkIsTriedAgainWithoutAPause) {
    const std::set<int> before = open_descriptors();
    const FailingFork failing(times(40, EAGAIN));
    int pauses = 0;
    const Interposed sleeping(hook::sleep, count_calls(hook::sleep, pauses, 0));
    const Interposed polling(hook::ppoll, count_calls(hook::ppoll, pauses, 0));
    const Interposed selecting(hook::select, count_calls(hook::select, pauses, 0));
    platform_pair_close(start());
    EXPECT_EQ(pauses, 0);
    close_added_since(before);
}

TEST(PairStartFailure, AnotherErrorOfForkEndsTheAttemptsAtOnce) {
    const std::set<int> before = open_descriptors();
    FailingFork failing(times(5, ENOMEM));
    PairHandle *ph = start();
    EXPECT_EQ(failing.attempts, 1u);
    expect_nothing_open(ph, ENOMEM, "fork failed");
    platform_pair_close(ph);
    close_added_since(before);
}

TEST(PairStartFailure, AnotherErrorOfForkEndsTheRetriesToo) {
    const std::set<int> before = open_descriptors();
    FailingFork failing({EAGAIN, EAGAIN, ENOMEM, EAGAIN});
    PairHandle *ph = start();
    EXPECT_EQ(failing.attempts, 3u);
    EXPECT_EQ(ph->error_number, ENOMEM);
    platform_pair_close(ph);
    close_added_since(before);
}

TEST(PairStartFailure, AFailedForkLeavesBothSocketEndsOpen) {
    const std::set<int> before = open_descriptors();
    const FailingFork failing(times(1, ENOMEM));
    PairHandle *ph = start();
    std::vector<int> left;
    for (const int fd : open_descriptors()) {
        if (before.count(fd) == 0) {
            left.push_back(fd);
        }
    }
    ASSERT_EQ(left.size(), 2u);
    EXPECT_TRUE(are_connected(left[0], left[1]));
    EXPECT_TRUE(are_connected(left[1], left[0]));
    EXPECT_EQ(ph->rx_fd, -1);
    EXPECT_EQ(ph->tx_fd, -1);
    platform_pair_close(ph);
    EXPECT_EQ(close_added_since(before), 2u);
}

TEST(PairStartFailure, AFailedForkLeavesSigpipeAsItWas) {
    const std::set<int> before = open_descriptors();
    const FailingFork failing(times(1, ENOMEM));
    int changes = 0;
    const Interposed counting(hook::sigaction, count_calls(hook::sigaction, changes, 0));
    platform_pair_close(start({.ignore_sigpipe = 1}));
    EXPECT_EQ(changes, 0);
    close_added_since(before);
}

TEST(PairStartFailure, OutputIsFlushedBeforeEveryAttemptToFork) {
    const std::set<int> before = open_descriptors();
    std::string calls;
    const Interposed flushing(hook::fflush, [&calls](FILE *stream) {
        calls += stream == nullptr ? "flush " : "another ";
        return 0;
    });
    const Interposed forking(hook::fork, [&calls] {
        calls += "fork ";
        errno = calls.size() < 25 ? EAGAIN : ENOMEM;
        return -1;
    });
    platform_pair_close(start());
    EXPECT_EQ(calls, "flush fork flush fork flush fork ");
    close_added_since(before);
}

TEST(PairStartFailure, NoMemoryForTheHandleEndsTheProcessWithAnError) {
    const Outcome outcome = run_in_child([] {
        const Interposed failing(hook::malloc, [](size_t size) -> void * {
            return size == sizeof(PairHandle) ? nullptr : hook::malloc.real(size);
        });
        start();
    });
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "Error: platform_pair_parent_open_vp: Not enough memory to allocate " +
                               std::to_string(sizeof(PairHandle)) + " bytes.\n");
}

TEST(PairStartFailure, WithoutMemoryTheVariableHoldsNoOlderPairsEnd) {
    const ScopedVariable older(kPairVariable, "4711 7 pid-rtx_fd_l");
    const std::string command = std::string("exit ${") + kPairVariable + "+5}";
    PairHandle *ph = nullptr;
    {
        const Interposed failing(hook::malloc, fail_nth(hook::malloc, 1, ENOMEM, nullptr)); // request 0 is the handle
        ph = platform_pair_parent_open_lp(kPairVariable, 0, 1, "sh", nullptr, "sh", "-c", command.c_str(),
                                          static_cast<char *>(nullptr));
    }
    EXPECT_EQ(finish(ph), 0);
    EXPECT_STREQ(getenv(kPairVariable), "4711 7 pid-rtx_fd_l") << "the parent's own stays";
}
