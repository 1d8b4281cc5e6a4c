// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// One message at a time.
#include "socket_support.h"

#include <support/interpose.h>

#include <algorithm>
#include <chrono>

namespace {

using namespace zel::test;
namespace hook = zel::test::hook;

using Messages = std::vector<Message>;

int get_one(int socket, int wait) {
    return platform_get_one_message(socket, handle_message, nullptr, wait);
}

// Receives at most so many bytes at a time: the sizes in turn, then as many as asked for.
struct Pieces {
    explicit Pieces(std::vector<size_t> list) : sizes(std::move(list)) {}
    std::vector<size_t> sizes;
    size_t calls = 0;
    Interposed<ssize_t(int, void *, size_t, int)> hooked{
        hook::recv, [this](int fd, void *buffer, size_t length, int flags) {
            const size_t most = calls < sizes.size() ? sizes[calls] : length;
            ++calls;
            return hook::recv.real(fd, buffer, std::min(most, length), flags);
        }};
};

TEST(GetOneMessage, ReturnsTheResultOfTheHandler) {
    const SocketPair pair;
    const CurrentBuffer buffer;
    Dispatched dispatched;
    for (const int result : {1, 0, -5, 2147483647}) {
        dispatched.result = result;
        send_text(pair.theirs.fd, "A\r\n\r\n");
        EXPECT_EQ(get_one(pair.ours.fd, 1), result);
    }
    EXPECT_EQ(dispatched.messages.size(), 4U);
}

TEST(GetOneMessage, TheHandlerGetsSocketFirstLineAndFurtherLines) {
    const SocketPair pair;
    const CurrentBuffer buffer;
    send_text(pair.theirs.fd, "first\r\n\tsecond \r\nthird\r\n\r\n");
    on_message = [&pair](int socket, char *first_line, char **lines) {
        EXPECT_EQ(socket, pair.ours.fd);
        EXPECT_STREQ(first_line, "first");
        EXPECT_STREQ(lines[0], "\tsecond ");
        EXPECT_STREQ(lines[1], "third");
        EXPECT_EQ(lines[2], nullptr);
        return 42;
    };
    EXPECT_EQ(get_one(pair.ours.fd, 1), 42);
    on_message = nullptr;
}

TEST(GetOneMessage, TheListOfFurtherLinesMayBeEmpty) {
    const CurrentBuffer buffer;
    put_into_buffer("\r\n\r\n");
    on_message = [](int, char *first_line, char **lines) {
        EXPECT_STREQ(first_line, "");
        EXPECT_EQ(lines[0], nullptr);
        return 42;
    };
    EXPECT_EQ(get_one(-1, 1), 42);
    on_message = nullptr;
}

TEST(GetOneMessage, TheRestMovesToTheStartAfterTheHandlerHasReturned) {
    const CurrentBuffer buffer;
    put_into_buffer("A\r\n\r\nrest of the data");
    on_message = [](int, char *first_line, char **) {
        EXPECT_EQ(first_line, gMsgBuf->pBuf); // not copied: cut where it stands
        EXPECT_EQ(gMsgBuf->p1, gMsgBuf->pBuf + 5);
        EXPECT_EQ(std::string(gMsgBuf->p1, gMsgBuf->p2), "rest of the data");
        return 42;
    };
    EXPECT_EQ(get_one(-1, 0), 42);
    EXPECT_TRUE(buffer_holds("rest of the data"));
    on_message = nullptr;
}

#ifndef ZEL_SMALL_CONSTANTS // both messages fit into one receive
TEST(GetOneMessageSize, TwoMessagesOfOneReceiveTakeTwoCallsAndNoSecondReceive) {
    const SocketPair pair;
    const CurrentBuffer buffer;
    const Dispatched dispatched;
    const Pieces whole({});
    send_text(pair.theirs.fd, "A\r\n\r\nB\r\nC\r\n\r\n");
    EXPECT_EQ(get_one(pair.ours.fd, 1), 1);
    EXPECT_EQ(whole.calls, 1U);
    EXPECT_EQ(get_one(pair.ours.fd, 1), 1);
    EXPECT_EQ(whole.calls, 1U);
    EXPECT_EQ(dispatched.messages, (Messages{{"A"}, {"B", "C"}}));
}

TEST(GetOneMessageSize, ReceivesThroughAnAreaOf8192Bytes) {
    const CurrentBuffer buffer;
    const SocketPair pair;
    send_text(pair.theirs.fd, "x");
    size_t asked = 0;
    const Interposed looking(hook::recv, [&asked](int, void *, size_t length, int) -> ssize_t {
        asked = length;
        return -1;
    });
    EXPECT_EQ(get_one(pair.ours.fd, 0), 0);
    EXPECT_EQ(asked, 8192U);
}
#endif

TEST(GetOneMessage, AMessageInTheBufferNeedsNoWaitAndNoReceive) {
    const CurrentBuffer buffer;
    const Dispatched dispatched;
    Idle idle;
    const Pieces none({});
    put_into_buffer("A\r\n\r\nB\r\n\r\n");
    EXPECT_EQ(platform_get_one_message(-1, handle_message, run_idle, 1), 1);
    EXPECT_EQ(platform_get_one_message(-1, handle_message, run_idle, 1), 1);
    EXPECT_EQ(none.calls, 0U);
    EXPECT_EQ(idle.calls, 0);
    EXPECT_EQ(dispatched.messages, (Messages{{"A"}, {"B"}}));
}

TEST(GetOneMessage, WithoutWaitingReturnsZeroAtOnceWhenThePeerIsQuiet) {
    const SocketPair pair;
    const CurrentBuffer buffer;
    const Dispatched dispatched;
    Idle idle;
    EXPECT_EQ(platform_get_one_message(pair.ours.fd, handle_message, run_idle, 0), 0);
    EXPECT_EQ(idle.calls, 1);
    EXPECT_EQ(dispatched.messages.size(), 0U);
}

TEST(GetOneMessage, WithoutWaitingKeepsWhatHasComeForTheNextCall) {
    const SocketPair pair;
    const CurrentBuffer buffer;
    const Dispatched dispatched;
    send_text(pair.theirs.fd, "first\r\nsec");
    EXPECT_EQ(get_one(pair.ours.fd, 0), 0);
    EXPECT_TRUE(buffer_holds("first\r\nsec"));
    send_text(pair.theirs.fd, "ond\r\n\r\n");
    EXPECT_EQ(get_one(pair.ours.fd, 0), 1);
    EXPECT_EQ(dispatched.messages, (Messages{{"first", "second"}}));
}

TEST(GetOneMessage, WaitsForTheRestOfAMessage) {
    const SocketPair pair;
    const CurrentBuffer buffer;
    const Dispatched dispatched;
    send_text(pair.theirs.fd, "A\r\n");
    const Idle idle([&pair](int call) {
        if (call == 4) {
            send_text(pair.theirs.fd, "B\r\n\r\n");
        }
    });
    EXPECT_EQ(platform_get_one_message(pair.ours.fd, handle_message, run_idle, 1), 1);
    EXPECT_EQ(dispatched.messages, (Messages{{"A", "B"}}));
}

TEST(GetOneMessage, IdleRunsTenTimesASecondWhileThePeerIsQuiet) {
    const SocketPair pair;
    const CurrentBuffer buffer;
    const Dispatched dispatched;
    const Idle idle([&pair](int call) {
        if (call == 5) {
            send_text(pair.theirs.fd, "A\r\n\r\n");
        }
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(platform_get_one_message(pair.ours.fd, handle_message, run_idle, 1), 1);
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed.count(), 0.499); // five waits that nothing ended
    EXPECT_LT(elapsed.count(), 5.0);
}

TEST(GetOneMessage, APeerThatClosesInMidMessageEndsTheCallWithZero) {
    SocketPair pair;
    const CurrentBuffer buffer;
    const Dispatched dispatched;
    send_text(pair.theirs.fd, "A\r\nB\r\n");
    pair.theirs.close();
    EXPECT_EQ(get_one(pair.ours.fd, 1), 0);
    EXPECT_EQ(dispatched.messages.size(), 0U);
    EXPECT_TRUE(buffer_holds("A\r\nB\r\n"));
}

TEST(GetOneMessage, AFailedReceiveEndsTheCallWithZero) {
    const SocketPair pair;
    const CurrentBuffer buffer;
    const Dispatched dispatched;
    send_text(pair.theirs.fd, "A\r\n\r\n");
    const Interposed failing(hook::recv, fail_always(hook::recv, ECONNRESET, -1));
    EXPECT_EQ(get_one(pair.ours.fd, 1), 0);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_EQ(dispatched.messages.size(), 0U);
}

TEST(GetOneMessage, TheBufferMayBeFilledButForOneByte) {
    const SocketPair pair;
    const CurrentBuffer buffer(16);
    const Dispatched dispatched;
    send_text(pair.theirs.fd, "0123456789\r\n\r\nX");
    EXPECT_EQ(get_one(pair.ours.fd, 1), 1);
    EXPECT_EQ(dispatched.messages, (Messages{{"0123456789"}}));
}

TEST(GetOneMessage, DataThatWouldFillTheBufferAborts) {
    const SocketPair pair;
    const Outcome outcome = run_in_child([&pair] {
        const CurrentBuffer buffer(16);
        const Dispatched dispatched;
        send_text(pair.theirs.fd, "0123456789abcdef");
        get_one(pair.ours.fd, 1);
    });
    EXPECT_EQ(outcome.signal, SIGABRT);
    EXPECT_EQ(outcome.err, assertion_text("platform_get_one_message", kRoomCondition));
}

TEST(GetOneMessage, EarlierDataCountsForTheAssertionOfAFullBuffer) {
    const SocketPair pair;
    const Outcome outcome = run_in_child([&pair] {
        const CurrentBuffer buffer(16);
        const Dispatched dispatched;
        put_into_buffer("0123456789abcde");
        send_text(pair.theirs.fd, "f");
        get_one(pair.ours.fd, 1);
    });
    EXPECT_EQ(outcome.signal, SIGABRT);
    EXPECT_EQ(outcome.err, assertion_text("platform_get_one_message", kRoomCondition));
}

TEST(GetOneMessage, WithoutACurrentBufferAborts) {
    const Outcome outcome = run_in_child([] { get_one(-1, 0); });
    EXPECT_EQ(outcome.signal, SIGABRT);
    EXPECT_EQ(outcome.err, assertion_text("platform_get_one_message", "gMsgBuf != nullptr"));
}

TEST(GetOneMessage, EveryCutOfTheStreamIntoPiecesGivesTheSameMessages) {
    constexpr std::string_view kStream = "\r\n\r\n\rA\r\n\n\r\r\n\r\n";
    const Messages expected = {{""}, {"\rA", "\n\r"}};
    for (unsigned cuts = 0; cuts < 1U << (kStream.size() - 1); ++cuts) {
        std::vector<size_t> sizes = {1};
        for (size_t gap = 0; gap + 1 < kStream.size(); ++gap) {
            (cuts >> gap & 1U) != 0 ? sizes.push_back(1) : static_cast<void>(++sizes.back());
        }
        const SocketPair pair;
        const CurrentBuffer buffer(64);
        const Dispatched dispatched;
        const Pieces pieces(sizes);
        send_text(pair.theirs.fd, kStream);
        ASSERT_EQ(get_one(pair.ours.fd, 1), 1);
        ASSERT_EQ(get_one(pair.ours.fd, 1), 1);
        ASSERT_EQ(dispatched.messages, expected) << testing::PrintToString(sizes);
        ASSERT_TRUE(buffer_holds(""));
    }
}

TEST(GetOneMessage, PiecesOfAnySizeGiveTheSameMessages) {
    const std::string stream = "count\r\nREADME.md\r\n\r\n\r\n\r\na\rb\r\n\nc\r\n\r\r\nend\r\n\r\n";
    const Messages expected = {{"count", "README.md"}, {""}, {"a\rb", "\nc", "\r", "end"}};
    for (size_t size = 1; size <= stream.size(); ++size) {
        const SocketPair pair;
        const CurrentBuffer buffer(256);
        const Dispatched dispatched;
        for (size_t from = 0; from < stream.size(); from += size) {
            send_text(pair.theirs.fd, std::string_view(stream).substr(from, size));
            while (get_one(pair.ours.fd, 0) != 0) {
            }
        }
        ASSERT_EQ(dispatched.messages, expected) << size;
    }
}

TEST(GetOneMessage, WhatOneCallHasSearchedItDoesNotSearchAgain) {
    const SocketPair pair;
    const CurrentBuffer buffer;
    const Dispatched dispatched;
    send_text(pair.theirs.fd, "a");
    put_into_buffer("searched");
    const Idle idle([&pair](int call) {
        if (call == 1) {
            gMsgBuf->pBuf[3] = '\r'; // a line end where the search has been
            gMsgBuf->pBuf[4] = '\n';
            send_text(pair.theirs.fd, "\r\n\r\n");
        }
    });
    EXPECT_EQ(platform_get_one_message(pair.ours.fd, handle_message, run_idle, 1), 1);
    EXPECT_EQ(dispatched.messages, (Messages{{"sea\r\nheda"}}));
}

TEST(GetOneMessage, AnIdleFunctionMayResetTheBuffer) {
    const SocketPair pair;
    const CurrentBuffer buffer;
    const Dispatched dispatched;
    put_into_buffer("old\r\nlines\r\nof");
    send_text(pair.theirs.fd, "new\r\n\r\n");
    const Idle idle([](int call) {
        if (call == 1) {
            platform_msgbuf_reset(gMsgBuf);
        }
    });
    EXPECT_EQ(platform_get_one_message(pair.ours.fd, handle_message, run_idle, 1), 1);
    EXPECT_EQ(dispatched.messages, (Messages{{"new"}}));
}

TEST(GetOneMessage, AnIdleFunctionMayPutOtherDataOfTheSameLengthIntoTheBuffer) {
    const SocketPair pair;
    const CurrentBuffer buffer;
    const Dispatched dispatched;
    put_into_buffer("A\r\nB\r\nC");
    send_text(pair.theirs.fd, "\r\n\r\n");
    const Idle idle([](int call) {
        if (call == 1) {
            platform_msgbuf_reset(gMsgBuf);
            put_into_buffer("1234567");
        }
    });
    EXPECT_EQ(platform_get_one_message(pair.ours.fd, handle_message, run_idle, 1), 1);
    EXPECT_EQ(dispatched.messages, (Messages{{"1234567"}}));
}

TEST(GetOneMessage, AnIdleFunctionMayHandOverMessagesItself) {
    const SocketPair pair;
    const CurrentBuffer buffer;
    const Dispatched dispatched;
    put_into_buffer("A\r\nB");
    send_text(pair.theirs.fd, "\r\n\r\n");
    const Idle idle([](int call) {
        if (call == 1) {
            put_into_buffer("\r\n\r\nlonger than what was there before");
            platform_process_messages(-1, handle_message);
        }
    });
    EXPECT_EQ(platform_get_one_message(pair.ours.fd, handle_message, run_idle, 1), 1);
    EXPECT_EQ(dispatched.messages, (Messages{{"A", "B"}, {"longer than what was there before"}}));
}

TEST(GetOneMessage, AnIdleFunctionMayMakeAnotherBufferCurrent) {
    const SocketPair pair;
    const CurrentBuffer second;
    const CurrentBuffer first;
    const Dispatched dispatched;
    put_into_buffer("old\r\nlines");
    send_text(pair.theirs.fd, "new\r\n\r\n");
    const Idle idle([&second](int) { platform_msgbuf_set(second.buffer); });
    EXPECT_EQ(platform_get_one_message(pair.ours.fd, handle_message, run_idle, 1), 1);
    EXPECT_EQ(dispatched.messages, (Messages{{"new"}}));
}

TEST(GetOneMessage, AnIdleFunctionThatLeavesNoBufferForTheDataAborts) {
    const SocketPair pair;
    const Outcome outcome = run_in_child([&pair] {
        const CurrentBuffer buffer;
        const Dispatched dispatched;
        send_text(pair.theirs.fd, "A\r\n\r\n");
        const Idle idle([](int) { platform_msgbuf_set(nullptr); });
        platform_get_one_message(pair.ours.fd, handle_message, run_idle, 1);
    });
    EXPECT_EQ(outcome.signal, SIGABRT);
    EXPECT_EQ(outcome.err, assertion_text("platform_get_one_message", kRoomCondition));
}

TEST(GetOneMessage, AnIdleFunctionMayLeaveNoBufferWhenNothingComes) {
    SocketPair pair;
    const CurrentBuffer buffer;
    const Dispatched dispatched;
    const Idle idle([](int) { platform_msgbuf_set(nullptr); });
    EXPECT_EQ(platform_get_one_message(pair.ours.fd, handle_message, run_idle, 0), 0);
    platform_msgbuf_set(buffer.buffer);
    pair.theirs.close();
    EXPECT_EQ(platform_get_one_message(pair.ours.fd, handle_message, run_idle, 1), 0);
    EXPECT_EQ(idle.calls, 2);
}

} // namespace
