// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Text and values on one pair: what a message loop has read ahead is received first, and by its own descriptor alone.
#include "pair_support.h"

#include <components/platform/message_lines.h>
#include <components/platform/pair_control.h>
#include <components/platform/socket.h>
#include <msg/base/limits.h>

#include <gtest/gtest.h>

#include <functional>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace zel::test;

namespace {

constexpr const char *kValues = "values\r\n\r\nabcdefgh"; // a message, and eight bytes right behind it

struct Buffer {
    explicit Buffer(int32_t size = 65536) : buffer(platform_msgbuf_create(size)) { platform_msgbuf_set(buffer); }
    ~Buffer() {
        platform_msgbuf_set(nullptr);
        platform_msgbuf_free(buffer);
    }
    Buffer(const Buffer &) = delete;
    Buffer &operator=(const Buffer &) = delete;
    MsgBuf *buffer;
};

std::function<int(char *first_line)> on_message;

int handle(int /*socket*/, char *first_line, char ** /*lines*/) {
    return on_message ? on_message(first_line) : 1;
}

void put(int fd, const std::string &bytes) {
    ASSERT_EQ(send(fd, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
}

// All that the loop receives stands in the buffer afterwards, whatever the size of a receive is.
void receive_message(int socket, size_t behind) {
    ASSERT_EQ(platform_get_one_message(socket, handle, nullptr, 1), 1);
    while (static_cast<size_t>(gMsgBuf->p2 - gMsgBuf->p1) < behind && platform_recv_messages(socket) > 0) {
    }
}

// What is received at once, and the result when that is not all.
std::string received(PairHandle *ph, int32_t length) {
    std::string bytes(static_cast<size_t>(length), '\0');
    int32_t moved = 0;
    const int result = platform_pair_recv_all(ph, bytes.data(), length, 0, &moved);
    bytes.resize(static_cast<size_t>(moved));
    return result == PLATFORM_PAIR_DONE ? bytes : bytes + "|" + std::to_string(result);
}

const std::string kTimedOut = "|-2";

} // namespace

TEST(PairReadAhead, IsReceivedFirstAndWithoutACall) {
    const Buffer buffer;
    const LocalPair pair;
    put(pair.peer, kValues);
    receive_message(pair.ph->rx_fd, 8);
    int calls = 0;
    const Interposed counting(hook::recv, count_calls(hook::recv, calls, 0));
    EXPECT_EQ(received(pair.ph, 3), "abc");
    EXPECT_EQ(received(pair.ph, 5), "defgh");
    EXPECT_EQ(calls, 0);
}

TEST(PairReadAhead, GoesOnWithWhatIsInTheSocket) {
    const Buffer buffer;
    const LocalPair pair;
    put(pair.peer, kValues);
    receive_message(pair.ph->rx_fd, 8);
    put(pair.peer, "ijk");
    EXPECT_EQ(received(pair.ph, 11), "abcdefghijk");
    put(pair.peer, "next\r\n\r\n");
    EXPECT_EQ(platform_get_one_message(pair.ph->rx_fd, handle, nullptr, 1), 1) << "and messages after values";
}

TEST(PairReadAhead, IsTheFirstPartOfAnAnswer) {
    const Buffer buffer;
    const LocalPair pair;
    put(pair.peer, kValues);
    receive_message(pair.ph->rx_fd, 8);
    put(pair.peer, "ij");
    char answer[10];
    EXPECT_EQ(platform_pair_exchange(pair.ph, "q", 1, answer, 10, 0), PLATFORM_PAIR_DONE);
    EXPECT_EQ(std::string(answer, 10), "abcdefghij");
}

TEST(PairReadAhead, AHandlerReceivesTheValuesAndKeepsItsText) {
    const Buffer buffer;
    const LocalPair pair;
    put(pair.peer, std::string(kValues) + "last\r\n\r\n");
    std::vector<std::string> seen;
    on_message = [&](const char *first_line) {
        if (seen.empty()) {
            seen.push_back(received(pair.ph, 3));
            seen.push_back(received(pair.ph, 5));
        }
        seen.emplace_back(first_line);
        return static_cast<int>(seen.back() != "last");
    };
    platform_message_loop(pair.ph->rx_fd, handle, nullptr, 0);
    on_message = nullptr;
    EXPECT_EQ(seen, (std::vector<std::string>{"abc", "defgh", "values", "last"}));
    EXPECT_EQ(gMsgBuf->p1, gMsgBuf->pBuf);
}

namespace {

PairHandle *handle_of_user = nullptr;

int receive_value(int /*socket*/, const PlatformMessage * /*message*/, void *user) {
    *static_cast<std::string *>(user) = received(handle_of_user, 8);
    return 1;
}

} // namespace

TEST(PairReadAhead, SoDoesTheHandlerOfAWait) {
    const Buffer buffer;
    const LocalPair pair;
    put(pair.peer, kValues);
    std::string seen;
    handle_of_user = pair.ph;
    EXPECT_EQ(platform_message_wait(pair.ph->rx_fd, receive_value, &seen, 0), PLATFORM_MESSAGE_HANDLED);
    EXPECT_EQ(seen, "abcdefgh");
}

TEST(PairReadAhead, LeavesTheWholeBufferForTheNextMessage) {
    const Buffer buffer(8192 + 64);
    const LocalPair pair;
    const std::string message = std::string(50, 'm') + "\r\n\r\n";
    for (int round = 0; round < 300; ++round) {
        put(pair.peer, message + std::string(20, 'v') + message.substr(0, 30));
        receive_message(pair.ph->rx_fd, 50);
        EXPECT_EQ(received(pair.ph, 20), std::string(20, 'v'));
        EXPECT_EQ(gMsgBuf->p1, gMsgBuf->pBuf) << "no room is lost";
        put(pair.peer, message.substr(30));
        receive_message(pair.ph->rx_fd, 0);
        ASSERT_EQ(gMsgBuf->p1, gMsgBuf->p2);
    }
}

TEST(PairReadAhead, BytesOfAnotherDescriptorStayWhereTheyAre) {
    const Buffer buffer;
    const LocalPair pair;
    const LocalPair other;
    put(other.peer, kValues);
    receive_message(other.ph->rx_fd, 8);
    EXPECT_EQ(received(pair.ph, 8), kTimedOut);
    EXPECT_EQ(received(other.ph, 8), "abcdefgh");
}

TEST(PairReadAhead, EachOfTwoPairsFindsItsOwnBuffer) {
    const Buffer first_buffer;
    const LocalPair first;
    put(first.peer, "one\r\n\r\n1111");
    receive_message(first.ph->rx_fd, 4);
    const Buffer second_buffer;
    const LocalPair second;
    put(second.peer, "two\r\n\r\n2222");
    receive_message(second.ph->rx_fd, 4);
    EXPECT_EQ(received(first.ph, 4), "1111");
    EXPECT_EQ(received(second.ph, 4), "2222");
}

TEST(PairReadAhead, BytesOfTwoDescriptorsInOneBufferAreNobodys) {
    const Buffer buffer;
    const LocalPair first;
    const LocalPair second;
    put(first.peer, "one\r\n\r\n1111");
    receive_message(first.ph->rx_fd, 4);
    put(second.peer, "two");
    while (gMsgBuf->p2 - gMsgBuf->p1 < 7) {
        ASSERT_GT(platform_recv_messages(second.ph->rx_fd), 0);
    }
    EXPECT_EQ(received(first.ph, 4), kTimedOut);
    EXPECT_EQ(received(second.ph, 4), kTimedOut);
    EXPECT_EQ(std::string(gMsgBuf->p1, gMsgBuf->p2), "1111two");
    platform_msgbuf_reset(gMsgBuf);
    put(second.peer, kValues);
    receive_message(second.ph->rx_fd, 8);
    EXPECT_EQ(received(second.ph, 8), "abcdefgh") << "an empty buffer is anybody's again";
}

TEST(PairReadAhead, AResetBufferHoldsNothingOfAnyDescriptor) {
    const Buffer buffer;
    const LocalPair pair;
    put(pair.peer, kValues);
    receive_message(pair.ph->rx_fd, 8);
    platform_msgbuf_reset(gMsgBuf);
    EXPECT_EQ(received(pair.ph, 8), kTimedOut);
    *gMsgBuf->p2++ = 'x'; // the program's own
    EXPECT_EQ(received(pair.ph, 1), kTimedOut);
}

TEST(PairReadAhead, AFreedBufferIsNotLookedInto) {
    const LocalPair pair;
    {
        const Buffer buffer;
        put(pair.peer, kValues);
        receive_message(pair.ph->rx_fd, 8);
    }
    EXPECT_EQ(received(pair.ph, 8), kTimedOut);
}

TEST(PairReadAhead, ABufferThatTheProgramMadeItselfIsNotLookedInto) {
    std::string storage(65536, '\0');
    MsgBuf own = {.pBuf = storage.data(), .len = 65536, .p1 = storage.data(), .p2 = storage.data()};
    platform_msgbuf_set(&own);
    const LocalPair pair;
    put(pair.peer, kValues);
    receive_message(pair.ph->rx_fd, 8);
    platform_msgbuf_set(nullptr);
    EXPECT_EQ(received(pair.ph, 8), kTimedOut);
}

namespace {

// Reads ahead on a pair that is then closed in some way, and puts a new pair on the same number.
std::string received_on_the_number_again(void (*close_pair)(PairHandle *ph)) {
    const Buffer buffer;
    LocalPair pair;
    put(pair.peer, kValues);
    receive_message(pair.ph->rx_fd, 8);
    const int number = pair.ph->rx_fd;
    close_pair(pair.ph);
    pair.ph = nullptr;
    LocalPair next;
    const int fresh = next.ph->rx_fd;
    if (fresh != number) {
        EXPECT_EQ(dup2(fresh, number), number);
        close(fresh);
    }
    next.ph->rx_fd = next.ph->tx_fd = number;
    put(next.peer, "new");
    return received(next.ph, 3);
}

} // namespace

TEST(PairReadAhead, ANumberThatIsUsedAgainGetsNoOldBytes) {
    EXPECT_EQ(received_on_the_number_again([](PairHandle *ph) { platform_pair_close(ph); }), "new");
    EXPECT_EQ(received_on_the_number_again([](PairHandle *ph) {
                  platform_socket_close(ph->rx_fd);
                  ph->rx_fd = ph->tx_fd = -1;
                  platform_pair_close(ph);
              }),
              "new");
}

TEST(PairReadAhead, AConnectionThatIsAcceptedGetsNoOldBytes) {
    const Buffer buffer;
    LocalPair pair;
    put(pair.peer, kValues);
    receive_message(pair.ph->rx_fd, 8);
    const int number = pair.ph->rx_fd;
    int port = 0;
    const int listening = platform_server_socket_open(20000, 30000, &port);
    const int client = platform_connect_host("127.0.0.1", port);
    close(number); // by other means: the library does not see it
    const int accepted = platform_accept_once(listening);
    ASSERT_EQ(accepted, number);
    put(client, "new");
    EXPECT_EQ(received(pair.ph, 3), "new");
    close(client);
}

namespace {

LocalPair *idle_pair = nullptr;
std::string idle_received;

// Takes a value, and receives as many bytes behind the rest: the data is as long as before.
int take_value() {
    if (idle_received.empty()) {
        idle_received = received(idle_pair->ph, 2);
        platform_recv_messages(idle_pair->ph->rx_fd);
        put(idle_pair->peer, "\n");
    }
    return 0;
}

} // namespace

TEST(PairReadAhead, AnIdleFunctionMayTakeAValueFromUnderALoop) {
    const Buffer buffer;
    LocalPair pair;
    put(pair.peer, "one\r\n\r\nvvtext\r");
    receive_message(pair.ph->rx_fd, 7);
    put(pair.peer, "\n\r");
    std::string text;
    on_message = [&](const char *first_line) {
        text = first_line;
        return 1;
    };
    idle_pair = &pair;
    idle_received.clear();
    EXPECT_EQ(platform_get_one_message(pair.ph->rx_fd, handle, take_value, 0), 1);
    on_message = nullptr;
    EXPECT_EQ(idle_received, "vv");
    EXPECT_EQ(text, "text");
}

TEST(PairReadAhead, AsManyBuffersAreKnownAsTheHeaderSays) {
    std::vector<MsgBuf *> buffers(zel::kKnownBuffers + 1);
    for (MsgBuf *&buffer : buffers) {
        buffer = platform_msgbuf_create(100);
    }
    const LocalPair pair;
    const auto read_ahead_in = [&pair](MsgBuf *buffer) {
        platform_msgbuf_set(buffer);
        put(pair.peer, "v");
        platform_recv_messages(pair.ph->rx_fd);
        return received(pair.ph, 1);
    };
    EXPECT_EQ(read_ahead_in(buffers.front()), "v");
    EXPECT_EQ(read_ahead_in(buffers[zel::kKnownBuffers - 1]), "v");
    EXPECT_EQ(read_ahead_in(buffers.back()), kTimedOut);
    platform_msgbuf_free(buffers.front());
    EXPECT_EQ(read_ahead_in(buffers[zel::kKnownBuffers - 1]), "v") << "the others stay known";
    buffers.front() = platform_msgbuf_create(100);
    EXPECT_EQ(read_ahead_in(buffers.front()), "v") << "there is room again";
    platform_msgbuf_set(nullptr);
    for (MsgBuf *buffer : buffers) {
        platform_msgbuf_free(buffer);
    }
}
