// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Sending a message: its bytes on the wire, in how few sends they leave, and what happens when one fails.
#include "socket_support.h"

#include <support/interpose.h>

#include <algorithm>
#include <array>
#include <msg/base/limits.h>
#include <utility>

namespace {

using namespace zel::test;
namespace hook = zel::test::hook;

constexpr char *kEnd = nullptr;

// The texts of all sends in its scope.
struct Sends {
    std::vector<std::string> texts;
    Interposed<ssize_t(int, const void *, size_t, int)> hooked{
        hook::send, [this](int fd, const void *buffer, size_t length, int flags) {
            EXPECT_EQ(flags, MSG_NOSIGNAL);
            texts.emplace_back(static_cast<const char *>(buffer), length);
            return hook::send.real(fd, buffer, length, flags);
        }};
};

// Blocks taken from the C library and given back in its scope.
struct Blocks {
    int taken = 0;
    void *block = nullptr;
    int released = 0;
    Interposed<void *(size_t)> taking{hook::malloc, [this](size_t bytes) {
                                          ++taken;
                                          return block = hook::malloc.real(bytes);
                                      }};
    Interposed<void(void *)> releasing{hook::free, [this](void *pointer) {
                                           released += pointer == block ? 1 : 0;
                                           hook::free.real(pointer);
                                       }};
};

// A message of 51 lines: "0" to "50".
template <size_t... Line>
int send_51_lines(int fd, const std::array<std::string, 51> &lines, std::index_sequence<Line...>) {
    return platform_send_message(fd, lines[Line].c_str()..., kEnd);
}

TEST(SendMessage, OneLineIsThatLineAndAnEmptyOne) {
    const SocketPair pair;
    EXPECT_EQ(platform_send_message(pair.ours.fd, "X", kEnd), 1);
    EXPECT_EQ(waiting_on(pair.theirs.fd), "X\r\n\r\n");
}

TEST(SendMessage, ANullFirstLineIsAnEmptyLine) {
    const SocketPair pair;
    EXPECT_EQ(platform_send_message(pair.ours.fd, nullptr, kEnd), 1);
    EXPECT_EQ(waiting_on(pair.theirs.fd), "\r\n\r\n");
}

TEST(SendMessage, LinesMayFollowANullFirstLine) {
    const SocketPair pair;
    EXPECT_EQ(platform_send_message(pair.ours.fd, nullptr, "B", "C", kEnd), 1);
    EXPECT_EQ(waiting_on(pair.theirs.fd), "\r\nB\r\nC\r\n\r\n");
}

TEST(SendMessage, EveryLineUpToTheNullIsSent) {
    const SocketPair pair;
    EXPECT_EQ(platform_send_message(pair.ours.fd, "A", "two words", "%s", "\t", "E", kEnd, "beyond", kEnd), 1);
    EXPECT_EQ(waiting_on(pair.theirs.fd), "A\r\ntwo words\r\n%s\r\n\t\r\nE\r\n\r\n");
}

TEST(SendMessage, WhatWasSentIsWhatALoopHandsOver) {
    const SocketPair pair;
    const CurrentBuffer buffer(20000);
    const Dispatched dispatched;
    const std::string long_line(8190, 'x');
    EXPECT_EQ(platform_send_message(pair.ours.fd, nullptr, "B", long_line.c_str(), "a\rb", kEnd), 1);
    EXPECT_EQ(platform_get_one_message(pair.theirs.fd, handle_message, nullptr, 0), 1);
    EXPECT_EQ(dispatched.messages, (std::vector<Message>{{"", "B", long_line, "a\rb"}}));
}

#ifndef ZEL_SMALL_CONSTANTS // the framing area has 8192 bytes
TEST(SendMessageSize, ALineOf8189CharactersIsFramedWithoutAllocation) {
    const SocketPair pair;
    const std::string line(8189, 'x');
    int taken = -1;
    {
        const Blocks blocks;
        EXPECT_EQ(platform_send_message(pair.ours.fd, line.c_str(), line.c_str(), kEnd), 1);
        taken = blocks.taken;
    }
    EXPECT_EQ(taken, 0);
    EXPECT_EQ(waiting_on(pair.theirs.fd), line + "\r\n" + line + "\r\n\r\n");
}

TEST(SendMessageSize, ALineOf8190CharactersIsFramedInAllocatedStorageThatIsFreed) {
    const SocketPair pair;
    const std::string line(8190, 'x');
    int taken = -1;
    int released = -1;
    {
        const Blocks blocks;
        EXPECT_EQ(platform_send_message(pair.ours.fd, line.c_str(), kEnd), 1);
        taken = blocks.taken;
        released = blocks.released;
    }
    EXPECT_EQ(taken, 1);
    EXPECT_EQ(released, 1);
    EXPECT_EQ(waiting_on(pair.theirs.fd), line + "\r\n\r\n");
}

TEST(SendMessageSize, ALineLongerThanTheAreaGoesByItselfBehindWhatWasGathered) {
    const SocketPair pair;
    const std::string line(8190, 'x');
    const Sends sends;
    EXPECT_EQ(platform_send_message(pair.ours.fd, "A", "B", line.c_str(), "C", kEnd), 1);
    EXPECT_EQ(sends.texts, (std::vector<std::string>{"A\r\nB\r\n", line + "\r\n", "C\r\n\r\n"}));
    EXPECT_EQ(waiting_on(pair.theirs.fd), "A\r\nB\r\n" + line + "\r\nC\r\n\r\n");
}

TEST(SendMessageSize, ALongFirstLineSendsNothingEmptyBefore) {
    const SocketPair pair;
    const std::string line(100000, 'x');
    const Sends sends;
    EXPECT_EQ(platform_send_message(pair.ours.fd, line.c_str(), kEnd), 1);
    EXPECT_EQ(sends.texts, (std::vector<std::string>{line + "\r\n", "\r\n"}));
}

TEST(SendMessageSize, OneLineLeavesInOneSend) {
    const SocketPair pair;
    const Sends sends;
    EXPECT_EQ(platform_send_message(pair.ours.fd, "X", kEnd), 1);
    EXPECT_EQ(sends.texts, std::vector<std::string>{"X\r\n\r\n"});
}

TEST(SendMessageSize, FiftyOneLinesLeaveInOneSend) {
    const SocketPair pair;
    std::array<std::string, 51> lines;
    std::string expected;
    for (size_t line = 0; line < lines.size(); ++line) {
        lines[line] = std::to_string(line);
        expected += lines[line] + "\r\n";
    }
    const Sends sends;
    EXPECT_EQ(send_51_lines(pair.ours.fd, lines, std::make_index_sequence<51>()), 1);
    EXPECT_EQ(sends.texts, std::vector<std::string>{expected + "\r\n"});
}

TEST(SendMessageSize, AMessageLargerThanTheAreaLeavesInAsFewSendsAsFit) {
    const SocketPair pair;
    const std::string line(4000, 'x');
    const std::string framed = line + "\r\n";
    const Sends sends;
    EXPECT_EQ(platform_send_message(pair.ours.fd, line.c_str(), line.c_str(), line.c_str(), kEnd), 1);
    EXPECT_EQ(sends.texts, (std::vector<std::string>{framed + framed, framed + "\r\n"}));
}

TEST(SendMessageSize, AMessageThatJustFillsTheAreaLeavesInOneSend) {
    const SocketPair pair;
    const std::string line(8188, 'x');
    const Sends sends;
    EXPECT_EQ(platform_send_message(pair.ours.fd, line.c_str(), kEnd), 1);
    EXPECT_EQ(sends.texts, std::vector<std::string>{line + "\r\n\r\n"});
}

TEST(SendMessageSize, AByteMoreNeedsASecondSend) {
    const SocketPair pair;
    const std::string line(8189, 'x');
    const Sends sends;
    EXPECT_EQ(platform_send_message(pair.ours.fd, line.c_str(), kEnd), 1);
    EXPECT_EQ(sends.texts, (std::vector<std::string>{line + "\r\n", "\r\n"}));
}

TEST(SendMessageSize, ALongLineThatFindsNoMemoryEndsTheMessage) {
    const SocketPair pair;
    const std::string line(8190, 'x');
    int result = -1;
    {
        const Interposed failing(hook::malloc, fail_always(hook::malloc, ENOMEM, nullptr));
        result = platform_send_message(pair.ours.fd, "A", line.c_str(), "C", kEnd);
    }
    EXPECT_EQ(result, 0);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(waiting_on(pair.theirs.fd), "A\r\n");
}
#endif

// Sends three lines of that length, the n-th send failing, until none fails. Returns how many sends there were.
int fail_each_send(size_t length) {
    const std::string line(length, 'x');
    const std::string framed = line + "\r\n";
    int failing_send = 0;
    for (int result = 0; result == 0; ++failing_send) {
        const SocketPair pair;
        const Interposed failing(hook::send, fail_nth(hook::send, failing_send, ECONNRESET, -1));
        errno = 0;
        result = platform_send_message(pair.ours.fd, line.c_str(), line.c_str(), line.c_str(), kEnd);
        EXPECT_EQ(errno, result == 0 ? ECONNRESET : 0);
        EXPECT_EQ(waiting_on(pair.theirs.fd) == framed + framed + framed + "\r\n", result == 1);
    }
    return failing_send - 1;
}

TEST(SendMessage, AFailedSendEndsTheMessageWithZeroWhicheverItIs) {
    EXPECT_GE(fail_each_send(3), 1);
    EXPECT_GE(fail_each_send(4000), 2); // the first when the area is full
    EXPECT_EQ(fail_each_send(9000), 4); // one for each line, one for the end
}

TEST(SendMessage, NoLineIsSentAfterAFailedSend) {
    const std::string line(9000, 'x');
    int sends = 0;
    const Interposed failing(hook::send, [&sends](int, const void *, size_t, int) -> ssize_t {
        ++sends;
        errno = EPIPE;
        return -1;
    });
    EXPECT_EQ(platform_send_message(-1, "A", line.c_str(), line.c_str(), "D", kEnd), 0);
    EXPECT_EQ(sends, 1);
}

TEST(SendMessage, AnInterruptedSendEndsTheMessage) {
    const SocketPair pair;
    const Interposed failing(hook::send, fail_nth(hook::send, 0, EINTR, -1));
    EXPECT_EQ(platform_send_message(pair.ours.fd, "A", "B", kEnd), 0);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(waiting_on(pair.theirs.fd), "");
}

TEST(SendMessage, AClosedPeerIsAnErrorAndNoSignal) {
    SocketPair pair;
    pair.theirs.close();
    EXPECT_EQ(platform_send_message(pair.ours.fd, "X", kEnd), 0);
    EXPECT_EQ(errno, EPIPE);
}

TEST(SendMessage, PartialSendsAreContinued) {
    const SocketPair pair;
    const Interposed stingy(hook::send, [](int fd, const void *buffer, size_t length, int flags) {
        return hook::send.real(fd, buffer, (length + 1) / 2, flags);
    });
    const std::string line(9000, 'x');
    EXPECT_EQ(platform_send_message(pair.ours.fd, "some words", line.c_str(), "more", kEnd), 1);
    EXPECT_EQ(waiting_on(pair.theirs.fd), "some words\r\n" + line + "\r\nmore\r\n\r\n");
}

TEST(SendMessage, ReportsNothing) {
    const Outcome outcome = run_with_reports([] { platform_send_message(-1, "X", kEnd); });
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "");
}

} // namespace
