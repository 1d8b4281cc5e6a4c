// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// What a pair costs: its start, a value, a question about the companion, its end.
#include "cost.h"

#include <companions/pair_values.h>
#include <support/files.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace zel::test;

constexpr char *kEnd = nullptr;

// The companion's end of a pair of sockets, whose other end sends the first value.
PairHandle *open_end() {
    int fds[2];
    require(socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0, "socketpair");
    const std::string end = std::to_string(getppid()) + " " + std::to_string(fds[0]) + " pid-rtx_fd";
    setenv(kPairVariable, end.c_str(), 1);
    PairHandle *ph = platform_pair_child_open(kPairVariable, 0, 1);
    require(send(fds[1], "four", 4, 0) == 4, "send");
    return ph;
}

// stdio_fds: as for the start of a companion.
PairHandle *start(const std::string &program, const int *stdio_fds) {
    return platform_pair_parent_open_lp(kPairVariable, 0, 1, program.c_str(), stdio_fds, "pair_echo", kEnd);
}

void finish(PairHandle *ph) {
    const pid_t companion = platform_pair_companion_pid(ph);
    platform_pair_close(ph);
    require(waitpid(companion, nullptr, 0) == companion, "waitpid");
}

// What a start costs after so many others.
Cost cost_of_start(const int *stdio_fds, int others = 0) {
    return cost_of([program = companion_path("pair_echo"), stdio_fds, others] {
        for (int other = 0; other < others; ++other) {
            finish(start(program, stdio_fds));
        }
        PairHandle *ph = nullptr;
        {
            const Counted counted;
            ph = start(program, stdio_fds);
        }
        finish(ph);
    });
}

// The transfer of a value is that one system call, without memory and without a copy.
template <typename Transfer>
void expect_one_call(const char *call, Transfer transfer) {
    const Cost cost = cost_of([transfer] {
        PairHandle *ph = open_end();
        int32_t value = 4711;
        const Counted counted;
        transfer(ph, &value, sizeof value);
    });
    EXPECT_EQ(cost.calls, Calls{call});
    EXPECT_EQ(cost.allocations, 0U);
    EXPECT_EQ(cost.copied, 0U);
}

TEST(CountedPair, AValueSentIsOneSend) {
    expect_one_call("send", platform_pair_send);
}

TEST(CountedPair, AValueReceivedIsOneRecv) {
    expect_one_call("recv", platform_pair_recv);
}

TEST(CountedPair, AStartIsNineSystemCallsOfTheParent) {
    const Cost cost = cost_of_start(nullptr, 1);
    EXPECT_EQ(cost.calls, (Calls{"getpid", "socketpair", "fcntl",                            // the two ends
                                 "sigpending", "sigprocmask", "sigtimedwait", "sigprocmask", // around the flush
                                 "fork", "close"}));
    EXPECT_EQ(cost.allocations, 1U); // the handle
}

// The memory through which companions tell why they could not be executed.
TEST(CountedPair, TheFirstStartAlsoMapsTheReportsOfFailures) {
    const Calls calls = cost_of_start(nullptr).calls;
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "mmap"), 1);
    EXPECT_EQ(calls.size(), 10U);
}

// set_robust_list belongs to the C library's fork.
TEST(CountedPair, AStartOnTheNullDeviceIsNineSystemCallsOfTheChild) {
    const Cost cost = cost_of_start(nullptr);
    EXPECT_EQ(cost.calls_of_child,
              (Calls{"set_robust_list", "open", "open", "dup2", "dup2", "dup2", "close", "close", "close", "exec"}));
}

TEST(CountedPair, AStartOnTheParentsDescriptorsIsTwoSystemCallsOfTheChild) {
    const int stdio_fds[] = {0, 1, 2};
    const Cost cost = cost_of_start(stdio_fds);
    EXPECT_EQ(cost.calls_of_child, (Calls{"set_robust_list", "close", "exec"}));
}

TEST(CountedPair, AQuestionAboutALivingCompanionIsThreeSystemCalls) {
    const Cost cost = cost_of([program = companion_path("pair_echo")] {
        PairHandle *ph = start(program, nullptr);
        {
            const Counted counted;
            platform_pair_companion_alive(ph);
        }
        finish(ph);
    });
    EXPECT_EQ(cost.calls, (Calls{"open", "close", "waitpid"}));
}

TEST(CountedPair, ACloseGivesTheHandleBackAfterTwoCloses) {
    const Cost cost = cost_of([] {
        PairHandle *ph = open_end();
        const Counted counted;
        platform_pair_close(ph);
    });
    EXPECT_EQ(cost.calls, (Calls{"close", "close"}));
    EXPECT_EQ(cost.allocations, 0U);
    EXPECT_EQ(cost.releases, 1U);
}

} // namespace
