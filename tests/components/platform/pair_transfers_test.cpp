// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Whole transfers with a deadline: partial transfers, interruptions, both sides writing at once.
#include "pair_support.h"
#include "peer_process.h"

#include <components/platform/pair_control.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <poll.h>
#include <unistd.h>

using namespace zel::test;

namespace {

constexpr int32_t kLarge = 4 << 20; // far more than a socket holds
constexpr int32_t kLong = 20000;    // a time that no test lasts

using Clock = std::chrono::steady_clock;

int64_t milliseconds_since(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

std::string pattern(int32_t length, int seed = 0) {
    std::string bytes(static_cast<size_t>(length), '\0');
    for (size_t at = 0; at < bytes.size(); ++at) {
        bytes[at] = static_cast<char>(at * 7 + at / 251 + static_cast<size_t>(seed));
    }
    return bytes;
}

// Reads that many bytes by hand.
std::string read_from(int fd, int32_t length) {
    std::string bytes(static_cast<size_t>(length), '\0');
    const ssize_t count = recv(fd, bytes.data(), bytes.size(), MSG_WAITALL);
    bytes.resize(count < 0 ? 0 : static_cast<size_t>(count));
    return bytes;
}

bool write_to(int fd, const std::string &bytes) {
    for (size_t sent = 0; sent < bytes.size();) {
        const ssize_t count = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count < 1) {
            return false;
        }
        sent += static_cast<size_t>(count);
    }
    return true;
}

// All that waits on the peer's end.
int32_t waiting_at(int fd) {
    std::vector<char> piece(65536);
    int32_t total = 0;
    for (ssize_t count = 1; count > 0;) {
        count = recv(fd, piece.data(), piece.size(), MSG_DONTWAIT);
        total += count > 0 ? static_cast<int32_t>(count) : 0;
    }
    return total;
}

// The times that are tried, and both modes of the pair.
struct Way {
    int32_t milliseconds;
    bool blocking;
};

constexpr Way kWays[] = {{-1, true}, {-1, false}, {kLong, true}, {kLong, false}};

void set_mode(const LocalPair &pair, bool blocking) {
    if (!blocking) {
        add_mode(platform_pair_tx_fd(pair.ph), O_NONBLOCK);
    }
}

} // namespace

// ---- Sending --------------------------------------------------------------------------------------------------------

TEST(PairSendAll, MoreThanTheSocketHoldsArrivesWhole) {
    const std::string sent = pattern(kLarge);
    for (const Way way : kWays) {
        LocalPair pair;
        set_mode(pair, way.blocking);
        const PeerProcess peer(pair, [&](int fd) { return read_from(fd, kLarge) == sent; });
        int32_t moved = -1;
        EXPECT_EQ(platform_pair_send_all(pair.ph, sent.data(), kLarge, way.milliseconds, &moved), PLATFORM_PAIR_DONE);
        EXPECT_EQ(moved, kLarge);
        EXPECT_EQ(is_nonblocking(platform_pair_tx_fd(pair.ph)), !way.blocking) << "the mode stays";
        EXPECT_TRUE(peer.did_well());
    }
}

TEST(PairSendAll, ATimeOutTellsHowManyBytesWent) {
    const std::string sent = pattern(kLarge);
    for (const int32_t milliseconds : {0, 30}) {
        const LocalPair pair;
        int32_t moved = -1;
        const auto start = Clock::now();
        EXPECT_EQ(platform_pair_send_all(pair.ph, sent.data(), kLarge, milliseconds, &moved), PLATFORM_PAIR_TIMED_OUT);
        EXPECT_GE(milliseconds_since(start), milliseconds);
        EXPECT_GT(moved, 0);
        EXPECT_LT(moved, kLarge);
        EXPECT_EQ(waiting_at(pair.peer), moved);
        EXPECT_EQ(platform_pair_errno(pair.ph), 0);
    }
}

TEST(PairSendAll, AClosedPeerIsAnEndAndNoSignal) {
    const Outcome outcome = run_in_child([] {
        signal(SIGPIPE, SIG_DFL);
        LocalPair pair;
        pair.close_peer();
        int32_t moved = -1;
        printf("%d", platform_pair_send_all(pair.ph, "abc", 3, kLong, &moved));
        printf(" %d %d", moved, platform_pair_errno(pair.ph));
    });
    EXPECT_EQ(outcome.signal, 0);
    EXPECT_EQ(outcome.out, "0 0 0");
}

TEST(PairSendAll, APeerThatClosesInTheMiddleIsAnEnd) {
    const std::string sent = pattern(kLarge);
    for (const Way way : kWays) {
        LocalPair pair;
        set_mode(pair, way.blocking);
        const PeerProcess peer(pair, [](int fd) { return read_from(fd, 1000).size() == 1000; });
        EXPECT_EQ(platform_pair_send_all(pair.ph, sent.data(), kLarge, way.milliseconds, nullptr), PLATFORM_PAIR_ENDED);
        EXPECT_EQ(platform_pair_errno(pair.ph), 0);
    }
}

TEST(PairSendAll, ANegativeLengthIsRefusedWithoutACall) {
    const LocalPair pair;
    int calls = 0;
    const Interposed counting(hook::send, count_calls(hook::send, calls, 1));
    int32_t moved = -1;
    for (const int32_t length : {-1, INT32_MIN}) {
        pair.ph->error_number = 0;
        EXPECT_EQ(platform_pair_send_all(pair.ph, "x", length, 0, &moved), PLATFORM_PAIR_FAILED);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(platform_pair_errno(pair.ph), EINVAL);
        EXPECT_EQ(moved, 0);
    }
    EXPECT_EQ(calls, 0);
}

TEST(PairSendAll, NothingIsDoneAtOnce) {
    LocalPair pair;
    pair.close_peer();
    int32_t moved = -1;
    EXPECT_EQ(platform_pair_send_all(pair.ph, nullptr, 0, -1, &moved), PLATFORM_PAIR_DONE);
    EXPECT_EQ(moved, 0);
    EXPECT_EQ(platform_pair_recv_all(pair.ph, nullptr, 0, -1, nullptr), PLATFORM_PAIR_DONE);
    EXPECT_EQ(platform_pair_exchange(pair.ph, nullptr, 0, nullptr, 0, -1), PLATFORM_PAIR_DONE);
}

TEST(PairSendAll, AHandleThatNeverOpenedIsABadDescriptor) {
    PairHandle *ph = start_without_sockets();
    char byte = 0;
    for (const int32_t milliseconds : {-1, 0, kLong}) {
        EXPECT_EQ(platform_pair_send_all(ph, "x", 1, milliseconds, nullptr), PLATFORM_PAIR_FAILED);
        EXPECT_EQ(platform_pair_errno(ph), EBADF);
        EXPECT_EQ(platform_pair_recv_all(ph, &byte, 1, milliseconds, nullptr), PLATFORM_PAIR_FAILED);
        EXPECT_EQ(errno, EBADF);
        EXPECT_EQ(platform_pair_exchange(ph, "x", 1, &byte, 1, milliseconds), PLATFORM_PAIR_FAILED);
    }
    platform_pair_close(ph);
}

// ---- Receiving ------------------------------------------------------------------------------------------------------

TEST(PairRecvAll, PiecesBecomeOneWhole) {
    const std::string sent = pattern(kLarge);
    for (const Way way : kWays) {
        LocalPair pair;
        set_mode(pair, way.blocking);
        const PeerProcess peer(pair, [&](int fd) { return write_to(fd, sent); });
        std::string received(static_cast<size_t>(kLarge), '\0');
        int32_t moved = -1;
        EXPECT_EQ(platform_pair_recv_all(pair.ph, received.data(), kLarge, way.milliseconds, &moved),
                  PLATFORM_PAIR_DONE);
        EXPECT_EQ(moved, kLarge);
        EXPECT_TRUE(received == sent);
        EXPECT_EQ(is_nonblocking(platform_pair_rx_fd(pair.ph)), !way.blocking) << "the mode stays";
        EXPECT_TRUE(peer.did_well());
    }
}

TEST(PairRecvAll, TheEndOfTheStreamTellsWhatCameBefore) {
    for (const Way way : kWays) {
        LocalPair pair;
        set_mode(pair, way.blocking);
        ASSERT_EQ(send(pair.peer, "abc", 3, 0), 3);
        pair.close_peer();
        char bytes[8] = "";
        int32_t moved = -1;
        EXPECT_EQ(platform_pair_recv_all(pair.ph, bytes, 8, way.milliseconds, &moved), PLATFORM_PAIR_ENDED);
        EXPECT_EQ(moved, 3);
        EXPECT_STREQ(bytes, "abc");
        EXPECT_EQ(platform_pair_errno(pair.ph), 0);
    }
}

TEST(PairRecvAll, APeerThatLeftOurDataUnreadIsAnEnd) {
    LocalPair pair;
    ASSERT_EQ(platform_pair_send(pair.ph, "x", 1), 1);
    pair.close_peer();
    char byte;
    EXPECT_EQ(platform_pair_recv_all(pair.ph, &byte, 1, -1, nullptr), PLATFORM_PAIR_ENDED);
    EXPECT_EQ(platform_pair_errno(pair.ph), 0);
}

TEST(PairRecvAll, ATimeOutKeepsWhatCame) {
    for (const int32_t milliseconds : {0, 30}) {
        const LocalPair pair;
        ASSERT_EQ(send(pair.peer, "abc", 3, 0), 3);
        char bytes[8] = "";
        int32_t moved = -1;
        const auto start = Clock::now();
        EXPECT_EQ(platform_pair_recv_all(pair.ph, bytes, 8, milliseconds, &moved), PLATFORM_PAIR_TIMED_OUT);
        EXPECT_GE(milliseconds_since(start), milliseconds);
        EXPECT_EQ(moved, 3);
        EXPECT_STREQ(bytes, "abc");
        EXPECT_EQ(platform_pair_errno(pair.ph), 0);
    }
}

TEST(PairRecvAll, APeerThatNeverPausesDoesNotProlongTheTime) {
    const LocalPair pair;
    long now = 0;
    const Interposed clock(hook::clock_gettime, [&now](clockid_t, timespec *time) {
        now += 10; // milliseconds pass at each look
        *time = {.tv_sec = now / 1000, .tv_nsec = now % 1000 * 1000000};
        return 0;
    });
    int receives = 0;
    const Interposed dripping(hook::recv, [&receives](int, void *buffer, size_t, int) -> ssize_t {
        ++receives;
        *static_cast<char *>(buffer) = 'x';
        return 1;
    });
    ASSERT_EQ(send(pair.peer, "y", 1, 0), 1); // the socket is readable all the time
    std::string received(1000, '\0');
    EXPECT_EQ(platform_pair_recv_all(pair.ph, received.data(), 1000, 100, nullptr), PLATFORM_PAIR_TIMED_OUT);
    EXPECT_LE(receives, 12);
}

TEST(PairRecvAll, WithoutALimitItIsOneBlockingReceive) {
    const LocalPair pair;
    ASSERT_EQ(send(pair.peer, "abcd", 4, 0), 4);
    std::string calls;
    const Interposed recorded(hook::recv, [&](int fd, void *buffer, size_t length, int flags) {
        calls += flags == MSG_WAITALL ? "blocking;" : "other;";
        return hook::recv.real(fd, buffer, length, flags);
    });
    char bytes[4];
    EXPECT_EQ(platform_pair_recv_all(pair.ph, bytes, 4, -1, nullptr), PLATFORM_PAIR_DONE);
    EXPECT_EQ(calls, "blocking;");
}

TEST(PairRecvAll, ADamagedHandleIsAnAssertion) {
    for (const auto &call : std::initializer_list<std::function<void(PairHandle *)>>{
             [](PairHandle *ph) { platform_pair_recv_all(ph, nullptr, 0, 0, nullptr); },
             [](PairHandle *ph) { platform_pair_send_all(ph, nullptr, 0, 0, nullptr); },
             [](PairHandle *ph) { platform_pair_exchange(ph, nullptr, 0, nullptr, 0, 0); }}) {
        PairHandle damaged = sample_record(1);
        const Outcome outcome = run_in_child([&] { call(&damaged); });
        EXPECT_EQ(outcome.signal, SIGABRT);
        EXPECT_NE(outcome.err.find("Assertion `platform_pair_valid(ph)' failed"), std::string::npos);
    }
}

// ---- Both directions ------------------------------------------------------------------------------------------------

TEST(PairExchange, BothSidesMayWriteMoreThanTheSocketsHold) {
    const std::string question = pattern(kLarge, 1);
    const std::string answer = pattern(kLarge, 2);
    for (const Way way : kWays) {
        LocalPair pair;
        set_mode(pair, way.blocking);
        // The peer writes its whole answer before it reads anything.
        const PeerProcess peer(pair, [&](int fd) { return write_to(fd, answer) && read_from(fd, kLarge) == question; });
        std::string received(static_cast<size_t>(kLarge), '\0');
        EXPECT_EQ(platform_pair_exchange(pair.ph, question.data(), kLarge, received.data(), kLarge, way.milliseconds),
                  PLATFORM_PAIR_DONE);
        EXPECT_TRUE(received == answer);
        EXPECT_TRUE(peer.did_well());
    }
}

TEST(PairExchange, TwoThatExchangeAtOnceBothComeToTheEnd) {
    const std::string ours = pattern(kLarge, 1);
    const std::string theirs = pattern(kLarge, 2);
    PairHandle *ph = start({.companion = "pair_exchanger"});
    std::string received(static_cast<size_t>(kLarge), '\0');
    send_value(ph, kLarge);
    EXPECT_EQ(platform_pair_exchange(ph, ours.data(), kLarge, received.data(), kLarge, kLong), PLATFORM_PAIR_DONE);
    EXPECT_EQ(received, std::string(static_cast<size_t>(kLarge), 'e'));
    EXPECT_EQ(finish(ph), kServed);
}

TEST(PairExchange, AQuestionAndItsAnswerTakeOneSendOnePollAndOneReceive) {
    LocalPair pair;
    const PeerProcess peer(pair, [](int fd) { return read_from(fd, 3) == "abc" && write_to(fd, "defg"); });
    std::string calls;
    const Interposed sends(hook::send, [&](int fd, const void *data, size_t length, int flags) {
        calls += "send;";
        return hook::send.real(fd, data, length, flags);
    });
    const Interposed polls(hook::ppoll, [&](pollfd *entries, nfds_t count, const timespec *time, const sigset_t *mask) {
        calls += "poll;";
        return hook::ppoll.real(entries, count, time, mask);
    });
    const Interposed receives(hook::recv, [&](int fd, void *data, size_t length, int flags) {
        calls += "recv;";
        return hook::recv.real(fd, data, length, flags);
    });
    char answer[4];
    EXPECT_EQ(platform_pair_exchange(pair.ph, "abc", 3, answer, 4, kLong), PLATFORM_PAIR_DONE);
    EXPECT_EQ(std::string(answer, 4), "defg");
    EXPECT_EQ(calls, "send;poll;recv;");
    EXPECT_TRUE(peer.did_well());
}

TEST(PairExchange, ACompanionThatDoesNotAnswerIsATimeOut) {
    const LocalPair pair;
    char answer[4];
    const auto start = Clock::now();
    EXPECT_EQ(platform_pair_exchange(pair.ph, "abc", 3, answer, 4, 30), PLATFORM_PAIR_TIMED_OUT);
    EXPECT_GE(milliseconds_since(start), 30);
    EXPECT_EQ(waiting_at(pair.peer), 3);
}

TEST(PairExchange, ACompanionThatEndsIsAnEnd) {
    const std::string question = pattern(kLarge);
    for (const Way way : kWays) {
        for (const int32_t length : {4, kLarge}) {
            LocalPair pair;
            set_mode(pair, way.blocking);
            const PeerProcess peer(pair, [](int fd) { return read_from(fd, 4).size() == 4 && write_to(fd, "a"); });
            char answer[2];
            EXPECT_EQ(platform_pair_exchange(pair.ph, question.data(), length, answer, 2, way.milliseconds),
                      PLATFORM_PAIR_ENDED);
        }
    }
}

TEST(PairExchange, AHandleWithOneEndMissingFails) {
    LocalPair pair;
    const int end = pair.ph->rx_fd;
    pair.ph->rx_fd = -1;
    char answer;
    EXPECT_EQ(platform_pair_exchange(pair.ph, "a", 1, &answer, 1, -1), PLATFORM_PAIR_FAILED);
    EXPECT_EQ(platform_pair_errno(pair.ph), EBADF);
    EXPECT_EQ(waiting_at(pair.peer), 0) << "nothing was sent";
    EXPECT_EQ(platform_pair_send_all(pair.ph, "a", 1, -1, nullptr), PLATFORM_PAIR_DONE) << "the other end serves";
    pair.ph->rx_fd = end;
}

TEST(PairExchange, ANegativeLengthOfEitherIsRefused) {
    const LocalPair pair;
    char byte = 0;
    EXPECT_EQ(platform_pair_exchange(pair.ph, &byte, -1, &byte, 1, 0), PLATFORM_PAIR_FAILED);
    EXPECT_EQ(platform_pair_exchange(pair.ph, &byte, 1, &byte, -1, 0), PLATFORM_PAIR_FAILED);
    EXPECT_EQ(platform_pair_errno(pair.ph), EINVAL);
    EXPECT_EQ(waiting_at(pair.peer), 0);
}

// ---- Signals and failures -------------------------------------------------------------------------------------------

TEST(PairTransferSignals, ShortenNoTransferAndNoTime) {
    const std::string bytes = pattern(kLarge);
    for (const int32_t milliseconds : {-1, kLong}) {
        const Outcome outcome = run_in_child([&] {
            LocalPair pair;
            const PeerProcess peer(pair, [&](int fd) { return read_from(fd, kLarge) == bytes && write_to(fd, bytes); });
            start_timer_signals([](int) {}, 200);
            std::string back(static_cast<size_t>(kLarge), '\0');
            int32_t moved = 0;
            printf("%d", platform_pair_send_all(pair.ph, bytes.data(), kLarge, milliseconds, &moved));
            printf("%d", platform_pair_recv_all(pair.ph, back.data(), kLarge, milliseconds, &moved));
            printf("%d", back == bytes ? 1 : 0);
            const auto start = Clock::now();
            char byte;
            LocalPair quiet;
            printf("%d", platform_pair_recv_all(quiet.ph, &byte, 1, 50, nullptr));
            const int64_t taken = milliseconds_since(start);
            printf(" %s", taken >= 50 && taken < 5000 ? "in time" : "late");
        });
        EXPECT_EQ(outcome.out, "111-2 in time");
        EXPECT_EQ(outcome.signal, 0);
    }
}

namespace {

// What a call that fails once at its n-th use makes of an exchange.
int exchange_failing(int nth, int error, const std::function<int(PairHandle *)> &exchange) {
    LocalPair pair;
    const PeerProcess peer(pair, [](int fd) {
        const bool asked = read_from(fd, 3) == "abc";
        return asked && write_to(fd, "defg");
    });
    const Interposed sends(hook::send, fail_nth(hook::send, nth, error, -1));
    const int result = exchange(pair.ph);
    EXPECT_EQ(platform_pair_errno(pair.ph), result == PLATFORM_PAIR_FAILED ? error : 0);
    return result;
}

} // namespace

TEST(PairTransferFailures, AFailedSendIsReportedAsWhatItIs) {
    const auto exchange = [](PairHandle *ph) {
        char answer[4];
        return platform_pair_exchange(ph, "abc", 3, answer, 4, kLong);
    };
    EXPECT_EQ(exchange_failing(0, EIO, exchange), PLATFORM_PAIR_FAILED);
    EXPECT_EQ(exchange_failing(0, ENOBUFS, exchange), PLATFORM_PAIR_FAILED);
    EXPECT_EQ(exchange_failing(0, EPIPE, exchange), PLATFORM_PAIR_ENDED);
    EXPECT_EQ(exchange_failing(0, ECONNRESET, exchange), PLATFORM_PAIR_ENDED);
    EXPECT_EQ(exchange_failing(0, EINTR, exchange), PLATFORM_PAIR_DONE);
    EXPECT_EQ(exchange_failing(0, EAGAIN, exchange), PLATFORM_PAIR_DONE);
    EXPECT_EQ(exchange_failing(1, EIO, exchange), PLATFORM_PAIR_DONE) << "there is no second send";
}

TEST(PairTransferFailures, AFailedReceiveOrPollIsKeptInTheHandle) {
    for (const int32_t milliseconds : {-1, kLong}) {
        const LocalPair pair;
        ASSERT_EQ(send(pair.peer, "ab", 2, 0), 2);
        char byte;
        {
            const Interposed failing(hook::recv, fail_nth(hook::recv, 0, EIO, -1));
            EXPECT_EQ(platform_pair_recv_all(pair.ph, &byte, 1, milliseconds, nullptr), PLATFORM_PAIR_FAILED);
            EXPECT_EQ(platform_pair_errno(pair.ph), EIO);
        }
        const Interposed again(hook::recv, fail_nth(hook::recv, 0, EAGAIN, -1));
        const Interposed failing(hook::ppoll, fail_nth(hook::ppoll, 0, ENOMEM, -1));
        EXPECT_EQ(platform_pair_recv_all(pair.ph, &byte, 1, milliseconds, nullptr), PLATFORM_PAIR_FAILED);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_EQ(platform_pair_errno(pair.ph), ENOMEM);
        EXPECT_EQ(platform_pair_recv_all(pair.ph, &byte, 1, milliseconds, nullptr), PLATFORM_PAIR_DONE);
    }
}

TEST(PairTransferFailures, NoStepLeavesAnythingBehindWhenItFails) {
    const std::set<int> before = open_descriptors();
    for (int nth = 0; nth < 4; ++nth) {
        const LocalPair pair;
        ASSERT_EQ(send(pair.peer, "defg", 4, 0), 4);
        const Interposed sends(hook::send, fail_nth(hook::send, nth, EIO, -1));
        const Interposed receives(hook::recv, fail_nth(hook::recv, nth - 1, EIO, -1));
        const Interposed polls(hook::ppoll, fail_nth(hook::ppoll, nth - 2, EIO, -1));
        int blocks = 0;
        const Interposed taking(hook::malloc, [&blocks](size_t size) {
            ++blocks;
            return hook::malloc.real(size);
        });
        char answer[4];
        const int result = platform_pair_exchange(pair.ph, "abc", 3, answer, 4, kLong);
        EXPECT_EQ(result, nth < 3 ? PLATFORM_PAIR_FAILED : PLATFORM_PAIR_DONE) << nth;
        EXPECT_EQ(blocks, 0);
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST(PairTransferDescriptor, ANumberAboveAnySetIsWaitedFor) {
    const LocalPair pair;
    const int high = fcntl(platform_pair_rx_fd(pair.ph), F_DUPFD_CLOEXEC, 1500);
    ASSERT_GE(high, 1500);
    const int low = pair.ph->rx_fd;
    pair.ph->rx_fd = pair.ph->tx_fd = high;
    char byte;
    EXPECT_EQ(platform_pair_recv_all(pair.ph, &byte, 1, 10, nullptr), PLATFORM_PAIR_TIMED_OUT);
    EXPECT_EQ(platform_pair_send_all(pair.ph, "x", 1, 10, nullptr), PLATFORM_PAIR_DONE);
    pair.ph->rx_fd = pair.ph->tx_fd = low;
    close(high);
}
