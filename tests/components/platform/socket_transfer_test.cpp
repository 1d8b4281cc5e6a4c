// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Receiving with a wait, sending all, the guarded receive, and the blocking mode.
#include "socket_support.h"

#include <support/interpose.h>

#include <algorithm>
#include <array>
#include <fcntl.h>

namespace {

using namespace zel::test;
namespace hook = zel::test::hook;

constexpr int32_t kRoom = 8;

// A receive of at most 8 bytes.
struct Received {
    std::array<char, kRoom> bytes = {};
    int run(int socket, int wait, PlatformIdle idle = nullptr) {
        return platform_select_recv(socket, bytes.data(), kRoom, wait, idle);
    }
};

TEST(SelectRecv, ReturnsTheCountOfWhatIsThere) {
    const SocketPair pair;
    Received received;
    send_text(pair.theirs.fd, "abc");
    EXPECT_EQ(received.run(pair.ours.fd, 0), 3);
    EXPECT_STREQ(received.bytes.data(), "abc");
    send_text(pair.theirs.fd, "0123456789");
    EXPECT_EQ(received.run(pair.ours.fd, 1), 8);
    EXPECT_EQ(waiting_on(pair.ours.fd), "89");
}

TEST(SelectRecv, ALengthBelowOneReturnsZeroWithoutWaiting) {
    Idle idle;
    char byte = 'x';
    EXPECT_EQ(platform_select_recv(-1, &byte, 0, 1, run_idle), 0);
    EXPECT_EQ(platform_select_recv(-1, &byte, -1, 1, run_idle), 0);
    EXPECT_EQ(idle.calls, 0);
}

TEST(SelectRecv, WithoutWaitingReturnsMinusTwoWhenNothingIsThere) {
    const SocketPair pair;
    Idle idle;
    Received received;
    EXPECT_EQ(received.run(pair.ours.fd, 0, run_idle), -2);
    EXPECT_EQ(idle.calls, 1);
}

TEST(SelectRecv, APeerThatHasClosedIsMinusOne) {
    SocketPair pair;
    Received received;
    pair.theirs.close();
    EXPECT_EQ(received.run(pair.ours.fd, 0), -1);
    EXPECT_EQ(received.run(pair.ours.fd, 1), -1);
}

TEST(SelectRecv, AFailedReceiveIsMinusOneWithoutASecondTry) {
    const SocketPair pair;
    send_text(pair.theirs.fd, "abc");
    for (const int error : {EINTR, EAGAIN, ECONNRESET}) {
        int calls = 0;
        const Interposed failing(hook::recv, [&calls, error](int, void *, size_t, int) -> ssize_t {
            ++calls;
            errno = error;
            return -1;
        });
        Received received;
        EXPECT_EQ(received.run(pair.ours.fd, 1), -1);
        EXPECT_EQ(errno, error);
        EXPECT_EQ(calls, 1);
    }
}

TEST(SelectRecv, ReceivesWithTheBufferItWasGivenAndFlagsZero) {
    const SocketPair pair;
    Received received;
    send_text(pair.theirs.fd, "abc");
    const Interposed looking(hook::recv, [&](int fd, void *buffer, size_t length, int flags) -> ssize_t {
        EXPECT_EQ(fd, pair.ours.fd);
        EXPECT_EQ(buffer, received.bytes.data());
        EXPECT_EQ(length, 8U);
        EXPECT_EQ(flags, 0);
        return 5;
    });
    EXPECT_EQ(received.run(pair.ours.fd, 1), 5);
}

TEST(SelectRecv, WaitsForReadingInStepsOfATenthOfASecond) {
    const SocketPair pair;
    Received received;
    int calls = 0;
    const Interposed looking(hook::select,
                             [&](int count, fd_set *readable, fd_set *writable, fd_set *exceptional, timeval *timeout) {
                                 EXPECT_EQ(count, pair.ours.fd + 1);
                                 EXPECT_TRUE(FD_ISSET(pair.ours.fd, readable));
                                 EXPECT_EQ(writable, nullptr);
                                 EXPECT_EQ(exceptional, nullptr);
                                 EXPECT_EQ(timeout->tv_sec, 0);
                                 EXPECT_EQ(timeout->tv_usec, 100000);
                                 *timeout = {.tv_sec = 0, .tv_usec = 0}; // as the system does when the time is over
                                 FD_ZERO(readable);
                                 if (++calls == 3) {
                                     send_text(pair.theirs.fd, "abc");
                                 }
                                 return calls == 4 ? 1 : 0;
                             });
    EXPECT_EQ(received.run(pair.ours.fd, 1), 3);
    EXPECT_EQ(calls, 4);
}

TEST(SelectRecv, WithoutWaitingPollsOnceWithATimeOutOfZero) {
    const SocketPair pair;
    Received received;
    int calls = 0;
    const Interposed looking(hook::select, [&calls](int, fd_set *, fd_set *, fd_set *, timeval *timeout) {
        ++calls;
        EXPECT_EQ(timeout->tv_sec, 0);
        EXPECT_EQ(timeout->tv_usec, 0);
        return 0;
    });
    EXPECT_EQ(received.run(pair.ours.fd, 0), -2);
    EXPECT_EQ(calls, 1);
}

TEST(SelectRecv, IdleRunsAfterEveryWaitWhetherOrNotInputCame) {
    const SocketPair pair;
    Received received;
    Idle idle;
    int waits = 0;
    const Interposed counting(hook::select, [&](int, fd_set *, fd_set *, fd_set *, timeval *) {
        EXPECT_EQ(idle.calls, waits);
        ++waits;
        errno = EINTR;
        return std::array{0, -1, 0, 1}[static_cast<size_t>(waits) - 1];
    });
    send_text(pair.theirs.fd, "abc");
    EXPECT_EQ(received.run(pair.ours.fd, 1, run_idle), 3);
    EXPECT_EQ(waits, 4);
    EXPECT_EQ(idle.calls, 4);
}

TEST(SelectRecv, AnInterruptedWaitIsRepeatedAndErrnoCleared) {
    for (const int error : {EINTR, EAGAIN, 0}) {
        for (const int wait : {0, 1}) {
            const SocketPair pair;
            Received received;
            send_text(pair.theirs.fd, "abc");
            const Interposed failing(hook::select, fail_nth(hook::select, 0, error, -1));
            EXPECT_EQ(received.run(pair.ours.fd, wait), 3);
            EXPECT_EQ(errno, 0);
        }
    }
}

TEST(SelectRecv, AnIdleFunctionThatChangesErrnoDoesNotHideWhyTheWaitFailed) {
    const Outcome outcome = run_with_reports([] {
        const Idle idle([](int) { errno = EINTR; });
        Received received;
        printf("%d\n", received.run(-1, 1, run_idle));
    });
    EXPECT_EQ(outcome.out, "select failed: Bad file descriptor\n-1\n");
}

TEST(SelectRecv, AFailedWaitIsReportedAndMinusOne) {
    const Outcome outcome = run_with_reports([] {
        const SocketPair pair;
        const Interposed failing(hook::select, fail_always(hook::select, ENOMEM, -1));
        Received received;
        const int result = received.run(pair.ours.fd, 1);
        printf("%d %d\n", result, errno == ENOMEM);
    });
    EXPECT_EQ(outcome.out, "select failed: Cannot allocate memory\n-1 1\n");
}

TEST(SelectRecv, ADescriptorThatIsNotOpenIsReported) {
    const Outcome outcome = run_with_reports([] {
        SocketPair pair;
        const int closed = pair.ours.fd;
        pair.ours.close();
        Received received;
        const int result = received.run(closed, 0);
        printf("%d %d\n", result, errno == EBADF);
    });
    EXPECT_EQ(outcome.out, "select failed: Bad file descriptor\n-1 1\n");
}

TEST(SendAll, ReturnsTheTotal) {
    const SocketPair pair;
    EXPECT_EQ(platform_send_all(pair.ours.fd, "abcdef", 6), 6);
    EXPECT_EQ(waiting_on(pair.theirs.fd), "abcdef");
}

TEST(SendAll, ContinuesPartialSends) {
    const SocketPair pair;
    std::vector<size_t> lengths;
    const Interposed stingy(hook::send, [&lengths](int fd, const void *buffer, size_t length, int flags) {
        EXPECT_EQ(flags, MSG_NOSIGNAL);
        lengths.push_back(length);
        return hook::send.real(fd, buffer, std::min<size_t>(length, 4), flags);
    });
    EXPECT_EQ(platform_send_all(pair.ours.fd, "0123456789", 10), 10);
    EXPECT_EQ(lengths, (std::vector<size_t>{10, 6, 2}));
    EXPECT_EQ(waiting_on(pair.theirs.fd), "0123456789");
}

TEST(SendAll, AnInterruptedSendIsAFailure) {
    const SocketPair pair;
    const Interposed failing(hook::send, fail_nth(hook::send, 0, EINTR, -1));
    EXPECT_EQ(platform_send_all(pair.ours.fd, "abc", 3), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(waiting_on(pair.theirs.fd), "");
}

TEST(SendAll, AnInterruptionAfterAPartIsAFailure) {
    const SocketPair pair;
    int calls = 0;
    const Interposed failing(hook::send, [&calls](int fd, const void *buffer, size_t, int flags) -> ssize_t {
        if (++calls == 2) {
            errno = EINTR;
            return -1;
        }
        return hook::send.real(fd, buffer, 2, flags);
    });
    EXPECT_EQ(platform_send_all(pair.ours.fd, "abcdef", 6), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(waiting_on(pair.theirs.fd), "ab");
}

TEST(SendAll, TheFirstFailedSendIsMinusOneAlsoAfterAPart) {
    const SocketPair pair;
    int calls = 0;
    const Interposed failing(hook::send, [&calls](int fd, const void *buffer, size_t, int flags) -> ssize_t {
        if (++calls == 1) {
            return hook::send.real(fd, buffer, 2, flags);
        }
        errno = ECONNRESET;
        return -1;
    });
    EXPECT_EQ(platform_send_all(pair.ours.fd, "abcdef", 6), -1);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_EQ(calls, 2);
}

TEST(SendAll, AClosedPeerIsAnErrorAndNoSignal) {
    SocketPair pair;
    pair.theirs.close();
    EXPECT_EQ(platform_send_all(pair.ours.fd, "abc", 3), -1);
    EXPECT_EQ(errno, EPIPE);
}

TEST(SendAll, ANonBlockingSocketThatIsFullIsAFailure) {
    const SocketPair pair;
    ASSERT_EQ(platform_fd_set_blocking(pair.ours.fd, 0), 0);
    const std::string data(4U << 20U, 'x');
    EXPECT_EQ(platform_send_all(pair.ours.fd, data.data(), static_cast<int32_t>(data.size())), -1);
    EXPECT_EQ(errno, EAGAIN);
    const size_t gone = waiting_on(pair.theirs.fd).size();
    EXPECT_GT(gone, 0U);
    EXPECT_LT(gone, data.size());
}

TEST(SendAll, ALengthBelowOneSendsNothing) {
    EXPECT_EQ(platform_send_all(-1, "abc", 0), 0);
    EXPECT_EQ(platform_send_all(-1, "abc", -1), 0);
}

TEST(RecvGuarded, ALengthBelowOneIsMinusThree) {
    char byte = 'x';
    EXPECT_EQ(platform_recv_guarded(-1, &byte, 0), -3);
    EXPECT_EQ(platform_recv_guarded(-1, &byte, -1), -3);
}

TEST(RecvGuarded, ReturnsTheResultOfOneReceiveWithFlagsZero) {
    std::array<char, kRoom> bytes;
    for (const ssize_t result : {5, 1, 0, -1}) {
        int calls = 0;
        const Interposed looking(hook::recv, [&](int fd, void *buffer, size_t length, int flags) {
            ++calls;
            EXPECT_EQ(fd, 77);
            EXPECT_EQ(buffer, bytes.data());
            EXPECT_EQ(length, 8U);
            EXPECT_EQ(flags, 0);
            errno = EINTR;
            return result;
        });
        EXPECT_EQ(platform_recv_guarded(77, bytes.data(), kRoom), result);
        EXPECT_EQ(calls, 1);
    }
}

TEST(RecvGuarded, ReceivesWhatIsThereAndTheEndOfTheStream) {
    SocketPair pair;
    std::array<char, kRoom> bytes = {};
    send_text(pair.theirs.fd, "abc");
    pair.theirs.close();
    EXPECT_EQ(platform_recv_guarded(pair.ours.fd, bytes.data(), kRoom), 3);
    EXPECT_STREQ(bytes.data(), "abc");
    EXPECT_EQ(platform_recv_guarded(pair.ours.fd, bytes.data(), kRoom), 0);
}

TEST(BlockingMode, IsSwitchedAndTold) {
    const SocketPair pair;
    const int before = fcntl(pair.ours.fd, F_GETFL);
    EXPECT_EQ(platform_fd_is_blocking(pair.ours.fd), 1);
    EXPECT_EQ(platform_fd_set_blocking(pair.ours.fd, 0), 0);
    EXPECT_EQ(fcntl(pair.ours.fd, F_GETFL), before | 0x800);
    EXPECT_EQ(platform_fd_is_blocking(pair.ours.fd), 0);
    EXPECT_EQ(platform_fd_set_blocking(pair.ours.fd, -1), 0);
    EXPECT_EQ(fcntl(pair.ours.fd, F_GETFL), before);
    EXPECT_EQ(platform_fd_is_blocking(pair.ours.fd), 1);
}

TEST(BlockingMode, TheOtherFlagsStay) {
    const SocketPair pair;
    ASSERT_EQ(fcntl(pair.ours.fd, F_SETFL, fcntl(pair.ours.fd, F_GETFL) | O_APPEND), 0);
    const int before = fcntl(pair.ours.fd, F_GETFL);
    EXPECT_EQ(platform_fd_set_blocking(pair.ours.fd, 0), 0);
    EXPECT_EQ(platform_fd_set_blocking(pair.ours.fd, 1), 0);
    EXPECT_EQ(fcntl(pair.ours.fd, F_GETFL), before);
}

TEST(BlockingMode, ReturnsWhatSettingTheFlagsReturned) {
    const SocketPair pair;
    const Interposed failing(hook::fcntl, [](int fd, int command, long argument) {
        return command == F_SETFL ? -7 : hook::fcntl.real(fd, command, argument);
    });
    EXPECT_EQ(platform_fd_set_blocking(pair.ours.fd, 0), -7);
}

TEST(BlockingMode, ADescriptorThatIsNotOpenNeitherBlocksNorIsSet) {
    EXPECT_EQ(platform_fd_is_blocking(-1), 0);
    EXPECT_EQ(platform_fd_set_blocking(-1, 1), -1);
    EXPECT_EQ(errno, EBADF);
}

} // namespace
