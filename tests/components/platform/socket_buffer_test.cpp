// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The receive buffer, what fills it, and handing over what it holds.
#include "socket_support.h"

#include <support/interpose.h>

#include <cstddef>
#include <msg/base/limits.h>
#include <type_traits>

namespace {

using namespace zel::test;
namespace hook = zel::test::hook;

static_assert(offsetof(MsgBuf, pBuf) == 0);
static_assert(offsetof(MsgBuf, len) == sizeof(void *));
static_assert(offsetof(MsgBuf, p1) == 2 * sizeof(void *));
static_assert(offsetof(MsgBuf, p2) == 3 * sizeof(void *));
static_assert(sizeof(MsgBuf) == 4 * sizeof(void *));
static_assert(std::is_same_v<decltype(MsgBuf::len), int32_t>);

TEST(MsgBuf, IsEmptyWhenCreated) {
    MsgBuf *buffer = platform_msgbuf_create(100);
    EXPECT_EQ(buffer->len, 100);
    EXPECT_EQ(buffer->p1, buffer->pBuf);
    EXPECT_EQ(buffer->p2, buffer->pBuf);
    std::fill(buffer->pBuf, buffer->pBuf + 100, 'x'); // all of it is there
    platform_msgbuf_free(buffer);
}

TEST(MsgBuf, NoneIsCurrentUntilOneIsSet) {
    EXPECT_EQ(gMsgBuf, nullptr);
    MsgBuf *buffer = platform_msgbuf_create(100);
    EXPECT_EQ(gMsgBuf, nullptr);
    platform_msgbuf_set(buffer);
    EXPECT_EQ(gMsgBuf, buffer);
    platform_msgbuf_set(nullptr);
    EXPECT_EQ(gMsgBuf, nullptr);
    platform_msgbuf_free(buffer);
}

TEST(MsgBuf, ResetDropsTheDataAndReturnsTheBuffer) {
    MsgBuf *buffer = platform_msgbuf_create(100);
    buffer->p1 += 10;
    buffer->p2 += 20;
    EXPECT_EQ(platform_msgbuf_reset(buffer), buffer);
    EXPECT_EQ(buffer->p1, buffer->pBuf);
    EXPECT_EQ(buffer->p2, buffer->pBuf);
    EXPECT_EQ(buffer->len, 100);
    platform_msgbuf_free(buffer);
}

TEST(MsgBuf, FreeingReleasesStorageAndRecord) {
    MsgBuf *buffer = platform_msgbuf_create(100);
    std::vector<void *> expected = {buffer->pBuf, buffer};
    std::vector<void *> released;
    released.reserve(8);
    {
        const Interposed counting(hook::free, [&released](void *pointer) {
            released.push_back(pointer);
            hook::free.real(pointer);
        });
        platform_msgbuf_free(buffer);
    }
    EXPECT_EQ(released, expected);
}

TEST(MsgBuf, FreeingNullDoesNothing) {
    platform_msgbuf_free(nullptr);
    EXPECT_EQ(gMsgBuf, nullptr);
}

TEST(MsgBuf, NoMemoryForTheRecordEndsTheProcess) {
    const Outcome outcome = run_in_child([] {
        const Interposed failing(hook::malloc, fail_nth(hook::malloc, 0, ENOMEM, nullptr));
        platform_msgbuf_create(100);
    });
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "Error: platform_msgbuf_create: Not enough memory to allocate " +
                               std::to_string(sizeof(MsgBuf)) + " bytes.\n");
}

TEST(MsgBuf, NoMemoryForTheStorageEndsTheProcess) {
    const Outcome outcome = run_in_child([] {
        const Interposed failing(hook::malloc, fail_nth(hook::malloc, 1, ENOMEM, nullptr));
        platform_msgbuf_create(100);
    });
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "Error: platform_msgbuf_create: Not enough memory to allocate 100 bytes.\n");
}

TEST(RecvMessages, AppendsWhatCameAndReturnsItsLength) {
    const SocketPair pair;
    const CurrentBuffer buffer;
    send_text(pair.theirs.fd, "ab");
    EXPECT_EQ(platform_recv_messages(pair.ours.fd), 2);
    EXPECT_TRUE(buffer_holds("ab"));
    send_text(pair.theirs.fd, "cd");
    EXPECT_EQ(platform_recv_messages(pair.ours.fd), 2);
    EXPECT_TRUE(buffer_holds("abcd"));
}

#ifndef ZEL_SMALL_CONSTANTS // holds the size of a receive
TEST(RecvMessagesSize, TakesAtMost8192Bytes) {
    const SocketPair pair;
    const CurrentBuffer buffer(20000);
    send_text(pair.theirs.fd, std::string(10000, 'x'));
    EXPECT_EQ(platform_recv_messages(pair.ours.fd), 8192);
    EXPECT_EQ(platform_recv_messages(pair.ours.fd), 10000 - 8192);
    EXPECT_TRUE(buffer_holds(std::string(10000, 'x')));
}
#endif

TEST(RecvMessages, ReceivesOnceWithFlagsZero) {
    const CurrentBuffer buffer;
    int calls = 0;
    const Interposed counting(hook::recv, [&calls](int fd, void *, size_t length, int flags) -> ssize_t {
        ++calls;
        EXPECT_EQ(fd, 77);
        EXPECT_EQ(length, zel::kReceiveSize);
        EXPECT_EQ(flags, 0);
        errno = EINTR;
        return -1;
    });
    EXPECT_EQ(platform_recv_messages(77), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(buffer_holds(""));
}

TEST(RecvMessages, ReturnsZeroWhenThePeerHasClosed) {
    SocketPair pair;
    const CurrentBuffer buffer;
    pair.theirs.close();
    EXPECT_EQ(platform_recv_messages(pair.ours.fd), 0);
}

TEST(RecvMessages, TheBufferMayBeFilledButForOneByte) {
    const SocketPair pair;
    const CurrentBuffer buffer(3);
    send_text(pair.theirs.fd, "ab");
    EXPECT_EQ(platform_recv_messages(pair.ours.fd), 2);
}

TEST(RecvMessages, DataThatWouldFillTheBufferAborts) {
    const SocketPair pair;
    const Outcome outcome = run_in_child([&pair] {
        const CurrentBuffer buffer(3);
        send_text(pair.theirs.fd, "abc");
        platform_recv_messages(pair.ours.fd);
    });
    EXPECT_EQ(outcome.signal, SIGABRT);
    EXPECT_EQ(outcome.err, assertion_text("platform_recv_messages", kRoomCondition));
}

TEST(RecvMessages, AFailureAndTheEndOfTheStreamPassAFilledBuffer) {
    SocketPair pair;
    const CurrentBuffer buffer(3);
    put_into_buffer("ab");
    EXPECT_EQ(platform_recv_messages(-1), -1);
    EXPECT_EQ(errno, EBADF);
    pair.theirs.close();
    EXPECT_EQ(platform_recv_messages(pair.ours.fd), 0);
    EXPECT_TRUE(buffer_holds("ab"));
}

TEST(RecvMessages, TheRoomIsAskedForBeforeTheCountIsLookedAt) {
    const Outcome outcome = run_in_child([] {
        const CurrentBuffer buffer(0);
        SocketPair pair;
        pair.theirs.close();
        platform_recv_messages(-1); // -1 is below any capacity
        printf("passed");
        fflush(stdout);
        platform_recv_messages(pair.ours.fd); // 0 is not below 0
    });
    EXPECT_EQ(outcome.signal, SIGABRT);
    EXPECT_EQ(outcome.out, "passed");
    EXPECT_EQ(outcome.err, assertion_text("platform_recv_messages", kRoomCondition));
}

// Its length and what is added to it do not fit into 32 bits.
TEST(RecvMessages, DataThatWouldFillTheLargestBufferAborts) {
    const SocketPair pair;
    const Outcome outcome = run_in_child([&pair] {
        char *const start = reinterpret_cast<char *>(4096); // no storage is there: nothing may be written
        char *const end = start + (INT32_MAX - 2);
        MsgBuf buffer = {.pBuf = start, .len = INT32_MAX, .p1 = end, .p2 = end};
        platform_msgbuf_set(&buffer);
        send_text(pair.theirs.fd, "abc");
        platform_recv_messages(pair.ours.fd);
    });
    EXPECT_EQ(outcome.signal, SIGABRT);
    EXPECT_EQ(outcome.err, assertion_text("platform_recv_messages", kRoomCondition));
}

TEST(RecvMessages, WithoutACurrentBufferAborts) {
    const Outcome outcome = run_in_child([] { platform_recv_messages(-1); });
    EXPECT_EQ(outcome.signal, SIGABRT);
    EXPECT_EQ(outcome.err, assertion_text("platform_recv_messages", "gMsgBuf != nullptr"));
}

TEST(ProcessMessages, HandsOverEveryCompleteMessageAndKeepsTheRest) {
    const CurrentBuffer buffer;
    const Dispatched dispatched;
    put_into_buffer("A\r\nB\r\n\r\n\r\n\r\nC\r\n\r\nD\r\n");
    EXPECT_EQ(platform_process_messages(-1, handle_message), 0);
    EXPECT_EQ(dispatched.messages, (std::vector<Message>{{"A", "B"}, {""}, {"C"}}));
    EXPECT_TRUE(buffer_holds("D\r\n"));
}

TEST(ProcessMessages, IgnoresTheResultsOfTheHandler) {
    const CurrentBuffer buffer;
    Dispatched dispatched;
    dispatched.result = 0;
    put_into_buffer("A\r\n\r\nB\r\n\r\n");
    EXPECT_EQ(platform_process_messages(-1, handle_message), 0);
    EXPECT_EQ(dispatched.messages.size(), 2U);
}

TEST(ProcessMessages, WithoutACompleteMessageLeavesTheBufferAsItIs) {
    const CurrentBuffer buffer;
    const Dispatched dispatched;
    EXPECT_EQ(platform_process_messages(-1, handle_message), 0);
    put_into_buffer("A\r\n\r");
    EXPECT_EQ(platform_process_messages(-1, handle_message), 0);
    EXPECT_EQ(dispatched.messages.size(), 0U);
    EXPECT_TRUE(buffer_holds("A\r\n\r"));
}

TEST(ProcessMessages, TheRestIsMovedAfterEachMessage) {
    const CurrentBuffer buffer;
    std::vector<std::string> rests;
    on_message = [&rests](int socket, char *, char **) {
        EXPECT_EQ(socket, 12);
        rests.emplace_back(gMsgBuf->p1, gMsgBuf->p2);
        EXPECT_EQ(gMsgBuf->p1, gMsgBuf->pBuf + 5); // each message has five bytes
        return 1;
    };
    put_into_buffer("A\r\n\r\nB\r\n\r\nC\r\n\r\n");
    EXPECT_EQ(platform_process_messages(12, handle_message), 0);
    EXPECT_EQ(rests, (std::vector<std::string>{"B\r\n\r\nC\r\n\r\n", "C\r\n\r\n", ""}));
    on_message = nullptr;
}

TEST(ProcessMessages, TheRestMayBeLongerThanTheMessageBeforeIt) {
    const CurrentBuffer buffer;
    const Dispatched dispatched;
    std::string rest;
    for (char byte = 'a'; byte <= 'z'; ++byte) {
        rest += std::string(3, byte);
    }
    put_into_buffer("A\r\n\r\n" + rest);
    EXPECT_EQ(platform_process_messages(-1, handle_message), 0);
    EXPECT_TRUE(buffer_holds(rest));
}

TEST(ProcessMessages, AHandlerMayMakeAnotherBufferCurrent) {
    const CurrentBuffer first;
    const CurrentBuffer second;
    put_into_buffer("B\r\n\r\n");
    platform_msgbuf_set(first.buffer);
    put_into_buffer("A\r\n\r\nrest");
    std::vector<Message> messages;
    on_message = [&](int, char *first_line, char **lines) {
        messages.push_back(message_of(first_line, lines));
        platform_msgbuf_set(second.buffer);
        return 1;
    };
    EXPECT_EQ(platform_process_messages(-1, handle_message), 0);
    EXPECT_EQ(messages, (std::vector<Message>{{"A"}, {"B"}}));
    on_message = nullptr;
}

TEST(ProcessMessages, AHandlerMayLeaveNoBufferCurrent) {
    const CurrentBuffer only;
    put_into_buffer("A\r\n\r\nB\r\n\r\n");
    int handed_over = 0;
    on_message = [&](int, char *, char **) {
        ++handed_over;
        platform_msgbuf_set(nullptr);
        return 1;
    };
    EXPECT_EQ(platform_process_messages(-1, handle_message), 0);
    EXPECT_EQ(handed_over, 1);
    on_message = nullptr;
}

TEST(ProcessMessages, WithoutACurrentBufferAborts) {
    const Outcome outcome = run_in_child([] { platform_process_messages(-1, handle_message); });
    EXPECT_EQ(outcome.signal, SIGABRT);
    EXPECT_EQ(outcome.err, assertion_text("platform_process_messages", "gMsgBuf != nullptr"));
}

TEST(ProcessMessages, ServeWithReceivesAsALoopOfTheCallersOwn) {
    const SocketPair pair;
    const CurrentBuffer buffer;
    const Dispatched dispatched;
    for (const std::string_view piece : {"A", "\r", "\n\r", "\nB", "\r\n", "\r\n"}) {
        send_text(pair.theirs.fd, piece);
        ASSERT_EQ(platform_recv_messages(pair.ours.fd), static_cast<int>(piece.size()));
        ASSERT_EQ(platform_process_messages(pair.ours.fd, handle_message), 0);
    }
    EXPECT_EQ(dispatched.messages, (std::vector<Message>{{"A"}, {"B"}}));
    EXPECT_TRUE(buffer_holds(""));
}

} // namespace
