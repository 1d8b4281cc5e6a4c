// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The hybrid arrangement: the companion reaches its parent over TCP on localhost.
#include "pair_support.h"

#include <components/platform/socket.h>
#include <msg/msg.h>

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <unistd.h>

using namespace zel::test;

namespace {

constexpr const char *kHybridVariable = "ZEL_TEST_PAIR_HYBRID";
constexpr int kSecondsAllowed = 30;

// A bound socket: nobody else gets its port, and while it does not listen, a connection is refused.
class Port {
public:
    Port() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        auto *generic = reinterpret_cast<sockaddr *>(&address);
        EXPECT_EQ(bind(fd_, generic, length), 0);
        EXPECT_EQ(getsockname(fd_, generic, &length), 0);
        number = ntohs(address.sin_port);
    }
    ~Port() { close(fd_); }
    Port(const Port &) = delete;
    Port &operator=(const Port &) = delete;

    void start_listening() const { EXPECT_EQ(listen(fd_, 1), 0); }

    int number;

private:
    int fd_;
};

std::string variable_for(int port, const char *tag = "pid-rtx_fd_w") {
    return std::to_string(getpid()) + " " + std::to_string(port) + " " + tag;
}

// The handle of a companion with that value, while the hybrid variable has that one.
PairHandle *open_hybrid(const std::string &value, const char *hybrid = "1", int ignore_signals = 0, int blocking = 1) {
    const ScopedVariable variable(kPairVariable, value);
    const ScopedVariable arrangement(kHybridVariable, hybrid);
    return platform_pair_child_open(kPairVariable, ignore_signals, blocking);
}

// Whether a connection is tried under that value of the hybrid variable. The number is no descriptor of anybody.
bool connects_under(const char *hybrid) {
    int attempts = 0;
    const Interposed refusing(hook::connect, [&attempts](int, const sockaddr *, socklen_t) {
        ++attempts;
        errno = ECONNREFUSED;
        return -1;
    });
    PairHandle *ph = open_hybrid(variable_for(20311), hybrid);
    EXPECT_EQ(platform_pair_rx_fd(ph), attempts == 0 ? 20311 : -1);
    free(ph);
    return attempts > 0;
}

struct Hybrid {
    pid_t pid;  // the companion
    int socket; // the connection with it, or -1
};

// A parent of the hybrid arrangement. Without a connection to come, none is waited for.
Hybrid start_hybrid(const char *arrangement, bool comes) {
    int port = 0;
    const Port free_port;
    const int listening = platform_server_socket_open(free_port.number + 1, free_port.number + 100, &port);
    EXPECT_NE(listening, -1);
    const ScopedVariable variable(kPairVariable, variable_for(port));
    const ScopedVariable hybrid(kHybridVariable, arrangement);
    const pid_t pid = fork();
    if (pid == 0) {
        execl(companion_path("pair_hybrid").c_str(), "pair_hybrid", std::to_string(port).c_str(),
              static_cast<char *>(nullptr));
        _exit(127);
    }
    if (comes) {
        return {.pid = pid, .socket = platform_accept_timeout(listening, kSecondsAllowed)};
    }
    platform_socket_close(listening);
    return {.pid = pid, .socket = -1};
}

std::vector<int32_t> receive_values(int socket, size_t count) {
    std::vector<int32_t> values(count);
    const size_t length = count * sizeof(int32_t);
    EXPECT_EQ(recv(socket, values.data(), length, MSG_WAITALL), static_cast<ssize_t>(length));
    return values;
}

// The mode of a connection whose socket does not block when it is made.
bool blocks_after_open(int blocking) {
    const Port port;
    port.start_listening();
    const Interposed connecting(hook::connect, [](int fd, const sockaddr *address, socklen_t length) {
        const int result = hook::connect.real(fd, address, length);
        add_mode(fd, O_NONBLOCK);
        return result;
    });
    PairHandle *ph = open_hybrid(variable_for(port.number), "1", 0, blocking);
    EXPECT_EQ(platform_pair_errno(ph), 0);
    const bool blocks = !is_nonblocking(platform_pair_rx_fd(ph));
    platform_pair_close(ph);
    return blocks;
}

} // namespace

TEST(PairHybrid, OnlyAnEmptyValueOrOneThatBeginsWithFOrZeroMeansNotHybrid) {
    for (const char *value : {"", "f", "F", "0", "false", "False", "01", "f1"}) {
        EXPECT_FALSE(connects_under(value)) << value;
    }
    for (const char *value : {"1", "yes", "true", "no", "No", "T", " ", " 0", "-0", "o"}) {
        EXPECT_TRUE(connects_under(value)) << value;
    }
}

TEST(PairHybrid, AnUnsetVariableMeansNotHybrid) {
    const ScopedVariable unset(kHybridVariable, std::nullopt);
    const ScopedVariable variable(kPairVariable, variable_for(20311));
    PairHandle *ph = platform_pair_child_open(kPairVariable, 0, 1);
    EXPECT_EQ(platform_pair_rx_fd(ph), 20311);
    free(ph);
}

TEST(PairHybrid, TheNumberIsAPortOnLocalhost) {
    const Port port;
    port.start_listening();
    PairHandle *ph = open_hybrid(variable_for(port.number));
    EXPECT_EQ(ph->error_number, 0);
    EXPECT_EQ(ph->error_text, nullptr);
    EXPECT_EQ(ph->companion_pid, getpid());
    EXPECT_EQ(ph->parent, 0);
    EXPECT_GT(ph->rx_fd, 2);
    EXPECT_EQ(ph->tx_fd, ph->rx_fd);
    sockaddr_in peer = {};
    socklen_t length = sizeof peer;
    EXPECT_EQ(getpeername(ph->rx_fd, reinterpret_cast<sockaddr *>(&peer), &length), 0);
    EXPECT_EQ(ntohs(peer.sin_port), port.number);
    EXPECT_EQ(ntohl(peer.sin_addr.s_addr), INADDR_LOOPBACK);
    platform_pair_close(ph);
}

TEST(PairHybrid, TheAddressIsLookedUpForAStreamOverIpv4) {
    std::string looked_up;
    const Interposed lookup(
        hook::getaddrinfo, [&looked_up](const char *host, const char *service, const addrinfo *hints, addrinfo **) {
            looked_up = std::string(host) + " " + service + " " + std::to_string(hints->ai_family) + " " +
                        std::to_string(hints->ai_socktype) + " " + std::to_string(hints->ai_protocol);
            errno = EIO;
            return EAI_SYSTEM;
        });
    PairHandle *ph = open_hybrid("123 20311 pid-rtx_fd_w");
    EXPECT_EQ(looked_up, "localhost 20311 " + std::to_string(AF_INET) + " " + std::to_string(SOCK_STREAM) + " " +
                             std::to_string(IPPROTO_TCP));
    EXPECT_EQ(platform_pair_errno(ph), EIO);
    platform_pair_close(ph);
}

TEST(PairHybrid, TheDecisionRestsOnTheVariableAndTheFlagOnTheTag) {
    const Port port;
    for (const char *tag : {"pid-rtx_fd", "pid-rtx_fd_l", "pid-rtx_fd_w"}) {
        SCOPED_TRACE(tag);
        PairHandle *ph = open_hybrid(variable_for(port.number, tag));
        EXPECT_EQ(platform_pair_errno(ph), ECONNREFUSED);
        EXPECT_EQ(platform_pair_hybrid_environment(ph), strcmp(tag, "pid-rtx_fd_w") == 0 ? 1 : 0);
        platform_pair_close(ph);
    }
}

TEST(PairHybrid, ARefusedConnectionIsADiagnosticLineAndAnError) {
    const Port port;
    const Outcome outcome = run_in_child([&port] {
        msg_add_stream(MSG_DIAG, stderr);
        PairHandle *ph = open_hybrid(variable_for(port.number));
        printf("%d %s %d %d %d\n", ph->error_number, ph->error_text == nullptr ? "null" : ph->error_text, ph->rx_fd,
               ph->tx_fd, ph->companion_pid == getpid() ? 1 : 0);
        platform_pair_close(ph);
    });
    EXPECT_EQ(outcome.err, "connection failed: Connection refused\n");
    EXPECT_EQ(outcome.out, std::to_string(ECONNREFUSED) + " null -1 -1 1\n");
}

TEST(PairHybrid, AnUnreadableValueIsAnErrorBeforeAnyConnection) {
    int attempts = 0;
    const Interposed counting(hook::socket, count_calls(hook::socket, attempts, -1));
    PairHandle *ph = open_hybrid("abc pid-rtx_fd_w");
    EXPECT_EQ(platform_pair_errno(ph), -1);
    EXPECT_EQ(ph->error_text, nullptr);
    EXPECT_EQ(ph->kind, 13);
    EXPECT_EQ(ph->companion_pid, 0);
    EXPECT_EQ(platform_pair_rx_fd(ph), -1);
    EXPECT_EQ(attempts, 0);
    platform_pair_close(ph);
}

TEST(PairHybrid, SignalsStayAsTheyWere) {
    const Port port;
    port.start_listening();
    int changes = 0;
    const Interposed counting(hook::sigaction, count_calls(hook::sigaction, changes, 0));
    platform_pair_close(open_hybrid(variable_for(port.number), "1", 1));
    EXPECT_EQ(changes, 0);
}

TEST(PairHybrid, ABlockingHandleMakesTheSocketBlock) {
    EXPECT_TRUE(blocks_after_open(1));
    EXPECT_TRUE(blocks_after_open(-3));
}

TEST(PairHybrid, ANonBlockingHandleLeavesTheSocketAsItIs) {
    EXPECT_FALSE(blocks_after_open(0));
}

TEST(PairHybrid, TheNonBlockingArgumentDoesNotMakeTheSocketNonBlocking) {
    const Port port;
    port.start_listening();
    PairHandle *ph = open_hybrid(variable_for(port.number), "1", 0, 0);
    EXPECT_FALSE(is_nonblocking(platform_pair_rx_fd(ph)));
    EXPECT_EQ(ph->blocking, 0);
    platform_pair_close(ph);
}

TEST(PairHybrid, ACompanionConnectsUnderEveryTrueValue) {
    for (const char *value : {"1", "yes", "true", "no"}) {
        SCOPED_TRACE(value);
        const Hybrid hybrid = start_hybrid(value, true);
        ASSERT_GE(hybrid.socket, 0);
        // Kind, hybrid environment, child, the parent's number, companion alive, blocking.
        EXPECT_EQ(receive_values(hybrid.socket, 6), (std::vector<int32_t>{13, 1, 1, getpid(), 1, 1}));
        const int32_t question = 42;
        EXPECT_EQ(send(hybrid.socket, &question, sizeof question, 0), ssize_t{sizeof question});
        EXPECT_EQ(receive_values(hybrid.socket, 1), std::vector<int32_t>{42});
        platform_socket_close(hybrid.socket);
        EXPECT_EQ(reap(hybrid.pid), kServed);
    }
}

TEST(PairHybrid, ACompanionTakesTheNumberForADescriptorUnderEveryFalseValue) {
    for (const char *value : {"", "f", "F", "0"}) {
        EXPECT_EQ(reap(start_hybrid(value, false).pid), kTookDescriptor) << value;
    }
}

TEST(PairHybrid, AnInheritedVariableMakesALocalCompanionHybrid) {
    const ScopedVariable arrangement(kHybridVariable, "1");
    EXPECT_EQ(finish(start()), kNotOpen) << "it takes its descriptor for a port";
}
