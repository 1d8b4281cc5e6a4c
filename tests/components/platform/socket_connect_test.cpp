// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Connecting, opening a socket from a list of addresses, closing one; all of it together.
#include "socket_support.h"

#include <support/interpose.h>

#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace {

using namespace zel::test;
namespace hook = zel::test::hook;

int type_of(int fd) {
    int type = -1;
    socklen_t length = sizeof type;
    getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length);
    return type;
}

// Answers every lookup with that code and no list.
struct NoAddress {
    explicit NoAddress(int result)
        : looking(hook::getaddrinfo, [result](const char *, const char *, const addrinfo *, addrinfo **) {
              errno = EMFILE;
              return result;
          }) {}
    Interposed<int(const char *, const char *, const addrinfo *, addrinfo **)> looking;
};

TEST(ConnectHost, ReturnsAConnectedSocketWithoutDelayThatProgramsDoNotInherit) {
    const Listener listener;
    const Descriptor connected(platform_connect_host("localhost", listener.port));
    ASSERT_NE(connected.fd, -1);
    EXPECT_TRUE(has_no_delay(connected.fd));
    EXPECT_TRUE(is_close_on_exec(connected.fd));
    const Descriptor accepted(accept(listener.fd.fd, nullptr, nullptr));
    send_text(accepted.fd, "abc");
    char byte = '\0';
    EXPECT_EQ(platform_select_recv(connected.fd, &byte, 1, 1, nullptr), 1);
    EXPECT_EQ(byte, 'a');
}

TEST(ConnectHost, TakesANumericAddress) {
    const Listener listener;
    const Descriptor connected(platform_connect_host("127.0.0.1", listener.port));
    EXPECT_NE(connected.fd, -1);
}

TEST(ConnectHost, ARefusedConnectionKeepsItsError) {
    const Outcome outcome = run_with_reports([] {
        const int result = platform_connect_host("localhost", ntohs(refusing_address().sin_port));
        printf("%d %d\n", result, errno == ECONNREFUSED);
    });
    EXPECT_EQ(outcome.out, "-1 1\n"); // and nothing is reported
    EXPECT_EQ(outcome.err, "");
}

TEST(ConnectHost, AnUnknownHostHasNoAddress) {
    const NoAddress unknown(EAI_NONAME);
    EXPECT_EQ(platform_connect_host("nobody", 80), -1);
    EXPECT_EQ(errno, EADDRNOTAVAIL);
}

TEST(ConnectHost, ANumberThatIsNoPortIsNotTakenForAnother) {
    for (const int port : {-1, 65536, 65536 + 80}) {
        errno = 0;
        EXPECT_EQ(platform_connect_host("localhost", port), -1) << port;
        EXPECT_EQ(errno, EINVAL) << port;
    }
}

TEST(ConnectHost, TheFirstAndTheLastPortAreLookedUp) {
    std::string asked;
    const Interposed looking(hook::getaddrinfo,
                             [&asked](const char *, const char *service, const addrinfo *, addrinfo **) {
                                 asked += std::string(service) + " ";
                                 return EAI_NONAME;
                             });
    for (const int port : {0, 65535, -1, 65536}) {
        EXPECT_EQ(platform_connect_host("localhost", port), -1);
    }
    EXPECT_EQ(asked, "0 65535 ");
}

TEST(ConnectHost, ALookupThatTheSystemFailedKeepsItsError) {
    const NoAddress failing(EAI_SYSTEM);
    EXPECT_EQ(platform_connect_host("localhost", 80), -1);
    EXPECT_EQ(errno, EMFILE);
}

TEST(ConnectHost, LooksUpTheHostAndThePortInDecimal) {
    std::string asked;
    const Interposed looking(hook::getaddrinfo,
                             [&asked](const char *host, const char *service, const addrinfo *hints, addrinfo **) {
                                 asked = std::string(host) + " " + service;
                                 EXPECT_EQ(hints->ai_flags, 0);
                                 EXPECT_EQ(hints->ai_family, AF_INET);
                                 EXPECT_EQ(hints->ai_socktype, SOCK_STREAM);
                                 EXPECT_EQ(hints->ai_protocol, 6);
                                 return EAI_NONAME;
                             });
    EXPECT_EQ(platform_connect_host("some.host", 60123), -1);
    EXPECT_EQ(asked, "some.host 60123");
}

TEST(ConnectHost, TheResultOfTheLookupIsNotFreed) {
    addrinfo *looked_up = nullptr;
    int freed = 0;
    const Interposed looking(
        hook::getaddrinfo, [&looked_up](const char *host, const char *service, const addrinfo *hints, addrinfo **list) {
            const int result = hook::getaddrinfo.real(host, service, hints, list);
            looked_up = *list;
            return result;
        });
    const Interposed freeing(hook::freeaddrinfo, [&freed](addrinfo *) { ++freed; });
    const Listener listener;
    const Descriptor connected(platform_connect_host("localhost", listener.port));
    EXPECT_NE(connected.fd, -1);
    EXPECT_EQ(freed, 0);
    hook::freeaddrinfo.real(looked_up);
}

// The address and the socket of a connection attempt.
struct Connects {
    std::vector<int> fds;
    std::vector<const sockaddr *> addresses;
    Interposed<int(int, const sockaddr *, socklen_t)> hooked{hook::connect,
                                                             [this](int fd, const sockaddr *address, socklen_t length) {
                                                                 fds.push_back(fd);
                                                                 addresses.push_back(address);
                                                                 EXPECT_EQ(length, sizeof(sockaddr_in));
                                                                 return hook::connect.real(fd, address, length);
                                                             }};
};

TEST(SocketOpen, ConnectsToTheFirstAddressThatAnswersInListOrderWithOneSocket) {
    const Listener listener;
    const Listener unused;
    sockaddr_in refused = refusing_address();
    sockaddr_in refused_too = refusing_address();
    sockaddr_in answering = listener.address;
    sockaddr_in behind = unused.address;
    addrinfo fourth = entry_of(behind);
    addrinfo third = entry_of(answering, &fourth);
    addrinfo second = entry_of(refused_too, &third);
    const addrinfo first = entry_of(refused, &second);
    const Connects connects;
    const Descriptor connected(platform_socket_open(&first, 0, 0));
    ASSERT_NE(connected.fd, -1);
    EXPECT_EQ(connects.addresses, (std::vector<const sockaddr *>{first.ai_addr, second.ai_addr, third.ai_addr}));
    EXPECT_EQ(connects.fds, std::vector<int>(3, connected.fd));
    EXPECT_TRUE(has_no_delay(connected.fd));
    EXPECT_TRUE(is_close_on_exec(connected.fd));
}

TEST(SocketOpen, WhenNoAddressAnswersTheSocketIsClosedAndTheLastErrorKept) {
    sockaddr_in address = refusing_address();
    addrinfo second = entry_of(address);
    const addrinfo first = entry_of(address, &second);
    int calls = 0;
    const Interposed failing(hook::connect, [&calls](int, const sockaddr *, socklen_t) {
        errno = ++calls == 1 ? ETIMEDOUT : ENETUNREACH;
        return -1;
    });
    int closed = 0;
    const Interposed closing(hook::close, [&closed](int fd) {
        ++closed;
        return hook::close.real(fd);
    });
    EXPECT_EQ(platform_socket_open(&first, 0, 0), -1);
    EXPECT_EQ(errno, ENETUNREACH);
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(closed, 1);
}

TEST(SocketOpen, TheCloseBehindARefusedConnectionDoesNotHideWhy) {
    sockaddr_in address = refusing_address();
    const addrinfo entry = entry_of(address);
    EXPECT_EQ(platform_socket_open(&entry, 0, 0), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
}

TEST(SocketOpen, AnInterruptedConnectIsAFailure) {
    const Listener listener;
    sockaddr_in address = listener.address;
    const addrinfo entry = entry_of(address);
    const Interposed failing(hook::connect, fail_nth(hook::connect, 0, EINTR, -1));
    const Descriptor connected(platform_socket_open(&entry, 0, 0));
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(connected.fd, -1);
}

TEST(SocketOpen, AnInterruptedConnectIsFollowedByTheNextAddress) {
    const Listener listener;
    sockaddr_in nowhere = refusing_address();
    sockaddr_in address = listener.address;
    addrinfo second = entry_of(address);
    const addrinfo first = entry_of(nowhere, &second);
    std::vector<std::pair<int, const void *>> calls;
    const Interposed failing(hook::connect, [&calls](int fd, const sockaddr *to, socklen_t length) {
        calls.emplace_back(fd, to);
        errno = EINTR;
        return calls.size() == 1 ? -1 : hook::connect.real(fd, to, length);
    });
    const Descriptor connected(platform_socket_open(&first, 0, 0));
    ASSERT_NE(connected.fd, -1);
    EXPECT_EQ(calls, (std::vector<std::pair<int, const void *>>{{connected.fd, &nowhere}, {connected.fd, &address}}));
    EXPECT_TRUE(has_no_delay(connected.fd));
}

// The errors that three addresses fail with in turn, and the one that is left.
int left_of(std::vector<int> errors) {
    sockaddr_in address = refusing_address();
    addrinfo third = entry_of(address);
    addrinfo second = entry_of(address, &third);
    const addrinfo first = entry_of(address, &second);
    size_t calls = 0;
    const Interposed failing(hook::connect, [&](int, const sockaddr *, socklen_t) {
        errno = calls < errors.size() ? errors[calls] : 0;
        ++calls;
        return -1;
    });
    EXPECT_EQ(platform_socket_open(&first, 0, 0), -1);
    const int left = errno;
    EXPECT_EQ(calls, errors.size());
    return left;
}

TEST(SocketOpen, AnInterruptionAmongTheFailuresIsTheErrorThatIsLeft) {
    EXPECT_EQ(left_of({EINTR, ECONNREFUSED, ENETUNREACH}), EINTR);
    EXPECT_EQ(left_of({ECONNREFUSED, EINTR, ENETUNREACH}), EINTR);
    EXPECT_EQ(left_of({ECONNREFUSED, ENETUNREACH, EINTR}), EINTR);
    EXPECT_EQ(left_of({ENETUNREACH, EINTR, EINTR}), EINTR);
    EXPECT_EQ(left_of({EHOSTUNREACH, ECONNREFUSED, ENETUNREACH}), ENETUNREACH);
}

TEST(SocketOpen, ASocketThatCannotBeMadeIsMinusOne) {
    sockaddr_in address = refusing_address();
    const addrinfo entry = entry_of(address);
    const Interposed failing(hook::socket, fail_always(hook::socket, EMFILE, -1));
    EXPECT_EQ(platform_socket_open(&entry, 1, 1), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(platform_socket_open(&entry, 0, 1), -1);
}

TEST(SocketOpen, TheSocketIsOfTheFirstEntrysKind) {
    sockaddr_in address = refusing_address();
    addrinfo second = entry_of(address);
    addrinfo first = entry_of(address, &second);
    first.ai_family = AF_UNIX;
    first.ai_socktype = SOCK_SEQPACKET;
    first.ai_protocol = 123;
    std::vector<int> asked;
    const Interposed looking(hook::socket, [&asked](int family, int type, int protocol) {
        asked = {family, type, protocol};
        return -1;
    });
    EXPECT_EQ(platform_socket_open(&first, 0, 0), -1);
    EXPECT_EQ(asked, (std::vector<int>{AF_UNIX, SOCK_SEQPACKET, 123}));
}

TEST(SocketOpen, AServerIsBoundToTheFirstAddressAndListensWithTheBacklog) {
    sockaddr_in address = refusing_address();
    sockaddr_in other = refusing_address();
    addrinfo second = entry_of(other);
    const addrinfo first = entry_of(address, &second);
    int backlog = -1;
    const Interposed looking(hook::listen, [&backlog](int fd, int length) {
        backlog = length;
        return hook::listen.real(fd, length);
    });
    const Descriptor server(platform_socket_open(&first, 1, 17));
    ASSERT_NE(server.fd, -1);
    EXPECT_EQ(backlog, 17);
    EXPECT_TRUE(is_close_on_exec(server.fd));
    const Descriptor client(connect_to(address));
}

TEST(SocketOpen, ADatagramServerDoesNotListen) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addrinfo entry = entry_of(address);
    entry.ai_socktype = SOCK_DGRAM;
    entry.ai_protocol = 0;
    const Interposed failing(hook::listen, fail_always(hook::listen, EOPNOTSUPP, -1));
    const Descriptor server(platform_socket_open(&entry, 1, 1));
    ASSERT_NE(server.fd, -1);
    EXPECT_EQ(type_of(server.fd), SOCK_DGRAM);
}

TEST(SocketOpen, AServerThatCannotBindOrListenIsClosedAndItsErrorKept) {
    sockaddr_in address = refusing_address();
    sockaddr_in other = refusing_address();
    addrinfo second = entry_of(other); // a server does not try it
    const addrinfo first = entry_of(address, &second);
    {
        const Interposed failing(hook::bind, fail_always(hook::bind, EACCES, -1));
        EXPECT_EQ(platform_socket_open(&first, 1, 1), -1);
        EXPECT_EQ(errno, EACCES);
    }
    const Interposed failing(hook::listen, fail_always(hook::listen, EADDRINUSE, -1));
    EXPECT_EQ(platform_socket_open(&first, 1, 1), -1);
    EXPECT_EQ(errno, EADDRINUSE);
}

TEST(SocketOpen, AnEmptyListIsMinusOne) {
    EXPECT_EQ(platform_socket_open(nullptr, 0, 0), -1);
    EXPECT_EQ(platform_socket_open(nullptr, 1, 1), -1);
}

TEST(SocketClose, EndsBothDirectionsAlsoForACopyOfTheDescriptor) {
    SocketPair pair;
    const Descriptor copy(fcntl(pair.ours.fd, F_DUPFD_CLOEXEC, 0));
    EXPECT_EQ(platform_socket_close(pair.ours.fd), 0);
    EXPECT_FALSE(is_open(pair.ours.fd));
    pair.ours.fd = -1;
    char byte = '\0';
    EXPECT_EQ(recv(pair.theirs.fd, &byte, 1, MSG_DONTWAIT), 0);
    EXPECT_EQ(recv(copy.fd, &byte, 1, MSG_DONTWAIT), 0);
}

TEST(SocketClose, ReturnsTheResultOfTheClose) {
    EXPECT_EQ(platform_socket_close(-1), -1);
    EXPECT_EQ(errno, EBADF);
    Descriptor unconnected(socket(AF_INET, SOCK_STREAM, 0)); // cannot be shut down, can be closed
    EXPECT_EQ(platform_socket_close(unconnected.fd), 0);
    unconnected.fd = -1;
}

TEST(SocketClose, ShutsDownBeforeItCloses) {
    std::string calls;
    const Interposed shutting(hook::shutdown, [&calls](int fd, int how) {
        calls += "shutdown " + std::to_string(fd) + " " + std::to_string(how) + "\n";
        return -1;
    });
    const Interposed closing(hook::close, [&calls](int fd) {
        calls += "close " + std::to_string(fd) + "\n";
        return -7;
    });
    EXPECT_EQ(platform_socket_close(77), -7);
    EXPECT_EQ(calls, "shutdown 77 2\nclose 77\n");
}

TEST(SocketClose, ASuccessLeavesErrnoAsItWas) {
    Descriptor unconnected(socket(AF_INET, SOCK_STREAM, 0)); // cannot be shut down
    errno = E2BIG;
    EXPECT_EQ(platform_socket_close(unconnected.fd), 0);
    EXPECT_EQ(errno, E2BIG);
    unconnected.fd = -1;
}

TEST(SocketClose, AFailureHasTheErrorOfTheClose) {
    const Interposed shutting(hook::shutdown, fail_always(hook::shutdown, ENOTCONN, -1));
    const Interposed closing(hook::close, fail_always(hook::close, EIO, -1));
    errno = E2BIG;
    EXPECT_EQ(platform_socket_close(77), -1);
    EXPECT_EQ(errno, EIO);
}

TEST(SocketToolkit, CarriesMessagesBothWaysOverTcp) {
    int port = 0;
    const Listener somewhere; // a range that begins with a port in use
    const int server = platform_server_socket_open(somewhere.port, somewhere.port + 100, &port);
    ASSERT_NE(server, -1);
    const Descriptor client(platform_connect_host("localhost", port));
    const Descriptor accepted(platform_accept_timeout(server, 60));
    ASSERT_NE(accepted.fd, -1);
    const CurrentBuffer buffer;
    const Dispatched dispatched;
    const Descriptor *ends[] = {&client, &accepted};
    for (const int from : {0, 1}) {
        EXPECT_EQ(platform_send_message(ends[from]->fd, "A", "B", static_cast<char *>(nullptr)), 1);
        EXPECT_EQ(platform_get_one_message(ends[1 - from]->fd, handle_message, nullptr, 1), 1);
    }
    EXPECT_EQ(dispatched.messages, (std::vector<Message>{{"A", "B"}, {"A", "B"}}));
}

} // namespace
