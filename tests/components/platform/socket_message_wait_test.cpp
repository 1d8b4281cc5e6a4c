// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// One message from a peer that is not trusted: a time, a size, and handlers that receive themselves.
#include "socket_support.h"

#include <components/platform/message_lines.h>
#include <msg/base/limits.h>
#include <support/interpose.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <functional>
#include <poll.h>
#include <sys/time.h>

namespace {

using namespace zel::test;
namespace hook = zel::test::hook;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int32_t kLong = 20000; // a time that no test lasts

// What a test does with a message; the pointer of the caller's leads to it.
using Handling = std::function<int(int socket, const PlatformMessage &message)>;

int handle(int socket, const PlatformMessage *message, void *user) {
    return (*static_cast<Handling *>(user))(socket, *message);
}

Message lines_of(const PlatformMessage &message) {
    Message lines;
    for (int32_t line = 0; line < message.count; ++line) {
        lines.emplace_back(message.lines[line].text, message.lines[line].length);
        EXPECT_EQ(message.lines[line].text[message.lines[line].length], '\0') << "a NUL follows the line";
    }
    return lines;
}

// Keeps the messages that a wait hands over.
struct Kept {
    std::vector<Message> messages;
    int result = 1;
    Handling handling = [this](int, const PlatformMessage &message) {
        messages.push_back(lines_of(message));
        return result;
    };
    int wait(int socket, int32_t time) { return platform_message_wait(socket, handle, &handling, time); }
};

TEST(MessageWait, HandsOverOneMessageWithItsLengths) {
    const SocketPair pair;
    const CurrentBuffer buffer;
    Kept kept;
    send_text(pair.theirs.fd, "copy\r\na\r\nbc\r\n\r\n\r\n\r\nlast\r\n\r\n");
    EXPECT_EQ(kept.wait(pair.ours.fd, kLong), PLATFORM_MESSAGE_HANDLED);
    EXPECT_EQ(kept.wait(pair.ours.fd, 0), PLATFORM_MESSAGE_HANDLED);
    kept.result = 0;
    EXPECT_EQ(kept.wait(pair.ours.fd, -1), PLATFORM_MESSAGE_STOPPED);
    EXPECT_EQ(kept.messages, (std::vector<Message>{{"copy", "a", "bc"}, {""}, {"last"}}));
    EXPECT_TRUE(buffer_holds(""));
}

TEST(MessageWait, AMessageInTheBufferNeedsNoReceive) {
    const CurrentBuffer buffer;
    put_into_buffer("A\r\n\r\nB\r\n\r\n");
    Kept kept;
    EXPECT_EQ(kept.wait(77, 0), PLATFORM_MESSAGE_HANDLED);
    EXPECT_TRUE(buffer_holds("B\r\n\r\n"));
}

TEST(MessageWait, ANulDoesNotHideTheRestOfItsLine) {
    const SocketPair pair;
    const CurrentBuffer buffer;
    Kept kept;
    send_text(pair.theirs.fd, std::string_view("a\0b\r\n\0\r\n\r\n", 11));
    EXPECT_EQ(kept.wait(pair.ours.fd, kLong), PLATFORM_MESSAGE_HANDLED);
    EXPECT_EQ(kept.messages, (std::vector<Message>{{std::string("a\0b", 3), std::string(1, '\0')}}));
}

TEST(MessageWait, ATimeOutKeepsWhatCame) {
    const SocketPair pair;
    const CurrentBuffer buffer;
    Kept kept;
    for (const int32_t time : {0, 30}) {
        send_text(pair.theirs.fd, "par");
        const auto start = Clock::now();
        EXPECT_EQ(kept.wait(pair.ours.fd, time), PLATFORM_MESSAGE_TIMED_OUT);
        EXPECT_GE(Clock::now() - start, milliseconds(time));
    }
    send_text(pair.theirs.fd, "t\r\n\r\n");
    EXPECT_EQ(kept.wait(pair.ours.fd, 0), PLATFORM_MESSAGE_HANDLED);
    EXPECT_EQ(kept.messages, (std::vector<Message>{{"parpart"}}));
}

TEST(MessageWait, APeerThatSendsByteByByteDoesNotProlongTheTime) {
    const SocketPair pair;
    const CurrentBuffer buffer;
    long now = 0;
    const Interposed clock(hook::clock_gettime, [&now](clockid_t, timespec *time) {
        now += 10;
        *time = {.tv_sec = now / 1000, .tv_nsec = now % 1000 * 1000000};
        return 0;
    });
    int receives = 0;
    const Interposed dripping(hook::recv, [&receives](int, void *data, size_t, int) -> ssize_t {
        ++receives;
        *static_cast<char *>(data) = 'x';
        return 1;
    });
    send_text(pair.theirs.fd, "y"); // the socket is readable all the time
    Kept kept;
    EXPECT_EQ(kept.wait(pair.ours.fd, 100), PLATFORM_MESSAGE_TIMED_OUT);
    EXPECT_LE(receives, 12);
}

TEST(MessageWait, TheEndOfTheStreamIsToldApart) {
    SocketPair pair;
    const CurrentBuffer buffer;
    Kept kept;
    send_text(pair.theirs.fd, "A\r\n\r\nhalf");
    send_text(pair.ours.fd, "unread: the connection is reset");
    pair.theirs.close();
    EXPECT_EQ(kept.wait(pair.ours.fd, -1), PLATFORM_MESSAGE_HANDLED);
    EXPECT_EQ(kept.wait(pair.ours.fd, -1), PLATFORM_MESSAGE_ENDED);
    EXPECT_EQ(kept.messages, (std::vector<Message>{{"A"}}));
}

TEST(MessageWait, WithoutABufferOrASocketItFails) {
    Kept kept;
    EXPECT_EQ(kept.wait(0, 0), PLATFORM_MESSAGE_FAILED);
    EXPECT_EQ(errno, EINVAL);
    const CurrentBuffer buffer;
    for (const int32_t time : {-1, 0, kLong}) {
        EXPECT_EQ(kept.wait(-1, time), PLATFORM_MESSAGE_FAILED);
        EXPECT_EQ(errno, EBADF);
        EXPECT_EQ(kept.wait(1023, time), PLATFORM_MESSAGE_FAILED);
        EXPECT_EQ(errno, EBADF);
    }
}

// ---- The size -------------------------------------------------------------------------------------------------------

// What becomes of a message of that many bytes, its line ends included, in a buffer of 100.
int result_of_size(size_t size, std::vector<Message> *messages) {
    const SocketPair pair;
    const CurrentBuffer buffer(100);
    Kept kept;
    send_text(pair.theirs.fd, std::string(size - 4, 'm') + "\r\n\r\n");
    const int result = kept.wait(pair.ours.fd, 0);
    if (result == PLATFORM_MESSAGE_TOO_LONG) {
        EXPECT_EQ(kept.wait(pair.ours.fd, 0), PLATFORM_MESSAGE_TOO_LONG) << "and stays so";
        EXPECT_EQ(gMsgBuf->p2 - gMsgBuf->pBuf, 99) << "the buffer is not overrun";
        platform_msgbuf_reset(gMsgBuf);
        waiting_on(pair.ours.fd);
        send_text(pair.theirs.fd, "next\r\n\r\n");
        EXPECT_EQ(kept.wait(pair.ours.fd, 0), PLATFORM_MESSAGE_HANDLED) << "a reset buffer serves again";
    }
    *messages = kept.messages;
    return result;
}

TEST(MessageWaitSize, AMessageMayTakeAllButOneByteOfTheBuffer) {
    std::vector<Message> messages;
    EXPECT_EQ(result_of_size(99, &messages), PLATFORM_MESSAGE_HANDLED);
    EXPECT_EQ(messages, (std::vector<Message>{{std::string(95, 'm')}}));
}

TEST(MessageWaitSize, OneByteMoreIsAnErrorAndNoAbort) {
    std::vector<Message> messages;
    for (const size_t size : {100U, 101U, 5000U}) {
        EXPECT_EQ(result_of_size(size, &messages), PLATFORM_MESSAGE_TOO_LONG);
        EXPECT_EQ(messages, (std::vector<Message>{{"next"}}));
    }
}

TEST(MessageWaitSize, WhatFollowsAMessageNeedsNoRoomOfItsOwn) {
    const SocketPair pair;
    const CurrentBuffer buffer(100);
    Kept kept;
    const std::string message = std::string(60, 'm') + "\r\n\r\n";
    for (int round = 0; round < 20; ++round) {
        send_text(pair.theirs.fd, message);
    }
    for (int round = 0; round < 20; ++round) {
        EXPECT_EQ(kept.wait(pair.ours.fd, 0), PLATFORM_MESSAGE_HANDLED);
    }
    EXPECT_EQ(kept.messages, std::vector<Message>(20, {std::string(60, 'm')}));
}

TEST(MessageWaitSize, TooManyLinesAreAnErrorAndNoAbort) {
    for (const int lines : {PLATFORM_MAX_MESSAGE_LINES, PLATFORM_MAX_MESSAGE_LINES + 1}) {
        const CurrentBuffer buffer(1 << 20);
        put_into_buffer(numbered(lines));
        Kept kept;
        const bool fits = lines == PLATFORM_MAX_MESSAGE_LINES;
        EXPECT_EQ(kept.wait(77, 0), fits ? PLATFORM_MESSAGE_HANDLED : PLATFORM_MESSAGE_TOO_LONG);
        EXPECT_EQ(kept.messages, fits ? std::vector<Message>{numbers(lines)} : std::vector<Message>{});
        EXPECT_TRUE(buffer_holds(fits ? "" : numbered(lines)));
    }
}

TEST(MessageWaitSize, WithoutMemoryForTheLinesTheMessageStays) {
    const std::string message = numbered(200);
    for (int nth = 0;; ++nth) {
        const CurrentBuffer buffer(1 << 16);
        put_into_buffer(message);
        int taken = 0;
        int released = 0;
        int result = 0;
        int lines = 0;
        Handling count = [&lines](int, const PlatformMessage &whole) {
            lines = whole.count;
            return 1;
        };
        {
            const Interposed failing(hook::malloc, [&taken, nth](size_t size) -> void * {
                if (taken++ == nth) {
                    errno = EXDEV; // not what the call tells
                    return nullptr;
                }
                return hook::malloc.real(size);
            });
            const Interposed releasing(hook::free, [&released](void *block) {
                released += block == nullptr ? 0 : 1;
                hook::free.real(block);
            });
            result = platform_message_wait(77, handle, &count, 0);
        }
        if (result == PLATFORM_MESSAGE_HANDLED) {
            EXPECT_EQ(lines, 200);
            EXPECT_EQ(released, taken);
            EXPECT_GE(nth, 2);
            break;
        }
        EXPECT_EQ(result, PLATFORM_MESSAGE_FAILED);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_EQ(released, taken - 1);
        EXPECT_TRUE(buffer_holds(message));
    }
}

// ---- Signals and failures -------------------------------------------------------------------------------------------

TEST(MessageWaitFailure, InterruptionsAndFalseAlarmsGoOn) {
    const SocketPair pair;
    const CurrentBuffer buffer;
    Kept kept;
    send_text(pair.theirs.fd, "A\r\n\r\n");
    const Interposed polls(hook::ppoll, fail_nth(hook::ppoll, 0, EINTR, -1));
    const Interposed receives(hook::recv, fail_nth(hook::recv, 0, EAGAIN, -1));
    EXPECT_EQ(kept.wait(pair.ours.fd, kLong), PLATFORM_MESSAGE_HANDLED);
}

TEST(MessageWaitFailure, EachFailedStepIsTold) {
    for (int nth = 0;; ++nth) {
        const SocketPair pair;
        const CurrentBuffer buffer;
        Kept kept;
        send_text(pair.theirs.fd, "A\r\n\r\n");
        const Interposed polls(hook::ppoll, fail_nth(hook::ppoll, nth, EIO, -1));
        const Interposed receives(hook::recv, fail_nth(hook::recv, nth - 1, EIO, -1));
        const int result = kept.wait(pair.ours.fd, kLong);
        if (nth >= 2 && result == PLATFORM_MESSAGE_HANDLED) {
            break;
        }
        ASSERT_LT(nth, 10);
        EXPECT_EQ(result, PLATFORM_MESSAGE_FAILED);
        EXPECT_EQ(errno, EIO);
        EXPECT_EQ(kept.messages.size(), 0U);
    }
}

TEST(MessageWaitFailure, SignalsDoNotShortenOrProlongATime) {
    const Outcome outcome = run_in_child([] {
        const SocketPair pair;
        const CurrentBuffer buffer;
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, nullptr);
        const itimerval often = {.it_interval = {0, 500}, .it_value = {0, 500}};
        setitimer(ITIMER_REAL, &often, nullptr);
        Kept kept;
        const auto start = Clock::now();
        const int result = kept.wait(pair.ours.fd, 50);
        const auto taken = Clock::now() - start;
        printf("%d %d", result, taken >= milliseconds(50) && taken < milliseconds(5000) ? 1 : 0);
    });
    EXPECT_EQ(outcome.out, "-2 1");
}

// ---- Handlers that receive themselves -------------------------------------------------------------------------------

TEST(MessageWaitHandler, MayTakeTheNextMessageItself) {
    const SocketPair pair;
    const CurrentBuffer buffer;
    Kept inner;
    std::vector<Message> outer;
    Handling handling = [&](int socket, const PlatformMessage &message) {
        outer.push_back(lines_of(message));
        EXPECT_EQ(inner.wait(socket, 0), PLATFORM_MESSAGE_HANDLED);
        return 1;
    };
    send_text(pair.theirs.fd, "one\r\n\r\ntwo\r\n\r\nthree\r\n\r\n");
    EXPECT_EQ(platform_message_wait(pair.ours.fd, handle, &handling, 0), PLATFORM_MESSAGE_HANDLED);
    EXPECT_EQ(inner.wait(pair.ours.fd, 0), PLATFORM_MESSAGE_HANDLED);
    EXPECT_EQ(outer, (std::vector<Message>{{"one"}}));
    EXPECT_EQ(inner.messages, (std::vector<Message>{{"two"}, {"three"}}));
}

TEST(MessageWaitHandler, MayRunTheLoop) {
    const SocketPair pair;
    const CurrentBuffer buffer;
    Dispatched dispatched;
    Handling handling = [](int socket, const PlatformMessage &) {
        return platform_get_one_message(socket, handle_message, nullptr, 0);
    };
    send_text(pair.theirs.fd, "one\r\n\r\ntwo\r\n\r\nthree\r\n\r\n");
    EXPECT_EQ(platform_message_wait(pair.ours.fd, handle, &handling, 0), PLATFORM_MESSAGE_HANDLED);
    EXPECT_EQ(platform_get_one_message(pair.ours.fd, handle_message, nullptr, 0), 1);
    EXPECT_EQ(dispatched.messages, (std::vector<Message>{{"two"}, {"three"}}));
    EXPECT_TRUE(buffer_holds(""));
}

TEST(MessageWaitHandler, MayResetOrReplaceTheBuffer) {
    const SocketPair pair;
    const CurrentBuffer other;
    const CurrentBuffer buffer;
    Kept kept;
    Handling reset = [](int, const PlatformMessage &) {
        platform_msgbuf_reset(gMsgBuf);
        return 1;
    };
    send_text(pair.theirs.fd, "one\r\n\r\ntwo\r\n\r\n");
    EXPECT_EQ(platform_message_wait(pair.ours.fd, handle, &reset, kLong), PLATFORM_MESSAGE_HANDLED);
    EXPECT_TRUE(buffer_holds(""));
    waiting_on(pair.ours.fd);
    Handling replace = [&other](int, const PlatformMessage &message) {
        platform_msgbuf_set(other.buffer);
        put_into_buffer("three\r\n\r\n");
        return static_cast<int>(lines_of(message) == Message{"two"});
    };
    send_text(pair.theirs.fd, "two\r\n\r\n");
    EXPECT_EQ(platform_message_wait(pair.ours.fd, handle, &replace, kLong), PLATFORM_MESSAGE_HANDLED);
    EXPECT_EQ(kept.wait(pair.ours.fd, 0), PLATFORM_MESSAGE_HANDLED);
    EXPECT_EQ(kept.messages, (std::vector<Message>{{"three"}}));
    Handling leave_none = [](int, const PlatformMessage &) {
        platform_msgbuf_set(nullptr);
        return 0;
    };
    send_text(pair.theirs.fd, "four\r\n\r\n");
    EXPECT_EQ(platform_message_wait(pair.ours.fd, handle, &leave_none, kLong), PLATFORM_MESSAGE_STOPPED);
    EXPECT_EQ(kept.wait(pair.ours.fd, 0), PLATFORM_MESSAGE_FAILED);
}

TEST(MessageWaitHandler, ReceivesInTheRoomOfTheMessageAtHand) {
    const SocketPair pair;
    const CurrentBuffer buffer(100);
    const std::string inner_message(90, 'i');
    Kept inner;
    Handling handling = [&](int socket, const PlatformMessage &) { return inner.wait(socket, 0); };
    send_text(pair.theirs.fd, std::string(90, 'o') + "\r\n\r\n" + inner_message + "\r\n\r\n");
    EXPECT_EQ(platform_message_wait(pair.ours.fd, handle, &handling, 0), PLATFORM_MESSAGE_HANDLED);
    EXPECT_EQ(inner.messages, (std::vector<Message>{{inner_message}}));
    EXPECT_TRUE(buffer_holds(""));
}

} // namespace
