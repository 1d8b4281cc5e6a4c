// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Opening a listening socket at the first free port of a range.
#include "socket_support.h"

#include <support/interpose.h>

#include <arpa/inet.h>
#include <cstring>

namespace {

using namespace zel::test;
namespace hook = zel::test::hook;

// The port that an address asks for.
int port_of(const sockaddr *address) {
    sockaddr_in copy = {};
    memcpy(&copy, address, sizeof copy);
    return ntohs(copy.sin_port);
}

// Refuses that many ports as taken; later ones get any free port. Keeps the ports that were asked for.
struct TakenPorts {
    explicit TakenPorts(int taken) : left(taken) {}
    int left;
    std::vector<int> asked;
    Interposed<int(int, const sockaddr *, socklen_t)> hooked{
        hook::bind, [this](int fd, const sockaddr *address, socklen_t length) {
            asked.push_back(port_of(address));
            if (left-- > 0) {
                errno = EADDRINUSE;
                return -1;
            }
            sockaddr_in free_port = {};
            memcpy(&free_port, address, sizeof free_port);
            free_port.sin_port = 0;
            return hook::bind.real(fd, reinterpret_cast<const sockaddr *>(&free_port), length);
        }};
};

// Counts lookups, and gives the result of one that is made up.
struct Lookups {
    int looked_up = 0;
    int freed = 0;
    sockaddr_in6 address = {};
    addrinfo answer = {};
    Interposed<int(const char *, const char *, const addrinfo *, addrinfo **)> looking{
        hook::getaddrinfo, [this](const char *, const char *, const addrinfo *, addrinfo **list) {
            ++looked_up;
            *list = &answer;
            return 0;
        }};
    Interposed<void(addrinfo *)> freeing{hook::freeaddrinfo, [this](addrinfo *list) {
                                             EXPECT_EQ(list, &answer);
                                             ++freed;
                                         }};
    explicit Lookups(const char *ipv4, int type = SOCK_STREAM) {
        sockaddr_in group = {};
        group.sin_family = AF_INET;
        EXPECT_EQ(inet_pton(AF_INET, ipv4, &group.sin_addr), 1);
        memcpy(&address, &group, sizeof group);
        answer.ai_family = AF_INET;
        answer.ai_socktype = type;
        answer.ai_addr = reinterpret_cast<sockaddr *>(&address);
        answer.ai_addrlen = sizeof group;
    }
};

TEST(ServerSocket, ListensOnThePortThatItStores) {
    const TakenPorts ports(0);
    int chosen = -1;
    const Descriptor server(platform_server_socket_open(4000, 4001, &chosen));
    ASSERT_NE(server.fd, -1);
    EXPECT_EQ(chosen, 4000);
    EXPECT_EQ(ports.asked, std::vector<int>{4000});
}

TEST(ServerSocket, TakesTheNextFreePortWhenTheFirstIsTaken) {
    const Listener taken;
    int chosen = -1;
    const Descriptor server(platform_server_socket_open(taken.port, taken.port + 100, &chosen));
    ASSERT_NE(server.fd, -1);
    EXPECT_GT(chosen, taken.port);
    sockaddr_in address = taken.address;
    address.sin_port = htons(static_cast<uint16_t>(chosen));
    const Descriptor client(connect_to(address)); // somebody listens there
    const Descriptor accepted(platform_accept_retry(server.fd, nullptr, nullptr));
    EXPECT_NE(accepted.fd, -1);
}

TEST(ServerSocket, TriesThePortsInOrder) {
    const TakenPorts ports(3);
    int chosen = -1;
    const Descriptor server(platform_server_socket_open(4000, 4010, &chosen));
    EXPECT_NE(server.fd, -1);
    EXPECT_EQ(chosen, 4003);
    EXPECT_EQ(ports.asked, (std::vector<int>{4000, 4001, 4002, 4003}));
}

TEST(ServerSocket, ThePortNeedNotBeAskedFor) {
    const TakenPorts ports(0);
    const Descriptor server(platform_server_socket_open(4000, 4001, nullptr));
    EXPECT_NE(server.fd, -1);
}

TEST(ServerSocket, ProgramsDoNotInheritIt) {
    const TakenPorts ports(0);
    const Descriptor server(platform_server_socket_open(4000, 4001, nullptr));
    EXPECT_TRUE(is_close_on_exec(server.fd));
}

TEST(ServerSocket, TheEndPortIsNotTriedAndTheFailureReported) {
    const Outcome outcome = run_with_reports([] {
        const TakenPorts ports(100);
        int chosen = -7;
        const int result = platform_server_socket_open(4000, 4003, &chosen);
        printf("%d %d %zu %d %d\n", result, chosen, ports.asked.size(), ports.asked.back(), errno == EADDRINUSE);
    });
    EXPECT_EQ(outcome.out, "server sock open failed : Address already in use\n-1 -7 3 4002 1\n");
    EXPECT_EQ(outcome.err, "");
}

TEST(ServerSocket, AnEmptyRangeIsReportedWithoutALookup) {
    const Outcome outcome = run_with_reports([] {
        int lookups = 0;
        const Interposed counting(hook::getaddrinfo,
                                  [&lookups](const char *, const char *, const addrinfo *, addrinfo **) {
                                      ++lookups;
                                      return EAI_FAIL;
                                  });
        errno = ENOENT;
        const int same = platform_server_socket_open(4000, 4000, nullptr);
        const int reversed = platform_server_socket_open(4001, 4000, nullptr);
        printf("%d %d %d %d\n", same, reversed, lookups, errno == EINVAL);
    });
    EXPECT_EQ(outcome.out, "server sock open failed : Invalid argument\n"
                           "server sock open failed : Invalid argument\n-1 -1 0 1\n");
}

TEST(ServerSocket, ANumberThatIsNoPortEndsTheSearch) {
    const Outcome outcome = run_with_reports([] {
        const TakenPorts ports(100);
        const int beyond = platform_server_socket_open(65534, 65540, nullptr);
        printf("%d %zu %d\n", beyond, ports.asked.size(), ports.asked.back());
        const int below = platform_server_socket_open(-1, 65536, nullptr);
        printf("%d %zu %d\n", below, ports.asked.size(), errno == EINVAL);
    });
    EXPECT_EQ(outcome.out, "server sock open failed : Invalid argument\n-1 2 65535\n"
                           "server sock open failed : Invalid argument\n-1 2 1\n");
    EXPECT_EQ(outcome.err, "");
}

TEST(ServerSocket, LooksUpLocalhostForEachPort) {
    std::vector<std::string> lookups;
    const Interposed looking(hook::getaddrinfo,
                             [&lookups](const char *host, const char *service, const addrinfo *hints, addrinfo **list) {
                                 lookups.push_back(std::string(host) + " " + service);
                                 EXPECT_EQ(hints->ai_flags, 0);
                                 EXPECT_EQ(hints->ai_family, AF_INET);
                                 EXPECT_EQ(hints->ai_socktype, SOCK_STREAM);
                                 EXPECT_EQ(hints->ai_protocol, 6);
                                 return hook::getaddrinfo.real(host, service, hints, list);
                             });
    const TakenPorts ports(1);
    const Descriptor server(platform_server_socket_open(4000, 4010, nullptr));
    EXPECT_EQ(lookups, (std::vector<std::string>{"localhost 4000", "localhost 4001"}));
}

TEST(ServerSocket, ListensWithABacklogOfOne) {
    const TakenPorts ports(0);
    int backlog = -1;
    const Interposed looking(hook::listen, [&backlog](int fd, int length) {
        backlog = length;
        return hook::listen.real(fd, length);
    });
    const Descriptor server(platform_server_socket_open(4000, 4001, nullptr));
    EXPECT_EQ(backlog, 1);
}

TEST(ServerSocket, APortThatCannotListenIsSkipped) {
    const TakenPorts ports(0);
    const Interposed failing(hook::listen, fail_nth(hook::listen, 0, EADDRINUSE, -1));
    int chosen = -1;
    const Descriptor server(platform_server_socket_open(4000, 4010, &chosen));
    EXPECT_NE(server.fd, -1);
    EXPECT_EQ(chosen, 4001);
}

TEST(ServerSocket, AFailedLookupEndsTheSearch) {
    const Outcome outcome = run_with_reports([] {
        int lookups = 0;
        const Interposed failing(hook::getaddrinfo,
                                 [&lookups](const char *, const char *, const addrinfo *, addrinfo **) {
                                     ++lookups;
                                     return EAI_NONAME;
                                 });
        const int result = platform_server_socket_open(4000, 4010, nullptr);
        printf("%d %d\n", result, lookups);
    });
    EXPECT_EQ(outcome.out, "server sock open failed : Cannot assign requested address\n-1 1\n");
}

TEST(ServerSocket, ALookupThatTheSystemFailedKeepsItsError) {
    const Outcome outcome = run_with_reports([] {
        const Interposed failing(hook::getaddrinfo, [](const char *, const char *, const addrinfo *, addrinfo **) {
            errno = EMFILE;
            return EAI_SYSTEM;
        });
        printf("%d\n", platform_server_socket_open(4000, 4010, nullptr));
    });
    EXPECT_EQ(outcome.out, "server sock open failed : Too many open files\n-1\n");
}

TEST(ServerSocket, AGroupAddressIsRefusedEndsTheSearchAndIsFreed) {
    for (const char *group : {"224.0.0.0", "224.0.0.1", "239.255.255.255"}) {
        const Outcome outcome = run_with_reports([group] {
            const Lookups lookups(group);
            const int result = platform_server_socket_open(4000, 4010, nullptr);
            printf("%d %d %d\n", result, lookups.looked_up, lookups.freed);
        });
        EXPECT_EQ(outcome.out, "server sock open failed : Cannot assign requested address\n-1 1 1\n");
    }
}

TEST(ServerSocket, TheAddressesBesideTheGroupsAreTried) {
    for (const char *address : {"223.255.255.255", "240.0.0.0"}) {
        const Lookups lookups(address);
        const Interposed failing(hook::bind, fail_always(hook::bind, EADDRNOTAVAIL, -1));
        EXPECT_EQ(platform_server_socket_open(4000, 4003, nullptr), -1);
        EXPECT_EQ(lookups.looked_up, 3);
        EXPECT_EQ(lookups.freed, 3);
    }
}

TEST(ServerSocket, AGroupAddressOfDatagramsIsNotRefused) {
    const Lookups lookups("224.0.0.1", SOCK_DGRAM);
    const Interposed binding(hook::bind, [](int, const sockaddr *, socklen_t) { return 0; });
    const Descriptor server(platform_server_socket_open(4000, 4003, nullptr));
    EXPECT_NE(server.fd, -1);
}

TEST(ServerSocket, AnIpv6AddressIsTakenWhateverItsBytes) {
    Lookups lookups("224.0.0.1");
    lookups.answer.ai_family = AF_INET6;
    int family = -1;
    const Interposed opening(hook::socket, [&family](int asked, int type, int protocol) {
        family = asked;
        return hook::socket.real(AF_INET, type, protocol);
    });
    const Interposed binding(hook::bind, [](int, const sockaddr *, socklen_t) { return 0; });
    const Descriptor server(platform_server_socket_open(4000, 4003, nullptr));
    EXPECT_NE(server.fd, -1);
    EXPECT_EQ(family, AF_INET6);
}

TEST(ServerSocket, AnAddressOfAnotherFamilyIsRefused) {
    Lookups lookups("127.0.0.1");
    lookups.answer.ai_family = AF_UNIX;
    EXPECT_EQ(platform_server_socket_open(4000, 4003, nullptr), -1);
    EXPECT_EQ(lookups.looked_up, 1);
    EXPECT_EQ(lookups.freed, 1);
}

TEST(ServerSocket, OnlyTheAddressesOfPortsThatFailedAreFreed) {
    std::vector<addrinfo *> looked_up;
    std::vector<addrinfo *> freed;
    const Interposed looking(
        hook::getaddrinfo, [&looked_up](const char *host, const char *service, const addrinfo *hints, addrinfo **list) {
            const int result = hook::getaddrinfo.real(host, service, hints, list);
            looked_up.push_back(*list);
            return result;
        });
    const Interposed freeing(hook::freeaddrinfo, [&freed](addrinfo *list) { freed.push_back(list); });
    const TakenPorts ports(2);
    const Descriptor server(platform_server_socket_open(4000, 4010, nullptr));
    ASSERT_EQ(looked_up.size(), 3U);
    EXPECT_EQ(freed, (std::vector<addrinfo *>{looked_up[0], looked_up[1]}));
    for (addrinfo *list : looked_up) {
        hook::freeaddrinfo.real(list);
    }
}

TEST(ServerSocket, LeavesErrnoAloneWhenTheFirstPortIsFree) {
    const TakenPorts ports(0);
    const Lookups lookups("127.0.0.1"); // the lookup itself may try several ways
    errno = ENOENT;
    const Descriptor server(platform_server_socket_open(4000, 4001, nullptr));
    EXPECT_EQ(errno, ENOENT);
}

} // namespace
