// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Sending lines that come from data: what is refused, and how the others leave.
#include "socket_support.h"

#include <components/platform/message_lines.h>
#include <msg/base/limits.h>
#include <support/interpose.h>

#include <csignal>
#include <fcntl.h>
#include <random>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace zel::test;
namespace hook = zel::test::hook;

std::vector<PlatformLine> lines_of(const Message &message) {
    std::vector<PlatformLine> lines;
    for (const std::string &line : message) {
        lines.push_back({.text = line.data(), .length = line.size()});
    }
    return lines;
}

int send_lines(int socket, const Message &message) {
    const std::vector<PlatformLine> lines = lines_of(message);
    return platform_send_message_lines(socket, lines.data(), static_cast<int32_t>(lines.size()));
}

std::string framed(const Message &message) {
    std::string text;
    for (const std::string &line : message) {
        text += line + "\r\n";
    }
    return text + "\r\n";
}

// What arrives of a message that is sent, or "refused".
std::string sent(const Message &message) {
    const SocketPair pair;
    errno = 0;
    const int result = send_lines(pair.ours.fd, message);
    const int error = errno;
    const std::string text = waiting_on(pair.theirs.fd);
    if (result == 0) {
        EXPECT_EQ(error, EINVAL);
        EXPECT_EQ(text, "") << "nothing is sent before the refusal";
        return "refused";
    }
    return text;
}

const std::string kNul(1, '\0');

TEST(SendMessageLines, LeavesInTheFormatOfAllMessages) {
    EXPECT_EQ(sent({"A"}), "A\r\n\r\n");
    EXPECT_EQ(sent({"A", "B", "C"}), "A\r\nB\r\nC\r\n\r\n");
    EXPECT_EQ(sent({"", "B"}), "\r\nB\r\n\r\n");
    EXPECT_EQ(sent({""}), "\r\n\r\n");
}

TEST(SendMessageLines, ALineWithALineEndOrANulIsRefused) {
    for (const std::string &bad : {std::string("\r\n"), std::string("a\r\nb"), std::string("a\r\n"), "\r\nb" + kNul,
                                   kNul, "a" + kNul + "b", "\n\r\n" + kNul, std::string("a\nb\nc\r\n")}) {
        EXPECT_EQ(sent({bad}), "refused") << bad;
        EXPECT_EQ(sent({"A", "B", bad, "C"}), "refused") << bad;
        EXPECT_EQ(sent({"A", "B", bad}), "refused") << bad;
    }
}

TEST(SendMessageLines, AnEmptyLineOtherThanTheFirstIsRefused) {
    EXPECT_EQ(sent({"A", ""}), "refused");
    EXPECT_EQ(sent({"", "B", "", "D"}), "refused");
}

TEST(SendMessageLines, ACountOutOfRangeIsRefused) {
    const SocketPair pair;
    const PlatformLine line = {.text = "A", .length = 1};
    for (const int32_t count : {0, -1, INT32_MIN, PLATFORM_MAX_MESSAGE_LINES + 1, INT32_MAX}) {
        errno = 0;
        EXPECT_EQ(platform_send_message_lines(pair.ours.fd, &line, count), 0) << count;
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(waiting_on(pair.theirs.fd), "");
}

TEST(SendMessageLines, ANullTextIsAnEmptyLineAndNothingElse) {
    const SocketPair pair;
    const PlatformLine empty = {.text = nullptr, .length = 0};
    EXPECT_EQ(platform_send_message_lines(pair.ours.fd, &empty, 1), 1);
    EXPECT_EQ(waiting_on(pair.theirs.fd), "\r\n\r\n");
    const PlatformLine none = {.text = nullptr, .length = 3};
    EXPECT_EQ(platform_send_message_lines(pair.ours.fd, &none, 1), 0);
    EXPECT_EQ(errno, EINVAL);
}

TEST(SendMessageLines, TheTextNeedsNoNulBehindIt) {
    const SocketPair pair;
    const std::string text = "abcdef\r\n";
    const PlatformLine lines[] = {{.text = text.data(), .length = 3}, {.text = text.data() + 3, .length = 4}};
    EXPECT_EQ(platform_send_message_lines(pair.ours.fd, lines, 2), 1) << "the LF stands behind the line";
    EXPECT_EQ(waiting_on(pair.theirs.fd), "abc\r\ndef\r\r\n\r\n");
}

TEST(SendMessageLines, WhatStandsInFrontOfALineIsNotLookedAt) {
    const SocketPair pair;
    const std::string text = "a\r\nb";
    const PlatformLine line = {.text = text.data() + 2, .length = 2};
    EXPECT_EQ(platform_send_message_lines(pair.ours.fd, &line, 1), 1);
    EXPECT_EQ(waiting_on(pair.theirs.fd), "\nb\r\n\r\n");
}

// The message as the parser of the message loop finds it.
Message parsed(std::string text) {
    std::vector<char *> table(PLATFORM_MAX_MESSAGE_LINES + 1);
    EXPECT_EQ(platform_parse_message(text.data(), static_cast<int32_t>(text.size()), table.data()),
              static_cast<int32_t>(text.size()));
    return message_of(table[0], table.data() + 1);
}

TEST(SendMessageLines, ALineMayEndWithCrOrBeginWithLf) {
    for (const Message &message : std::initializer_list<Message>{
             {"a\r", "\nb"}, {"\r", "\r", "\n", "\n"}, {"", "\r", "\n"}, {"\n\r", "\r\r", "a\rb\nc\r"}}) {
        EXPECT_EQ(sent(message), framed(message));
        EXPECT_EQ(parsed(framed(message)), message);
    }
}

// Whether a line can be sent, decided in the plainest way.
bool can_be_sent(const std::string &line, bool first) {
    return (first || !line.empty()) && line.find("\r\n") == std::string::npos && line.find('\0') == std::string::npos;
}

TEST(SendMessageLines, WhateverIsNotRefusedArrivesAsItIs) {
    std::mt19937 random(4711); // NOLINT(bugprone-random-generator-seed): the same lines on every run
    int arrived = 0;
    for (int round = 0; round < 3000; ++round) {
        Message message(1 + random() % 4);
        bool fine = true;
        for (std::string &line : message) {
            for (size_t length = random() % 5; length > 0; --length) {
                line += "\r\nab\r\n\0"[random() % (random() % 4 == 0 ? 7 : 4)];
            }
            fine = fine && can_be_sent(line, &line == message.data());
        }
        const std::string text = sent(message);
        EXPECT_EQ(text, fine ? framed(message) : "refused");
        if (fine) {
            ++arrived;
            EXPECT_EQ(parsed(text), message);
        }
    }
    EXPECT_GT(arrived, 100);
    EXPECT_LT(arrived, 2900);
}

TEST(SendMessageLines, AMessageOfEverySizeArrivesWhole) {
    for (const int count : {1, 2, 3, 511, 512, 513, 1024, 1025, 5000}) {
        const SocketPair pair;
        const int room = 4 << 20;
        setsockopt(pair.ours.fd, SOL_SOCKET, SO_SNDBUFFORCE, &room, sizeof room);
        const pid_t reader = fork();
        if (reader == 0) {
            std::string text(framed(numbers(count)).size(), '\0');
            recv(pair.theirs.fd, text.data(), text.size(), MSG_WAITALL);
            _exit(text == framed(numbers(count)) ? 0 : 1);
        }
        EXPECT_EQ(send_lines(pair.ours.fd, numbers(count)), 1);
        int status = 0;
        EXPECT_EQ(waitpid(reader, &status, 0), reader);
        EXPECT_EQ(status, 0) << count;
    }
}

#ifndef ZEL_SMALL_CONSTANTS
TEST(SendMessageLines, AsManyLinesLeaveInOneCallAsTheSystemTakes) {
    const SocketPair pair;
    std::vector<size_t> pieces;
    const Interposed counted(hook::sendmsg, [&pieces](int fd, const msghdr *message, int flags) {
        EXPECT_EQ(flags, MSG_NOSIGNAL);
        pieces.push_back(message->msg_iovlen);
        return hook::sendmsg.real(fd, message, flags);
    });
    EXPECT_EQ(send_lines(pair.ours.fd, numbers(512)), 1);
    EXPECT_EQ(pieces, (std::vector<size_t>{1024}));
    EXPECT_EQ(send_lines(pair.ours.fd, numbers(513)), 1);
    EXPECT_EQ(pieces, (std::vector<size_t>{1024, 1024, 2}));
}
#endif

TEST(SendMessageLines, PartialAndInterruptedSendsGoOn) {
    const SocketPair pair;
    const Message message = {"", "one", "\r", "three", "four and some more", "5"};
    int calls = 0;
    const Interposed partial(hook::sendmsg, [&calls](int fd, const msghdr *whole, int flags) -> ssize_t {
        ++calls;
        if (calls % 3 == 0) {
            errno = EINTR;
            return -1;
        }
        for (size_t at = 0; at < whole->msg_iovlen; ++at) {
            const iovec &piece = whole->msg_iov[at];
            if (piece.iov_len > 0) {
                return send(fd, piece.iov_base, std::min<size_t>(piece.iov_len, 1 + static_cast<size_t>(calls) % 2),
                            flags);
            }
        }
        return 0;
    });
    EXPECT_EQ(send_lines(pair.ours.fd, message), 1);
    EXPECT_EQ(waiting_on(pair.theirs.fd), framed(message));
}

TEST(SendMessageLines, EachFailedSendEndsTheCallWithItsError) {
    for (const int error : {EPIPE, ECONNRESET, EAGAIN, ENOBUFS}) {
        for (int nth = 0;; ++nth) {
            const SocketPair pair;
            const Interposed failing(hook::sendmsg, fail_nth(hook::sendmsg, nth, error, -1));
            if (send_lines(pair.ours.fd, numbers(20)) == 1) {
                EXPECT_GE(nth, 1);
                break;
            }
            EXPECT_EQ(errno, error);
        }
    }
}

TEST(SendMessageLines, APeerThatIsGoneIsAnErrorAndNoSignal) {
    const Outcome outcome = run_in_child([] {
        signal(SIGPIPE, SIG_DFL);
        SocketPair pair;
        pair.theirs.close();
        printf("%d", send_lines(pair.ours.fd, {"A"}));
        printf(" %d", errno == EPIPE ? 1 : 0);
    });
    EXPECT_EQ(outcome.out, "0 1");
    EXPECT_EQ(outcome.signal, 0);
}

TEST(SendMessageLines, ANonBlockingSocketThatIsFullIsAFailure) {
    const SocketPair pair;
    fcntl(pair.ours.fd, F_SETFL, O_NONBLOCK);
    const std::string large(8 << 20, 'x');
    EXPECT_EQ(send_lines(pair.ours.fd, {large}), 0);
    EXPECT_EQ(errno, EAGAIN);
}

TEST(SendMessageLines, TakesNoMemory) {
    const SocketPair pair;
    const Message message = numbers(100);
    const std::vector<PlatformLine> lines = lines_of(message);
    int blocks = 0;
    const Interposed taking(hook::malloc, [&blocks](size_t size) {
        ++blocks;
        return hook::malloc.real(size);
    });
    EXPECT_EQ(platform_send_message_lines(pair.ours.fd, lines.data(), 100), 1);
    EXPECT_EQ(blocks, 0);
}

} // namespace
