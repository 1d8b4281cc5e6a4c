// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A program that limits a send or a connect by a signal gets control back; a send that has moved something goes on.
#include "socket_support.h"

#include <csignal>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using namespace zel::test;

// The work of the signal handler besides interrupting. System calls alone: it runs at any moment.
std::function<void()> on_signal;
volatile sig_atomic_t signals = 0;

void take_signal(int /*signal*/) {
    const int error = errno;
    signals = signals + 1;
    if (on_signal) {
        on_signal();
    }
    errno = error;
}

// Catches SIGALRM in its scope. No system call is restarted.
struct Catching {
    Catching() {
        signals = 0;
        struct sigaction action = {};
        action.sa_handler = take_signal;
        sigaction(SIGALRM, &action, &before_);
    }
    ~Catching() {
        const itimerval never = {};
        setitimer(ITIMER_REAL, &never, nullptr);
        signal(SIGALRM, SIG_IGN); // one that is still on its way is gone
        sigaction(SIGALRM, &before_, nullptr);
        on_signal = nullptr;
    }
    Catching(const Catching &) = delete;
    Catching &operator=(const Catching &) = delete;

private:
    struct sigaction before_ = {};
};

// Signals one after the other, for a limit that holds whenever the first of them comes.
void alarm_again_and_again() {
    const timeval pause = {.tv_sec = 0, .tv_usec = 20000};
    const itimerval again = {.it_interval = pause, .it_value = pause};
    setitimer(ITIMER_REAL, &again, nullptr);
}

// Our end has been filled to the last byte.
struct FullPair : SocketPair {
    FullPair() {
        const std::string data(65536, 'x');
        while (send(ours.fd, data.data(), data.size(), MSG_DONTWAIT) > 0) {
        }
        EXPECT_EQ(errno, EAGAIN);
    }
};

TEST(Interruption, AnAlarmEndsASendOnAFullSocket) {
    const FullPair pair;
    const Catching catching;
    alarm(1);
    EXPECT_EQ(platform_send_all(pair.ours.fd, "abc", 3), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(signals, 1);
}

TEST(Interruption, AnAlarmEndsAMessageOnAFullSocket) {
    const FullPair pair;
    const Catching catching;
    alarm(1);
    EXPECT_EQ(platform_send_message(pair.ours.fd, "A", "B", static_cast<char *>(nullptr)), 0);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(signals, 1);
}

// A signal that finds part of the data gone lets the rest be sent on, into a full socket: there the next one ends it.
TEST(Interruption, ATimerThatRepeatsEndsASendOfMoreThanTheSocketHolds) {
    const SocketPair pair;
    const std::string data(8U << 20U, 'x');
    const Catching catching;
    alarm_again_and_again();
    EXPECT_EQ(platform_send_all(pair.ours.fd, data.data(), static_cast<int32_t>(data.size())), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_GE(signals, 1);
    EXPECT_FALSE(waiting_on(pair.theirs.fd).empty());
}

// Each signal interrupts a send that has moved something, and makes room for the next.
TEST(Interruption, PartialSendsGoOn) {
    const SocketPair pair;
    const int size = 65536; // the data does not go at once, however much the system gives others
    ASSERT_EQ(setsockopt(pair.ours.fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size), 0);
    std::string data(1U << 20U, '\0');
    for (size_t position = 0; position < data.size(); ++position) {
        data[position] = static_cast<char>('a' + position % 23);
    }
    std::string received(data.size(), '\0');
    size_t length = 0;
    const Catching catching;
    on_signal = [&] {
        const ssize_t count = recv(pair.theirs.fd, received.data() + length, 65536, MSG_DONTWAIT);
        length += count > 0 ? static_cast<size_t>(count) : 0;
    };
    alarm_again_and_again();
    EXPECT_EQ(platform_send_all(pair.ours.fd, data.data(), static_cast<int32_t>(data.size())),
              static_cast<int>(data.size()));
    alarm(0);
    EXPECT_GE(signals, 2);
    received.resize(length);
    EXPECT_TRUE(received + waiting_on(pair.theirs.fd) == data);
}

// A listening Unix-domain socket whose queue is full: connecting to it waits until somebody is accepted.
struct FullListener {
    FullListener() {
        fd.fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        address.sun_family = AF_UNIX;
        EXPECT_EQ(bind(fd.fd, pointer(), sizeof address.sun_family), 0); // the system chooses a name
        EXPECT_EQ(getsockname(fd.fd, pointer(), &length), 0);
        EXPECT_EQ(listen(fd.fd, 0), 0);
        first.fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(connect(first.fd, pointer(), length), 0);
    }
    sockaddr *pointer() { return reinterpret_cast<sockaddr *>(&address); }
    addrinfo entry(addrinfo *next = nullptr) {
        addrinfo entry = {};
        entry.ai_family = AF_UNIX;
        entry.ai_socktype = SOCK_STREAM;
        entry.ai_addr = pointer();
        entry.ai_addrlen = length;
        entry.ai_next = next;
        return entry;
    }
    sockaddr_un address = {};
    socklen_t length = sizeof address;
    Descriptor fd{-1};
    Descriptor first{-1};
};

TEST(Interruption, AnAlarmEndsAConnectThatWaits) {
    FullListener listener;
    const addrinfo entry = listener.entry();
    const Catching catching;
    alarm(1);
    EXPECT_EQ(platform_socket_open(&entry, 0, 0), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(signals, 1);
}

TEST(Interruption, EachAddressThatWaitsTakesASignalOfItsOwn) {
    FullListener listener;
    addrinfo second = listener.entry();
    const addrinfo first = listener.entry(&second);
    const Catching catching;
    alarm_again_and_again();
    EXPECT_EQ(platform_socket_open(&first, 0, 0), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_GE(signals, 2);
}

} // namespace
