// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The loop over messages.
#include "socket_support.h"

#include <support/interpose.h>

#include <cstring>

namespace {

using namespace zel::test;
namespace hook = zel::test::hook;

using Messages = std::vector<Message>;

TEST(MessageLoop, HandsOverMessagesUntilTheHandlerReturnsZero) {
    const SocketPair pair;
    const CurrentBuffer buffer;
    Messages messages;
    on_message = [&messages](int, char *first_line, char **lines) {
        messages.push_back(message_of(first_line, lines));
        return strcmp(first_line, "quit") == 0 ? 0 : -1;
    };
    send_text(pair.theirs.fd, "A\r\n\r\nquit\r\n\r\nB\r\n\r\n");
    platform_message_loop(pair.ours.fd, handle_message, nullptr, 0);
    EXPECT_EQ(messages, (Messages{{"A"}, {"quit"}}));
    on_message = nullptr;
}

TEST(MessageLoop, EndsWhenThePeerCloses) {
    SocketPair pair;
    const CurrentBuffer buffer;
    const Dispatched dispatched;
    send_text(pair.theirs.fd, "A\r\n\r\nB\r\n\r\nhalf");
    pair.theirs.close();
    platform_message_loop(pair.ours.fd, handle_message, nullptr, 0);
    EXPECT_EQ(dispatched.messages, (Messages{{"A"}, {"B"}}));
}

TEST(MessageLoop, EndsWhenWaitingFails) {
    const Outcome outcome = run_with_reports([] {
        const CurrentBuffer buffer;
        platform_message_loop(-1, handle_message, nullptr, 0);
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "select failed: Bad file descriptor\n");
}

TEST(MessageLoop, WaitsAndCallsIdle) {
    const SocketPair pair;
    const CurrentBuffer buffer;
    Dispatched dispatched;
    dispatched.result = 0;
    Idle idle([&pair](int call) {
        if (call == 2) {
            send_text(pair.theirs.fd, "A\r\n\r\n");
        }
    });
    platform_message_loop(pair.ours.fd, handle_message, run_idle, 0);
    EXPECT_EQ(dispatched.messages, (Messages{{"A"}}));
    EXPECT_GE(idle.calls, 3);
}

TEST(MessageLoop, AHandlerMaySendOnTheSocket) {
    const SocketPair pair;
    const CurrentBuffer buffer;
    on_message = [](int socket, char *first_line, char **lines) {
        EXPECT_EQ(platform_send_message(socket, "you said", first_line, lines[0], static_cast<char *>(nullptr)), 1);
        return lines[0] == nullptr ? 0 : 1;
    };
    send_text(pair.theirs.fd, "A\r\nB\r\n\r\nC\r\n\r\n");
    platform_message_loop(pair.ours.fd, handle_message, nullptr, 0);
    EXPECT_EQ(waiting_on(pair.theirs.fd), "you said\r\nA\r\nB\r\n\r\nyou said\r\nC\r\n\r\n");
    on_message = nullptr;
}

TEST(MessageLoop, WithoutABufferWarnsAndReceivesNothing) {
    const SocketPair pair;
    send_text(pair.theirs.fd, "A\r\n\r\n");
    const Outcome outcome =
        run_with_reports([&pair] { platform_message_loop(pair.ours.fd, handle_message, nullptr, 0); });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "");
    // The warning ends in its own newline after that of the text.
    EXPECT_EQ(outcome.err, "Warning: platform_message_loop has no buffer set!!!\n\n");
    EXPECT_EQ(waiting_on(pair.ours.fd), "A\r\n\r\n");
}

TEST(MessageLoop, DrainingComesBeforeTheWarning) {
    const SocketPair pair;
    send_text(pair.theirs.fd, "A\r\n\r\n");
    const Outcome outcome =
        run_with_reports([&pair] { platform_message_loop(pair.ours.fd, handle_message, nullptr, 1); });
    EXPECT_EQ(outcome.err, "Warning: platform_message_loop has no buffer set!!!\n\n");
    EXPECT_EQ(waiting_on(pair.ours.fd), "");
}

TEST(MessageLoop, DrainingDropsWhatWaitsAndNothingElse) {
    const SocketPair pair;
    const CurrentBuffer buffer;
    Dispatched dispatched;
    dispatched.result = 0;
    send_text(pair.theirs.fd, "stale\r\n\r\n" + std::string(5000, 'x'));
    const Idle idle([&pair](int call) {
        if (call == 1) { // the first wait of the loop itself
            send_text(pair.theirs.fd, "fresh\r\n\r\n");
        }
    });
    platform_message_loop(pair.ours.fd, handle_message, run_idle, 1);
    EXPECT_EQ(dispatched.messages, (Messages{{"fresh"}}));
}

TEST(MessageLoop, DrainingReadsPiecesOf2048BytesWithoutIdle) {
    SocketPair pair;
    const Outcome outcome = run_with_reports([&pair] {
        const Idle idle([](int) { printf("idle\n"); });
        const Interposed looking(hook::recv, [](int fd, void *to, size_t length, int flags) {
            const ssize_t count = hook::recv.real(fd, to, length, flags);
            printf("%zu %zd %d\n", length, count, flags);
            return count;
        });
        send_text(pair.theirs.fd, std::string(2050, 'x'));
        platform_message_loop(pair.ours.fd, handle_message, run_idle, -1);
    });
    EXPECT_EQ(outcome.out, "2048 2048 0\n2048 2 0\n");
}

TEST(MessageLoop, DrainingEndsWhenThePeerHasClosed) {
    SocketPair pair;
    const CurrentBuffer buffer;
    const Dispatched dispatched;
    send_text(pair.theirs.fd, "A\r\n\r\n");
    pair.theirs.close();
    platform_message_loop(pair.ours.fd, handle_message, nullptr, 1);
    EXPECT_EQ(dispatched.messages.size(), 0U);
}

TEST(MessageLoop, ABufferResetBetweenTwoConnectionsDropsTheHalfMessage) {
    const CurrentBuffer buffer;
    const Dispatched dispatched;
    for (const std::string_view data : {"half", "whole\r\n\r\n"}) {
        SocketPair pair;
        send_text(pair.theirs.fd, data);
        pair.theirs.close();
        platform_message_loop(pair.ours.fd, handle_message, nullptr, 0);
        platform_msgbuf_reset(gMsgBuf);
    }
    EXPECT_EQ(dispatched.messages, (Messages{{"whole"}}));
}

} // namespace
