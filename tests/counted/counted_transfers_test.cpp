// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// What whole transfers, and messages of data, cost.
#include "cost.h"

#include <components/platform/message_lines.h>
#include <components/platform/pair_control.h>
#include <components/platform/socket.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using namespace zel::test;

constexpr int32_t kFiveSeconds = 5000;

// A handle on one of two connected sockets, and a receive buffer.
struct Ends {
    PairHandle *pair;
    int peer;
};

Ends connect_ends() {
    int fds[2];
    require(socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0, "socketpair");
    setenv("ZEL_COUNTED_PAIR", (std::to_string(getppid()) + " " + std::to_string(fds[0]) + " pid-rtx_fd").c_str(), 1);
    platform_msgbuf_set(platform_msgbuf_create(65536));
    return {.pair = platform_pair_child_open("ZEL_COUNTED_PAIR", 0, 1), .peer = fds[1]};
}

int accept_message(int /*socket*/, const PlatformMessage * /*message*/, void * /*user*/) {
    return 1;
}

TEST(CountedTransfers, AnExchangeIsOneSendAndOneReceive) {
    for (const int32_t time : {-1, kFiveSeconds}) {
        const Cost cost = cost_of([time] {
            const Ends ends = connect_ends();
            require(send(ends.peer, "defg", 4, 0) == 4, "send");
            char answer[4];
            const Counted counted;
            require(platform_pair_exchange(ends.pair, "abc", 3, answer, 4, time) == PLATFORM_PAIR_DONE, "exchange");
        });
        EXPECT_EQ(cost.calls, time < 0 ? (Calls{"send", "recv"}) : (Calls{"send", "poll", "recv"}));
        EXPECT_EQ(cost.allocations + cost.releases, 0U);
        EXPECT_EQ(cost.copied, 0U);
    }
}

TEST(CountedTransfers, AValueThatIsThereTakesOneReceive) {
    const Cost cost = cost_of([] {
        const Ends ends = connect_ends();
        require(send(ends.peer, "defg", 4, 0) == 4, "send");
        char value[4];
        const Counted counted;
        require(platform_pair_recv_all(ends.pair, value, 4, kFiveSeconds, nullptr) == PLATFORM_PAIR_DONE, "receive");
    });
    EXPECT_EQ(cost.calls, Calls{"recv"});
}

TEST(CountedTransfers, AValueThatWasReadAheadTakesNone) {
    const Cost cost = cost_of([] {
        const Ends ends = connect_ends();
        require(send(ends.peer, "A\r\n\r\ndefg", 9, 0) == 9, "send");
        require(platform_message_wait(ends.pair->rx_fd, accept_message, nullptr, 0) == 1, "platform_message_wait");
        char value[4];
        const Counted counted;
        require(platform_pair_recv_all(ends.pair, value, 4, -1, nullptr) == PLATFORM_PAIR_DONE, "receive");
    });
    EXPECT_EQ(cost.calls, Calls{});
    EXPECT_EQ(cost.allocations, 0U);
}

TEST(CountedTransfers, AMessageIsWaitedForByOnePollAndReceivedInPlace) {
    const Cost cost = cost_of([] {
        const Ends ends = connect_ends();
        require(send(ends.peer, "A\r\nB\r\n\r\n", 8, 0) == 8, "send");
        const Counted counted;
        require(platform_message_wait(ends.pair->rx_fd, accept_message, nullptr, kFiveSeconds) == 1, "wait");
    });
    EXPECT_EQ(cost.calls, (Calls{"poll", "recv"}));
    EXPECT_EQ(cost.allocations, 0U);
    EXPECT_EQ(cost.copied, 0U);
}

TEST(CountedTransfers, AMessageOf512LinesOfDataIsOneSendWithoutACopy) {
    const std::string text(20, 'x');
    const std::vector<PlatformLine> lines(512, {.text = text.data(), .length = text.size()});
    const Cost cost = cost_of([&lines] {
        const Ends ends = connect_ends();
        const Counted counted;
        require(platform_send_message_lines(ends.pair->tx_fd, lines.data(), 512) == 1, "send");
    });
    EXPECT_EQ(cost.calls, Calls{"sendmsg"});
    EXPECT_EQ(cost.allocations, 0U);
    EXPECT_EQ(cost.copied, 0U);
}

} // namespace
