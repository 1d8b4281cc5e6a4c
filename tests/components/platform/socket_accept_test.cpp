// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The accept calls: with a time-out, once, and again after an interruption.
#include "socket_support.h"

#include <support/interpose.h>

#include <chrono>
#include <cstring>

namespace {

using namespace zel::test;
namespace hook = zel::test::hook;

uint16_t own_port(int fd) {
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
    return address.sin_port;
}

std::string repeated(const std::string &text, int times) {
    std::string all;
    while (times-- > 0) {
        all += text;
    }
    return all;
}

TEST(AcceptRetry, ReturnsAConnectedSocketWithoutDelayThatProgramsDoNotInherit) {
    const Listener listener;
    const Descriptor client(connect_to(listener.address));
    const Descriptor accepted(platform_accept_retry(listener.fd.fd, nullptr, nullptr));
    ASSERT_NE(accepted.fd, -1);
    send_text(client.fd, "abc");
    char byte = '\0';
    EXPECT_EQ(platform_select_recv(accepted.fd, &byte, 1, 1, nullptr), 1);
    EXPECT_EQ(byte, 'a');
    EXPECT_TRUE(has_no_delay(accepted.fd));
    EXPECT_TRUE(is_close_on_exec(accepted.fd));
    EXPECT_EQ(platform_fd_is_blocking(accepted.fd), 1);
    EXPECT_TRUE(is_open(listener.fd.fd));
}

TEST(AcceptRetry, StoresTheAddressOfThePeerAndItsLength) {
    const Listener listener;
    const Descriptor client(connect_to(listener.address));
    sockaddr_in address = {};
    socklen_t length = 12345; // what stands here does not count
    const Descriptor accepted(platform_accept_retry(listener.fd.fd, reinterpret_cast<sockaddr *>(&address), &length));
    EXPECT_NE(accepted.fd, -1);
    EXPECT_EQ(length, 16U);
    EXPECT_EQ(address.sin_family, AF_INET);
    EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_EQ(address.sin_port, own_port(client.fd));
}

TEST(AcceptRetry, TheLengthIsSetTo16BeforeEachCallAlsoWhenAllFail) {
    sockaddr_in address = {};
    socklen_t length = 2;
    std::vector<socklen_t> lengths;
    const Interposed failing(hook::accept, [&](int fd, sockaddr *to, socklen_t *room) {
        EXPECT_EQ(fd, 77);
        EXPECT_EQ(to, reinterpret_cast<sockaddr *>(&address));
        lengths.push_back(*room);
        errno = lengths.size() == 1 ? EINTR : EBADF;
        return -1;
    });
    EXPECT_EQ(platform_accept_retry(77, reinterpret_cast<sockaddr *>(&address), &length), -1);
    EXPECT_EQ(lengths, (std::vector<socklen_t>{16, 16}));
    EXPECT_EQ(length, 16U);
}

TEST(AcceptRetry, TheAddressMayBeAskedForWithoutItsLength) {
    const Listener listener;
    const Descriptor client(connect_to(listener.address));
    sockaddr_in address = {};
    const Descriptor accepted(platform_accept_retry(listener.fd.fd, reinterpret_cast<sockaddr *>(&address), nullptr));
    EXPECT_NE(accepted.fd, -1);
    EXPECT_EQ(address.sin_port, own_port(client.fd));
}

TEST(AcceptRetry, WithoutAnAddressTheLengthIsLeftAlone) {
    socklen_t length = 12345;
    const Interposed looking(hook::accept, [](int, sockaddr *to, socklen_t *room) {
        EXPECT_EQ(to, nullptr);
        EXPECT_EQ(room, nullptr);
        errno = EBADF;
        return -1;
    });
    EXPECT_EQ(platform_accept_retry(77, nullptr, &length), -1);
    EXPECT_EQ(length, 12345U);
}

TEST(AcceptRetry, ClearsErrnoFirst) {
    int found = -1;
    const Interposed looking(hook::accept, [&found](int, sockaddr *, socklen_t *) {
        found = errno;
        errno = EBADF;
        return -1;
    });
    errno = ENOENT;
    EXPECT_EQ(platform_accept_retry(77, nullptr, nullptr), -1);
    EXPECT_EQ(found, 0);
    EXPECT_EQ(errno, EBADF);
}

TEST(AcceptRetry, TriesAgainAfterAnInterruptionAndReportsEachFailure) {
    const Listener listener;
    const Descriptor client(connect_to(listener.address));
    const Outcome outcome = run_with_reports([&listener] {
        int calls = 0;
        const Interposed failing(hook::accept, [&calls](int fd, sockaddr *address, socklen_t *length) {
            if (++calls > 2) {
                return hook::accept.real(fd, address, length);
            }
            errno = calls == 1 ? EINTR : EAGAIN;
            return -1;
        });
        const Descriptor accepted(platform_accept_retry(listener.fd.fd, nullptr, nullptr));
        printf("%d %d\n", calls, accepted.fd > 0);
    });
    EXPECT_EQ(outcome.out, "accept: Interrupted system call\naccept: Resource temporarily unavailable\n3 1\n");
}

TEST(AcceptRetry, GivesUpAfter500Calls) {
    const Outcome outcome = run_with_reports([] {
        int calls = 0;
        const Interposed failing(hook::accept, [&calls](int, sockaddr *, socklen_t *) {
            ++calls;
            errno = EAGAIN;
            return -1;
        });
        const int result = platform_accept_retry(77, nullptr, nullptr);
        printf("%d %d %d\n", result, calls, errno == EAGAIN);
    });
    EXPECT_EQ(outcome.out, repeated("accept: Resource temporarily unavailable\n", 500) + "-1 500 1\n");
}

TEST(AcceptRetry, The500thCallMaySucceed) {
    int calls = 0;
    const Interposed failing(hook::accept, [&calls](int, sockaddr *, socklen_t *) {
        errno = EINTR;
        return ++calls == 500 ? 77 : -1;
    });
    EXPECT_EQ(platform_accept_retry(-1, nullptr, nullptr), 77);
}

TEST(AcceptRetry, AnyOtherFailureEndsAtOnce) {
    const Outcome outcome = run_with_reports([] {
        for (const int error : {ECONNABORTED, EMFILE}) {
            int calls = 0;
            const Interposed failing(hook::accept, [&calls, error](int, sockaddr *, socklen_t *) {
                ++calls;
                errno = error;
                return -1;
            });
            const int result = platform_accept_retry(77, nullptr, nullptr);
            printf("%d %d %d\n", result, calls, errno == error);
        }
    });
    EXPECT_EQ(outcome.out, "accept: Software caused connection abort\n-1 1 1\n"
                           "accept: Too many open files\n-1 1 1\n");
}

TEST(AcceptOnce, AcceptsOneConnectionAndClosesTheListeningSocket) {
    Listener listener;
    const Descriptor client(connect_to(listener.address));
    const Descriptor accepted(platform_accept_once(listener.fd.fd));
    EXPECT_NE(accepted.fd, -1);
    EXPECT_FALSE(is_open(listener.fd.fd));
    EXPECT_TRUE(has_no_delay(accepted.fd));
    EXPECT_TRUE(is_close_on_exec(accepted.fd));
    listener.fd.fd = -1;
}

TEST(AcceptOnce, ClosesTheListeningSocketAfterAFailureToo) {
    Listener listener;
    const Interposed failing(hook::accept, fail_always(hook::accept, EMFILE, -1));
    EXPECT_EQ(platform_accept_once(listener.fd.fd), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_FALSE(is_open(listener.fd.fd));
    listener.fd.fd = -1;
}

TEST(AcceptTimeout, AcceptsWithoutAddressAndClosesTheListeningSocket) {
    Listener listener;
    const Descriptor client(connect_to(listener.address));
    const Interposed looking(hook::accept, [](int fd, sockaddr *address, socklen_t *length) {
        EXPECT_EQ(address, nullptr);
        EXPECT_EQ(length, nullptr);
        return hook::accept.real(fd, address, length);
    });
    const Descriptor accepted(platform_accept_timeout(listener.fd.fd, 60));
    EXPECT_NE(accepted.fd, -1);
    EXPECT_FALSE(is_open(listener.fd.fd));
    EXPECT_TRUE(has_no_delay(accepted.fd));
    EXPECT_TRUE(is_close_on_exec(accepted.fd));
    listener.fd.fd = -1;
}

TEST(AcceptTimeout, TheListeningSocketIsShutDownBeforeItIsClosed) {
    Listener listener;
    const Descriptor client(connect_to(listener.address));
    std::vector<std::string> calls;
    const Interposed shutting(hook::shutdown, [&](int fd, int how) {
        EXPECT_EQ(how, SHUT_RDWR);
        calls.push_back("shutdown " + std::to_string(fd));
        return hook::shutdown.real(fd, how);
    });
    const Interposed closing(hook::close, [&](int fd) {
        calls.push_back("close " + std::to_string(fd));
        return hook::close.real(fd);
    });
    const Descriptor accepted(platform_accept_timeout(listener.fd.fd, 60));
    const std::string number = std::to_string(listener.fd.fd);
    EXPECT_EQ(calls, (std::vector<std::string>{"shutdown " + number, "close " + number}));
    listener.fd.fd = -1;
}

TEST(AcceptTimeout, WithoutAClientReturnsMinusTwoAfterTheGivenSeconds) {
    const Listener listener;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(platform_accept_timeout(listener.fd.fd, 1), -2);
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed.count(), 0.999);
    EXPECT_TRUE(is_open(listener.fd.fd));
}

TEST(AcceptTimeout, WithNoSecondsLooksOnce) {
    const Listener listener;
    EXPECT_EQ(platform_accept_timeout(listener.fd.fd, 0), -2);
    EXPECT_TRUE(is_open(listener.fd.fd));
}

TEST(AcceptTimeout, StartsTheFullTimeAgainAfterAnInterruption) {
    const Listener listener;
    std::vector<int> errors = {EINTR, EAGAIN, 0};
    std::vector<int64_t> seconds;
    const Interposed looking(hook::select,
                             [&](int count, fd_set *readable, fd_set *writable, fd_set *exceptional, timeval *timeout) {
                                 EXPECT_EQ(count, listener.fd.fd + 1);
                                 EXPECT_TRUE(FD_ISSET(listener.fd.fd, readable));
                                 EXPECT_EQ(writable, nullptr);
                                 EXPECT_EQ(exceptional, nullptr);
                                 EXPECT_EQ(timeout->tv_usec, 0);
                                 seconds.push_back(timeout->tv_sec);
                                 *timeout = {.tv_sec = 1, .tv_usec = 5}; // what is left, as the system tells
                                 FD_ZERO(readable);
                                 if (seconds.size() > errors.size()) {
                                     return 0;
                                 }
                                 errno = errors[seconds.size() - 1];
                                 return -1;
                             });
    EXPECT_EQ(platform_accept_timeout(listener.fd.fd, 7), -2);
    EXPECT_EQ(seconds, (std::vector<int64_t>{7, 7, 7, 7}));
    EXPECT_TRUE(is_open(listener.fd.fd));
}

TEST(AcceptTimeout, AFailedWaitIsReportedAndLeavesTheListeningSocketOpen) {
    const Outcome outcome = run_with_reports([] {
        const Listener listener;
        const Interposed failing(hook::select, fail_always(hook::select, ENOMEM, -1));
        const int result = platform_accept_timeout(listener.fd.fd, 7);
        printf("%d %d %d\n", result, errno == ENOMEM, is_open(listener.fd.fd));
    });
    EXPECT_EQ(outcome.out, "select failed: Cannot allocate memory\n-1 1 1\n");
}

TEST(AcceptTimeout, ATimeBelowZeroIsAFailedWait) {
    const Outcome outcome = run_with_reports([] {
        const Listener listener;
        const int result = platform_accept_timeout(listener.fd.fd, -1);
        printf("%d %d\n", result, is_open(listener.fd.fd));
    });
    EXPECT_EQ(outcome.out, "select failed: Invalid argument\n-1 1\n");
}

TEST(AcceptTimeout, AFailedAcceptClosesTheListeningSocket) {
    const Outcome outcome = run_with_reports([] {
        Listener listener;
        const Descriptor client(connect_to(listener.address));
        const Interposed failing(hook::accept, fail_always(hook::accept, EMFILE, -1));
        const int result = platform_accept_timeout(listener.fd.fd, 60);
        const int error = errno;
        printf("%d %d %d\n", result, error == EMFILE, is_open(listener.fd.fd));
        listener.fd.fd = -1;
    });
    EXPECT_EQ(outcome.out, "accept: Too many open files\n-1 1 0\n");
}

} // namespace
