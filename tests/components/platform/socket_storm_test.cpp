// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Waits for input or a client go on, while a signal comes every few milliseconds and restarts no system call.
#include "socket_support.h"

#include <csignal>
#include <cstring>
#include <sys/time.h>

namespace {

using namespace zel::test;

constexpr int kEnough = 20;

// The work of the signal handler: it plays the peer, so that the wait ends after enough interruptions. System calls
// alone: it runs at any moment.
std::function<void()> on_signal;
volatile sig_atomic_t signals = 0;
volatile sig_atomic_t raging = 0;

// One signal at a time, and not too soon: valgrind looks at all that is to be sent before each send, and a timer that
// has run out by then would leave the send no moment to go on in.
void await_next_signal() {
    const itimerval soon = {.it_interval = {}, .it_value = {.tv_sec = 0, .tv_usec = 5000}};
    setitimer(ITIMER_REAL, &soon, nullptr);
}

void take_signal(int /*signal*/) {
    const int error = errno;
    signals = signals + 1;
    if (signals >= kEnough) {
        on_signal();
    }
    if (raging != 0) {
        await_next_signal();
    }
    errno = error;
}

struct Storm {
    explicit Storm(std::function<void()> peer) {
        on_signal = std::move(peer);
        signals = 0;
        struct sigaction action = {};
        action.sa_handler = take_signal;
        sigaction(SIGALRM, &action, &before_);
        raging = 1;
        await_next_signal();
    }
    ~Storm() {
        raging = 0;
        const itimerval never = {};
        setitimer(ITIMER_REAL, &never, nullptr);
        // A last signal may still be on its way: valgrind delivers it later than the kernel would. Ignored, it is gone.
        signal(SIGALRM, SIG_IGN);
        sigaction(SIGALRM, &before_, nullptr);
        EXPECT_GE(signals, kEnough);
    }
    Storm(const Storm &) = delete;
    Storm &operator=(const Storm &) = delete;

private:
    struct sigaction before_ = {};
};

// Sends a text piece by piece, one byte a signal.
std::function<void()> sender(int fd, const char *text) {
    return [fd, text, sent = size_t{0}]() mutable {
        if (text[sent] != '\0' && send(fd, text + sent, 1, MSG_NOSIGNAL) == 1) {
            ++sent;
        }
    };
}

// Connects to the listener, once.
struct Client {
    explicit Client(const Listener &listener) : address(listener.address) {
        fd.fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    }
    sockaddr_in address;
    Descriptor fd{-1};
    void connect() { ::connect(fd.fd, reinterpret_cast<const sockaddr *>(&address), sizeof address); }
};

TEST(SignalStorm, SelectRecvWaitsOn) {
    const SocketPair pair;
    char byte = '\0';
    const Storm storm(sender(pair.theirs.fd, "x"));
    EXPECT_EQ(platform_select_recv(pair.ours.fd, &byte, 1, 1, nullptr), 1);
    EXPECT_EQ(byte, 'x');
}

TEST(SignalStorm, GetOneMessageWaitsForAWholeMessage) {
    const SocketPair pair;
    const CurrentBuffer buffer;
    const Dispatched dispatched;
    {
        const Storm storm(sender(pair.theirs.fd, "A\r\nB\r\n\r\n"));
        EXPECT_EQ(platform_get_one_message(pair.ours.fd, handle_message, nullptr, 1), 1);
    }
    EXPECT_EQ(dispatched.messages, (std::vector<Message>{{"A", "B"}}));
}

TEST(SignalStorm, MessageLoopHandsOverAllMessages) {
    const SocketPair pair;
    const CurrentBuffer buffer;
    std::vector<Message> messages;
    on_message = [&messages](int, char *first_line, char **lines) {
        messages.push_back(message_of(first_line, lines));
        return strcmp(first_line, "quit") == 0 ? 0 : 1;
    };
    {
        const Storm storm(sender(pair.theirs.fd, "A\r\nB\r\n\r\nquit\r\n\r\n"));
        platform_message_loop(pair.ours.fd, handle_message, nullptr, 0);
    }
    EXPECT_EQ(messages, (std::vector<Message>{{"A", "B"}, {"quit"}}));
    on_message = nullptr;
}

TEST(SignalStorm, AcceptTimeoutWaitsOn) {
    Listener listener;
    Client client(listener);
    const Storm storm([&client] { client.connect(); });
    const Descriptor accepted(platform_accept_timeout(listener.fd.fd, 60));
    EXPECT_NE(accepted.fd, -1);
    listener.fd.fd = -1; // closed by the call
}

TEST(SignalStorm, AcceptOnceWaitsOn) {
    Listener listener;
    Client client(listener);
    const Storm storm([&client] { client.connect(); });
    const Descriptor accepted(platform_accept_once(listener.fd.fd));
    EXPECT_NE(accepted.fd, -1);
    listener.fd.fd = -1; // closed by the call
}

TEST(SignalStorm, AcceptRetryWaitsOn) {
    const Listener listener;
    Client client(listener);
    const Storm storm([&client] { client.connect(); });
    const Descriptor accepted(platform_accept_retry(listener.fd.fd, nullptr, nullptr));
    EXPECT_NE(accepted.fd, -1);
}

} // namespace
