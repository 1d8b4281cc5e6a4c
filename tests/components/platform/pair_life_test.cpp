// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Pairs over their whole life: several at once, hundreds in a row, and every call of an open failing in turn.
#include "pair_support.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace zel::test;

namespace {

// How an open went whose n-th call of some function failed.
struct Round {
    int32_t error = 0;
    std::string text = {}; // of the handle
    bool served = false;   // the companion of a blocking pair answered
    size_t left_open = 0;  // descriptors beyond those before, after the handle was closed
    bool operator==(const Round &) const = default;
};

void PrintTo(const Round &round, std::ostream *out) {
    *out << "error " << round.error << " \"" << round.text << "\", " << (round.served ? "served" : "not served")
         << ", left open " << round.left_open;
}

Round run_round(int blocking) {
    const std::set<int> before = open_descriptors();
    PairHandle *ph = start({.blocking = blocking});
    Round round = {.error = ph->error_number, .text = ph->error_text == nullptr ? "" : ph->error_text};
    round.served = ph->companion_pid != 0 && blocking != 0 && echoes(ph, 1);
    const pid_t pid = ph->companion_pid;
    platform_pair_close(ph);
    if (pid != 0) {
        EXPECT_EQ(reap(pid), kServed);
    }
    round.left_open = close_added_since(before);
    EXPECT_FALSE(has_children());
    return round;
}

// Runs rounds, the n-th call of the function failing in the n-th, in the parent or in the child, until none fails.
// Returns those that failed.
template <typename Result, typename... Arguments>
std::vector<Round> sweep(Hook<Result(Arguments...)> &swept, int error, int blocking) {
    constexpr int kTooMany = 100;
    std::vector<Round> rounds;
    for (int nth = 0; nth < kTooMany; ++nth) {
        StepLog log;
        int calls = 0;
        const Interposed<Result(Arguments...)> failing(swept, [&](Arguments... arguments) -> Result {
            if (calls++ == nth) {
                log.add("failed");
                errno = error;
                return -1;
            }
            return swept.real(arguments...);
        });
        const Round round = run_round(blocking);
        if (log.of_parent().empty() && log.of_child().empty()) {
            EXPECT_EQ(round, (Round{.served = blocking != 0}));
            return rounds;
        }
        rounds.push_back(round);
    }
    ADD_FAILURE() << "the sweep has no end";
    return rounds;
}

// The outcome of an open whose n-th request for memory fails, in the parent or in the child.
std::string outcome_without_memory(int nth) {
    const Outcome outcome = run_in_child([nth] {
        int calls = 0;
        const Interposed failing(hook::malloc, [&calls, nth](size_t size) -> void * {
            return calls++ == nth ? nullptr : hook::malloc.real(size);
        });
        PairHandle *ph = start({.ignore_sigpipe = 1});
        const bool served = echoes(ph, 1);
        const int status = finish(ph);
        printf("%s %d", served ? "served" : "not served", status);
    });
    return outcome.out + (outcome.status == 0 ? "" : "ended with " + std::to_string(outcome.status));
}

} // namespace

TEST(PairLife, TheFirstOfTwoPairsEndsWhileTheSecondRunsOn) {
    PairHandle *first = start();
    PairHandle *second = start();
    EXPECT_TRUE(echoes(first, 1));
    EXPECT_TRUE(echoes(second, 2));
    EXPECT_EQ(finish(first), kServed) << "it saw the end of its stream";
    EXPECT_TRUE(echoes(second, 3));
    EXPECT_EQ(finish(second), kServed);
}

TEST(PairLife, AnyOfManyPairsMayEndFirst) {
    std::vector<PairHandle *> pairs;
    for (int count = 0; count < 8; ++count) {
        pairs.push_back(start());
    }
    for (const size_t which : {3u, 0u, 7u, 5u, 1u, 6u, 2u, 4u}) {
        EXPECT_TRUE(echoes(pairs[which], 1));
        EXPECT_EQ(finish(pairs[which]), kServed);
    }
}

TEST(PairLife, ACompanionThatDiesIsTheEndOfTheStream) {
    PairHandle *ph = start({.companion = "pair_ender"});
    PairHandle *other = start();
    send_value(ph, -SIGKILL);
    int32_t value;
    EXPECT_FALSE(receive_value(ph, &value));
    EXPECT_EQ(platform_pair_errno(ph), 0);
    EXPECT_EQ(finish(ph), -SIGKILL);
    EXPECT_EQ(finish(other), kServed);
}

TEST(PairLife, TwoHundredCompanionsLeaveNoDescriptorAndNoProcess) {
    const std::set<int> before = open_descriptors();
    for (int32_t count = 0; count < 200; ++count) {
        PairHandle *ph = start();
        ASSERT_TRUE(echoes(ph, count));
        if (count % 2 == 0) {
            ASSERT_EQ(platform_pair_kill_child(ph), 1);
            platform_pair_close(ph);
        } else {
            ASSERT_EQ(finish(ph), kServed);
        }
    }
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_FALSE(has_children());
}

TEST(PairFailureSweep, Socketpair) {
    EXPECT_EQ(sweep(hook::socketpair, ENFILE, 1),
              std::vector<Round>{(Round{.error = ENFILE, .text = "socketpair create failed"})});
}

TEST(PairFailureSweep, ForkWithoutMemory) {
    EXPECT_EQ(sweep(hook::fork, ENOMEM, 1),
              std::vector<Round>{(Round{.error = ENOMEM, .text = "fork failed", .left_open = 2})});
}

TEST(PairFailureSweep, ForkWithAFullProcessTable) {
    EXPECT_EQ(sweep(hook::fork, EAGAIN, 1), std::vector<Round>{(Round{.served = true})});
}

TEST(PairFailureSweep, TheModesOfABlockingPair) {
    // Close-on-exec alone; the pair works without it.
    EXPECT_EQ(sweep(hook::fcntl, EIO, 1), std::vector<Round>{(Round{.served = true})});
}

TEST(PairFailureSweep, TheModesOfANonBlockingPair) {
    // Close-on-exec, then reading and setting the mode, at once in the parent and in the child.
    EXPECT_EQ(sweep(hook::fcntl, EIO, 0), std::vector<Round>(3));
}

TEST(PairFailureSweep, Memory) {
    EXPECT_EQ(outcome_without_memory(0), "ended with 1") << "no handle";
    EXPECT_EQ(outcome_without_memory(1), "not served 1") << "the companion's variable is missing";
    EXPECT_EQ(outcome_without_memory(2), "served 0") << "nothing else is asked for";
}

TEST(PairLife, ClosingLeavesErrnoAsItWas) {
    const Outcome outcome = run_in_child([] {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) {
            exit(2);
        }
        const std::string value = "1 " + std::to_string(ends[0]) + " pid-rtx_fd_l";
        setenv("CLOSE_PAIR", value.c_str(), 1);
        PairHandle *pair = platform_pair_child_open("CLOSE_PAIR", 0, 1);
        errno = ENOENT;
        platform_pair_close(pair);
        printf("%d", errno == ENOENT);
    });
    EXPECT_EQ(outcome.out, "1");
}
