// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The counting itself: what happens in the scope is seen, and nothing else.
#include "cost.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace zel::test;

// The length is not known to the compiler: it would write a small copy out in place.
volatile size_t length_of_copy = 100;

TEST(CountedCost, AnEmptyScopeCostsNothing) {
    const Cost cost = cost_of([] { const Counted counted; });
    EXPECT_EQ(cost.calls, Calls{});
    EXPECT_EQ(cost.calls_of_child, Calls{});
    EXPECT_EQ(cost.allocations + cost.releases + cost.copied, 0U);
}

TEST(CountedCost, SystemCallsAreSeenInTheirOrder) {
    const Cost cost = cost_of([] {
        int fds[2] = {-1, -1};
        const Counted counted;
        require(socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0, "socketpair");
        require(write(fds[0], "text", 4) == 4, "write");
        char text[4];
        require(recv(fds[1], text, sizeof text, 0) == 4, "recv");
        close(fds[0]);
        close(fds[1]);
    });
    EXPECT_EQ(cost.calls, (Calls{"socketpair", "write", "recv", "close", "close"}));
}

TEST(CountedCost, WorkOutsideTheScopeIsNotSeen) {
    const Cost cost = cost_of([] {
        int fd = -1;
        {
            const Counted counted;
            fd = open("/dev/null", O_WRONLY);
        }
        free(strdup("text"));
        close(fd);
    });
    EXPECT_EQ(cost.calls, Calls{"open"});
    EXPECT_EQ(cost.allocations + cost.releases, 0U);
}

TEST(CountedCost, EachWayToTakeMemoryIsSeen) {
    const Cost cost = cost_of([] {
        const Counted counted;
        void *block = realloc(malloc(length_of_copy), 2 * length_of_copy);
        free(block);
        free(calloc(1, length_of_copy));
    });
    EXPECT_EQ(cost.allocations, 3U);
    EXPECT_EQ(cost.releases, 2U);
}

TEST(CountedCost, TheMemoryOfTheCLibraryIsSeen) {
    const Cost cost = cost_of([] {
        const Counted counted;
        free(strdup("text"));
    });
    EXPECT_EQ(cost.allocations, 1U);
    EXPECT_EQ(cost.releases, 1U);
}

TEST(CountedCost, CopiesAndMovesAreSeen) {
    const Cost cost = cost_of([] {
        char text[200] = {};
        const Counted counted;
        memcpy(text, text + 100, length_of_copy);
        memmove(text, text + 1, length_of_copy);
    });
    EXPECT_EQ(cost.copied, 200U);
}

TEST(CountedCost, AChildIsSeenUpToItsProgram) {
    const Cost cost = cost_of([] {
        const Counted counted;
        const pid_t child = fork();
        if (child == 0) {
            close(0);
            execl("/bin/true", "true", nullptr);
        }
        waitpid(child, nullptr, 0);
    });
    EXPECT_EQ(cost.calls, (Calls{"fork", "waitpid"}));
    ASSERT_GE(cost.calls_of_child.size(), 2U);
    EXPECT_EQ(cost.calls_of_child.back(), "exec");
    EXPECT_EQ(cost.calls_of_child[cost.calls_of_child.size() - 2], "close");
}

TEST(CountedCost, WorkThatDoesNotComeToItsEndIsAFailure) {
    testing::TestPartResultArray failures;
    {
        const testing::ScopedFakeTestPartResultReporter reporter(&failures);
        cost_of([] { _exit(7); });
        cost_of([] { abort(); });
    }
    EXPECT_EQ(failures.size(), 2);
}

} // namespace
