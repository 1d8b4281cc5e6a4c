// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Sending and receiving over an open handle.
#include "pair_support.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

using namespace zel::test;

namespace {

// SIGPIPE ignored for the scope of a test.
class SigpipeIgnored {
public:
    SigpipeIgnored() : before_(signal(SIGPIPE, SIG_IGN)) {}
    ~SigpipeIgnored() { signal(SIGPIPE, before_); }
    SigpipeIgnored(const SigpipeIgnored &) = delete;
    SigpipeIgnored &operator=(const SigpipeIgnored &) = delete;

private:
    sighandler_t before_;
};

// Sends until nothing more goes in.
void fill(PairHandle *ph) {
    add_mode(platform_pair_tx_fd(ph), O_NONBLOCK);
    char data[4096] = {};
    while (platform_pair_send(ph, data, sizeof data) > 0) {
    }
}

// The error that is left in the handle by a transfer that waits and is interrupted.
std::string kept_after_interruption(void (*transfer)(PairHandle *ph)) {
    const Outcome outcome = run_in_child([transfer] {
        const LocalPair pair;
        fill(pair.ph);
        fcntl(platform_pair_tx_fd(pair.ph), F_SETFL, 0);
        start_timer_signals([](int) {}, 1000);
        transfer(pair.ph);
        printf("%d", platform_pair_errno(pair.ph));
    });
    EXPECT_EQ(outcome.signal, 0);
    return outcome.out;
}

// The error that a failing send or receive leaves in a handle that held another one before.
int32_t kept_of_send(int error, ssize_t result) {
    const LocalPair pair;
    pair.ph->error_number = 77;
    const Interposed failing(hook::send, fail_always(hook::send, error, result));
    EXPECT_EQ(platform_pair_send(pair.ph, "x", 1), 0);
    return platform_pair_errno(pair.ph);
}

int32_t kept_of_recv(int error) {
    const LocalPair pair;
    pair.ph->error_number = 77;
    const Interposed failing(hook::recv, fail_always(hook::recv, error, -1));
    char byte;
    EXPECT_EQ(platform_pair_recv(pair.ph, &byte, 1), 0);
    return platform_pair_errno(pair.ph);
}

} // namespace

TEST(PairSend, TheBytesArriveAndAreCounted) {
    const LocalPair pair;
    EXPECT_EQ(platform_pair_send(pair.ph, "one two", 7), 7);
    char text[16] = "";
    EXPECT_EQ(recv(pair.peer, text, sizeof text, 0), 7);
    EXPECT_STREQ(text, "one two");
    EXPECT_EQ(platform_pair_errno(pair.ph), 0);
}

TEST(PairSend, IsOneSendWithoutFlagsOnTheWriteDescriptor) {
    LocalPair pair;
    const int real_end = pair.ph->tx_fd;
    pair.ph->tx_fd = 4711;
    std::string calls;
    const char data[] = "abc";
    {
        const Interposed recorded(hook::send, [&](int fd, const void *buffer, size_t length, int flags) -> ssize_t {
            calls += std::to_string(fd) + (buffer == data ? " data " : " other ") + std::to_string(length) + " " +
                     std::to_string(flags) + ";";
            return 2;
        });
        EXPECT_EQ(platform_pair_send(pair.ph, data, 3), 2) << "a part is a result";
    }
    EXPECT_EQ(calls, "4711 data 3 0;");
    pair.ph->tx_fd = real_end;
}

TEST(PairSend, MoreThanThePairHoldsIsSentInPart) {
    const LocalPair pair;
    add_mode(platform_pair_tx_fd(pair.ph), O_NONBLOCK);
    const std::vector<char> data(16 * 1024 * 1024);
    const int32_t sent = platform_pair_send(pair.ph, data.data(), static_cast<int32_t>(data.size()));
    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, static_cast<int32_t>(data.size()));
}

TEST(PairSend, WhatWouldBlockIsZeroAndLeavesTheErrorAsItWas) {
    const LocalPair pair;
    fill(pair.ph);
    EXPECT_EQ(platform_pair_send(pair.ph, "x", 1), 0);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(platform_pair_errno(pair.ph), 0);
    pair.ph->error_number = EINTR;
    EXPECT_EQ(platform_pair_send(pair.ph, "x", 1), 0);
    EXPECT_EQ(platform_pair_errno(pair.ph), EINTR);
}

TEST(PairSend, AClosedPeerIsABrokenPipeWhenTheSignalIsIgnored) {
    const SigpipeIgnored ignored;
    LocalPair pair;
    pair.close_peer();
    EXPECT_EQ(platform_pair_send(pair.ph, "x", 1), 0);
    EXPECT_EQ(platform_pair_errno(pair.ph), EPIPE);
    EXPECT_EQ(platform_pair_ok(pair.ph), 0);
}

TEST(PairSend, AClosedPeerIsASignalUnlessTheParentIgnoresIt) {
    for (const int ignore : {0, 1}) {
        const Outcome outcome = run_in_child([ignore] {
            PairHandle *ph = start({.companion = "pair_ender", .ignore_sigpipe = ignore});
            send_value(ph, 0);
            wait_until_ended(ph->companion_pid);
            platform_pair_send(ph, "x", 1);
            printf("%d\n", platform_pair_errno(ph));
            finish(ph);
        });
        EXPECT_EQ(outcome.signal, ignore == 0 ? SIGPIPE : 0);
        EXPECT_EQ(outcome.out, ignore == 0 ? "" : std::to_string(EPIPE) + "\n");
    }
}

TEST(PairSend, EveryErrorButAgainIsKept) {
    EXPECT_EQ(kept_of_send(EINTR, -1), EINTR);
    EXPECT_EQ(kept_of_send(ECONNRESET, -1), ECONNRESET);
    EXPECT_EQ(kept_of_send(EAGAIN, -1), 77);
}

TEST(PairSend, ZeroBytesCountAsAFailure) {
    EXPECT_EQ(kept_of_send(ENOENT, 0), ENOENT) << "the system's error as it stands";
    EXPECT_EQ(kept_of_send(EAGAIN, 0), 77);
    const LocalPair pair;
    errno = EXDEV;
    EXPECT_EQ(platform_pair_send(pair.ph, "", 0), 0);
    EXPECT_EQ(platform_pair_errno(pair.ph), EXDEV);
}

TEST(PairSend, ANegativeLengthIsRefusedWithoutACall) {
    const LocalPair pair;
    int calls = 0;
    const Interposed counting(hook::send, count_calls(hook::send, calls, 1));
    for (const int32_t length : {-1, INT32_MIN}) {
        pair.ph->error_number = 0;
        EXPECT_EQ(platform_pair_send(pair.ph, "x", length), 0);
        EXPECT_EQ(platform_pair_errno(pair.ph), EINVAL);
    }
    EXPECT_EQ(calls, 0);
}

TEST(PairSend, AHandleThatNeverOpenedHasABadDescriptor) {
    PairHandle *ph = start_without_sockets();
    EXPECT_EQ(platform_pair_send(ph, "x", 1), 0);
    EXPECT_EQ(platform_pair_errno(ph), EBADF);
    platform_pair_close(ph);
}

TEST(PairSend, AnInterruptedSendIsNotTriedAgain) {
    EXPECT_EQ(kept_after_interruption([](PairHandle *ph) { platform_pair_send(ph, "x", 1); }), std::to_string(EINTR));
}

TEST(PairSend, ASuccessLeavesTheErrorAsItWas) {
    const LocalPair pair;
    pair.ph->error_number = EINTR;
    EXPECT_EQ(platform_pair_send(pair.ph, "x", 1), 1);
    EXPECT_EQ(platform_pair_errno(pair.ph), EINTR);
}

TEST(PairRecv, TheBytesThatAreThereAreAResult) {
    const LocalPair pair;
    ASSERT_EQ(send(pair.peer, "abcdef", 6, 0), 6);
    char text[16] = "";
    EXPECT_EQ(platform_pair_recv(pair.ph, text, 4), 4);
    EXPECT_STREQ(text, "abcd");
    EXPECT_EQ(platform_pair_recv(pair.ph, text, sizeof text), 2);
    EXPECT_EQ(memcmp(text, "ef", 2), 0);
}

TEST(PairRecv, IsOneReceiveWithoutFlagsOnTheReadDescriptor) {
    LocalPair pair;
    const int real_end = pair.ph->rx_fd;
    pair.ph->rx_fd = 4711;
    std::string calls;
    char data[3];
    {
        const Interposed recorded(hook::recv, [&](int fd, void *buffer, size_t length, int flags) -> ssize_t {
            calls += std::to_string(fd) + (buffer == data ? " data " : " other ") + std::to_string(length) + " " +
                     std::to_string(flags) + ";";
            return 1;
        });
        EXPECT_EQ(platform_pair_recv(pair.ph, data, 3), 1);
    }
    EXPECT_EQ(calls, "4711 data 3 0;");
    pair.ph->rx_fd = real_end;
}

TEST(PairRecv, TheEndOfTheStreamIsZeroAndNoError) {
    LocalPair pair;
    pair.close_peer();
    pair.ph->error_number = 77;
    char byte;
    errno = EXDEV;
    EXPECT_EQ(platform_pair_recv(pair.ph, &byte, 1), 0);
    EXPECT_EQ(platform_pair_errno(pair.ph), 77);
}

TEST(PairRecv, WhatIsSentBeforeTheEndIsReceivedBeforeIt) {
    LocalPair pair;
    ASSERT_EQ(send(pair.peer, "z", 1, 0), 1);
    pair.close_peer();
    char byte = 0;
    EXPECT_EQ(platform_pair_recv(pair.ph, &byte, 1), 1);
    EXPECT_EQ(byte, 'z');
    EXPECT_EQ(platform_pair_recv(pair.ph, &byte, 1), 0);
    EXPECT_EQ(platform_pair_errno(pair.ph), 0);
}

TEST(PairRecv, ZeroBytesAreAResult) {
    const LocalPair pair;
    ASSERT_EQ(send(pair.peer, "z", 1, 0), 1);
    char byte = 0;
    errno = EXDEV;
    EXPECT_EQ(platform_pair_recv(pair.ph, &byte, 0), 0);
    EXPECT_EQ(platform_pair_errno(pair.ph), 0);
}

TEST(PairRecv, AnEmptyNonBlockingPairIsZeroAndLeavesTheErrorAsItWas) {
    const LocalPair pair;
    add_mode(platform_pair_rx_fd(pair.ph), O_NONBLOCK);
    char byte;
    EXPECT_EQ(platform_pair_recv(pair.ph, &byte, 1), 0);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(platform_pair_errno(pair.ph), 0);
}

TEST(PairRecv, EveryErrorButAgainIsKept) {
    EXPECT_EQ(kept_of_recv(EINTR), EINTR);
    EXPECT_EQ(kept_of_recv(EIO), EIO);
    EXPECT_EQ(kept_of_recv(EAGAIN), 77);
}

TEST(PairRecv, APeerThatLeavesUnreadDataResetsTheConnection) {
    LocalPair pair;
    ASSERT_EQ(platform_pair_send(pair.ph, "x", 1), 1);
    pair.close_peer();
    char byte;
    EXPECT_EQ(platform_pair_recv(pair.ph, &byte, 1), 0);
    EXPECT_EQ(platform_pair_errno(pair.ph), ECONNRESET);
}

TEST(PairRecv, AnInterruptedReceiveIsNotTriedAgain) {
    EXPECT_EQ(kept_after_interruption([](PairHandle *ph) {
                  char byte;
                  platform_pair_recv(ph, &byte, 1);
              }),
              std::to_string(EINTR));
}

TEST(PairRecv, ANegativeLengthIsRefusedWithoutACall) {
    const LocalPair pair;
    int calls = 0;
    const Interposed counting(hook::recv, count_calls(hook::recv, calls, 1));
    char byte;
    EXPECT_EQ(platform_pair_recv(pair.ph, &byte, -1), 0);
    EXPECT_EQ(platform_pair_errno(pair.ph), EINVAL);
    EXPECT_EQ(calls, 0);
}

TEST(PairTransfer, WritesNoMessageAboutAnError) {
    const Outcome outcome = run_in_child([] {
        const LocalPair pair;
        pair.ph->rx_fd = pair.ph->tx_fd = -1;
        char byte = 0;
        platform_pair_recv(pair.ph, &byte, 1);
        platform_pair_send(pair.ph, &byte, 1);
    });
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "");
}
