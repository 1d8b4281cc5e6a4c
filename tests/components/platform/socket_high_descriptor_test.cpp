// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Descriptors at or above FD_SETSIZE.
#include "socket_support.h"

#include <support/interpose.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

using namespace zel::test;
namespace hook = zel::test::hook;

constexpr int kHigh = 1500;
static_assert(kHigh >= FD_SETSIZE);

// Raises the number of descriptors that the process may have. A hard limit that is too low fails the test.
class HighDescriptor : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before_), 0);
        ASSERT_GT(before_.rlim_max, rlim_t{kHigh})
            << "the hard limit of open files (ulimit -Hn) must be above " << kHigh;
        rlimit raised = before_;
        raised.rlim_cur = before_.rlim_max;
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);
    }
    void TearDown() override { setrlimit(RLIMIT_NOFILE, &before_); }

    // Gives a descriptor another number.
    static void move(Descriptor &descriptor, int number = kHigh) {
        ASSERT_EQ(dup3(descriptor.fd, number, O_CLOEXEC), number);
        descriptor.close();
        descriptor.fd = number;
    }

private:
    rlimit before_ = {};
};

int receive(int fd, int wait, PlatformIdle idle = nullptr) {
    char bytes[8];
    return platform_select_recv(fd, bytes, sizeof bytes, wait, idle);
}

TEST_F(HighDescriptor, SelectRecvReturnsWhatIsThere) {
    SocketPair pair;
    move(pair.ours);
    send_text(pair.theirs.fd, "abc");
    EXPECT_EQ(receive(pair.ours.fd, 0), 3);
    send_text(pair.theirs.fd, "abcd");
    EXPECT_EQ(receive(pair.ours.fd, 1), 4);
}

TEST_F(HighDescriptor, SelectRecvTellsThatNothingIsThere) {
    SocketPair pair;
    move(pair.ours);
    EXPECT_EQ(receive(pair.ours.fd, 0), -2);
}

TEST_F(HighDescriptor, SelectRecvTellsThatThePeerHasClosed) {
    SocketPair pair;
    move(pair.ours);
    pair.theirs.close();
    EXPECT_EQ(receive(pair.ours.fd, 1), -1);
}

TEST_F(HighDescriptor, SelectRecvWaitsAndCallsIdle) {
    SocketPair pair;
    move(pair.ours);
    Idle idle([&pair](int call) {
        if (call == 2) {
            send_text(pair.theirs.fd, "abc");
        }
    });
    EXPECT_EQ(receive(pair.ours.fd, 1, run_idle), 3);
    EXPECT_EQ(idle.calls, 3);
}

TEST_F(HighDescriptor, ADescriptorThatIsNotOpenIsReported) {
    const Outcome outcome = run_with_reports([] {
        const int result = receive(kHigh, 1);
        printf("%d %d\n", result, errno == EBADF);
    });
    EXPECT_EQ(outcome.out, "select failed: Bad file descriptor\n-1 1\n");
}

TEST_F(HighDescriptor, AnInterruptedWaitIsRepeated) {
    SocketPair pair;
    move(pair.ours);
    send_text(pair.theirs.fd, "abc");
    const Interposed failing(hook::ppoll, fail_nth(hook::ppoll, 0, EINTR, -1));
    EXPECT_EQ(receive(pair.ours.fd, 1), 3);
}

TEST_F(HighDescriptor, WaitsATenthOfASecondAtATimeOrNotAtAll) {
    std::vector<long> times;
    const Interposed looking(hook::ppoll,
                             [&times](pollfd *entry, nfds_t count, const timespec *timeout, const sigset_t *) {
                                 EXPECT_EQ(count, 1U);
                                 EXPECT_EQ(entry->fd, kHigh);
                                 EXPECT_EQ(entry->events, POLLIN);
                                 EXPECT_EQ(timeout->tv_sec, 0);
                                 times.push_back(timeout->tv_nsec);
                                 errno = EBADF;
                                 return times.size() == 1 ? 0 : -1;
                             });
    EXPECT_EQ(receive(kHigh, 1), -1);
    EXPECT_EQ(receive(kHigh, 0), -1);
    EXPECT_EQ(times, (std::vector<long>{100000000, 100000000, 0}));
}

TEST_F(HighDescriptor, TheLastDescriptorOfASetIsWaitedForBySelectAndTheNextIsNot) {
    for (const int number : {FD_SETSIZE - 1, FD_SETSIZE}) {
        int selects = 0;
        const Interposed counting(hook::select, [&selects](int n, fd_set *r, fd_set *w, fd_set *e, timeval *t) {
            ++selects;
            return hook::select.real(n, r, w, e, t);
        });
        SocketPair pair;
        move(pair.ours, number);
        send_text(pair.theirs.fd, "abc");
        EXPECT_EQ(receive(number, 1), 3);
        EXPECT_EQ(selects, number < FD_SETSIZE ? 1 : 0);
    }
}

TEST_F(HighDescriptor, CarriesMessages) {
    SocketPair pair;
    move(pair.ours, kHigh);
    move(pair.theirs, kHigh - 1);
    const CurrentBuffer buffer;
    const Dispatched dispatched;
    EXPECT_EQ(platform_send_message(pair.theirs.fd, "A", "B", static_cast<char *>(nullptr)), 1);
    EXPECT_EQ(platform_get_one_message(pair.ours.fd, handle_message, nullptr, 1), 1);
    EXPECT_EQ(dispatched.messages, (std::vector<Message>{{"A", "B"}}));
}

TEST_F(HighDescriptor, AcceptTimeoutAcceptsAndClosesTheListeningSocket) {
    Listener listener;
    move(listener.fd);
    const Descriptor client(connect_to(listener.address));
    const Descriptor accepted(platform_accept_timeout(kHigh, 60));
    EXPECT_NE(accepted.fd, -1);
    EXPECT_FALSE(is_open(kHigh));
    listener.fd.fd = -1;
}

TEST_F(HighDescriptor, AcceptTimeoutWaitsTheGivenSecondsHoweverMany) {
    Listener listener;
    move(listener.fd);
    std::vector<int64_t> seconds;
    const Interposed looking(hook::ppoll, [&seconds](pollfd *, nfds_t, const timespec *timeout, const sigset_t *) {
        seconds.push_back(timeout->tv_sec);
        EXPECT_EQ(timeout->tv_nsec, 0);
        return 0;
    });
    EXPECT_EQ(platform_accept_timeout(kHigh, 7), -2);
    EXPECT_EQ(platform_accept_timeout(kHigh, 2147483647), -2);
    EXPECT_EQ(seconds, (std::vector<int64_t>{7, 2147483647}));
}

TEST_F(HighDescriptor, AcceptTimeoutRefusesATimeBelowZeroAsSelectDoes) {
    Listener listener;
    move(listener.fd);
    const Outcome outcome = run_with_reports([] { printf("%d\n", platform_accept_timeout(kHigh, -1)); });
    EXPECT_EQ(outcome.out, "select failed: Invalid argument\n-1\n");
}

} // namespace
