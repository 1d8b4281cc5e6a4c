// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// What a message over a socket costs.
#include "cost.h"

#include <components/platform/socket.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <vector>

namespace {

using namespace zel::test;

constexpr char *kEnd = nullptr;
constexpr size_t kMessageSize = sizeof "copy\r\na\r\nbc\r\nd\r\ne\r\nf\r\n\r\n" - 1; // of send_six_lines

struct Ends {
    int sender;
    int receiver;
};

// A connected pair of sockets, and a receive buffer.
Ends connect_ends() {
    int fds[2];
    require(socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0, "socketpair");
    platform_msgbuf_set(platform_msgbuf_create(65536));
    return {.sender = fds[0], .receiver = fds[1]};
}

void send_six_lines(int socket) {
    require(platform_send_message(socket, "copy", "a", "bc", "d", "e", "f", kEnd) == 1, "platform_send_message");
}

// A message of that many lines.
std::string message_of(int lines) {
    std::string text;
    for (int line = 0; line < lines; ++line) {
        text += "line " + std::to_string(line) + "\r\n";
    }
    return text + "\r\n";
}

void send_text(int socket, const std::string &text) {
    require(send(socket, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()), "send");
}

bool is_in_buffer(const char *text) {
    return text >= gMsgBuf->pBuf && text < gMsgBuf->pBuf + gMsgBuf->len;
}

int accept_message(int /*socket*/, char * /*first_line*/, char ** /*lines*/) {
    return 1;
}

int require_lines_in_buffer(int /*socket*/, char *first_line, char **lines) {
    require(is_in_buffer(first_line), "the first line is not in the buffer");
    for (; *lines != nullptr; ++lines) {
        require(is_in_buffer(*lines), "a line is not in the buffer");
    }
    return 1;
}

void get_message(int socket, PlatformMessageHandler handler = accept_message) {
    require(platform_get_one_message(socket, handler, nullptr, 1) == 1, "platform_get_one_message");
}

// What it costs to receive the first of so many messages that were sent.
Cost cost_of_receiving(int sent, PlatformMessageHandler handler = accept_message) {
    return cost_of([sent, handler] {
        const Ends ends = connect_ends();
        for (int message = 0; message < sent; ++message) {
            send_six_lines(ends.sender);
        }
        const Counted counted;
        get_message(ends.receiver, handler);
    });
}

TEST(CountedMessages, AMessageOfSixLinesLeavesInOneSend) {
    const Cost cost = cost_of([] {
        const Ends ends = connect_ends();
        const Counted counted;
        send_six_lines(ends.sender);
    });
    EXPECT_EQ(cost.calls, Calls{"send"});
    EXPECT_EQ(cost.allocations, 0U);
    EXPECT_LE(cost.copied, kMessageSize);
}

// The line leaves alone, and the empty line behind it.
TEST(CountedMessages, ALineBeyondTheAreaIsCopiedOnceIntoOneBlock) {
    const std::string line(9000, 'x');
    const Cost cost = cost_of([&line] {
        const Ends ends = connect_ends();
        const Counted counted;
        platform_send_message(ends.sender, line.c_str(), kEnd);
    });
    EXPECT_EQ(cost.calls, (Calls{"send", "send"}));
    EXPECT_EQ(cost.allocations, 1U);
    EXPECT_EQ(cost.releases, 1U);
    EXPECT_LE(cost.copied, line.size() + sizeof "\r\n\r\n");
}

TEST(CountedMessages, AMessageIsReceivedByOneSelectAndOneRecv) {
    const Cost cost = cost_of_receiving(1);
    EXPECT_EQ(cost.calls, (Calls{"select", "recv"}));
    EXPECT_EQ(cost.allocations, 0U);
    EXPECT_EQ(cost.releases, 0U);
}

TEST(CountedMessages, AMessageThatIsConsumedWholeIsCopiedOnce) {
    EXPECT_LE(cost_of_receiving(1).copied, kMessageSize); // into the buffer
}

TEST(CountedMessages, AMessageInTheBufferTakesNoSystemCall) {
    const Cost cost = cost_of([] {
        const Ends ends = connect_ends();
        send_six_lines(ends.sender);
        send_six_lines(ends.sender);
        get_message(ends.receiver);
        const Counted counted;
        get_message(ends.receiver);
    });
    EXPECT_EQ(cost.calls, Calls{});
    EXPECT_EQ(cost.allocations, 0U);
    EXPECT_EQ(cost.copied, 0U);
}

TEST(CountedMessages, WhatFollowsAMessageMovesOnce) {
    EXPECT_LE(cost_of_receiving(2).copied, 3 * kMessageSize); // both into the buffer, the second to its start
}

TEST(CountedMessages, LinesAreHandedOverWhereTheyStandInTheBuffer) {
    EXPECT_EQ(cost_of_receiving(1, require_lines_in_buffer).allocations, 0U);
}

TEST(CountedMessages, OnlyAMessageOfMoreThan63LinesTakesATable) {
    for (const int lines : {63, 64}) {
        const Cost cost = cost_of([lines] {
            const Ends ends = connect_ends();
            send_text(ends.sender, message_of(lines));
            const Counted counted;
            get_message(ends.receiver);
        });
        EXPECT_EQ(cost.calls, (Calls{"select", "recv"})) << lines;
        EXPECT_EQ(cost.allocations, lines > 63 ? 1U : 0U) << lines;
        EXPECT_EQ(cost.releases, lines > 63 ? 1U : 0U) << lines;
    }
}

TEST(CountedMessages, FindingAMessageCopiesNothing) {
    const Cost cost = cost_of([] {
        std::string text = message_of(51);
        std::vector<char *> table(PLATFORM_MAX_MESSAGE_LINES + 1);
        const Counted counted;
        platform_parse_message(text.data(), static_cast<int32_t>(text.size()), table.data());
    });
    EXPECT_EQ(cost.calls, Calls{});
    EXPECT_EQ(cost.allocations, 0U);
    EXPECT_EQ(cost.copied, 0U);
}

TEST(CountedMessages, ABulkSendIsOneSendWithoutACopy) {
    const std::string bulk(65536, 'x');
    const Cost cost = cost_of([&bulk] {
        const Ends ends = connect_ends();
        const Counted counted;
        platform_send_all(ends.sender, bulk.data(), static_cast<int32_t>(bulk.size()));
    });
    EXPECT_EQ(cost.calls, Calls{"send"});
    EXPECT_EQ(cost.allocations, 0U);
    EXPECT_EQ(cost.copied, 0U);
}

} // namespace
