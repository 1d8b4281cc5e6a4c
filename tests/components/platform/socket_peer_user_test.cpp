// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Who is at the other end of a connection: Unix sockets, TCP on this machine, and nobody.
#include "socket_support.h"

#include <components/platform/message_lines.h>
#include <support/census.h>
#include <support/files.h>
#include <support/interpose.h>

#include <arpa/inet.h>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <set>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace zel::test;
namespace hook = zel::test::hook;

constexpr uid_t kStranger = 54321;

int64_t own_user() {
    return static_cast<int64_t>(geteuid());
}

// The error with which nobody is told.
int error_of(int socket) {
    errno = 0;
    EXPECT_EQ(platform_peer_user(socket), -1);
    return errno;
}

// A connection within this machine: the library looks at the accepted end, the peer holds the other one.
struct Connection {
    explicit Connection(int family = AF_INET) {
        sockaddr_storage address = {};
        address.ss_family = static_cast<sa_family_t>(family);
        socklen_t length = family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
        set_loopback(address);
        const Descriptor listening(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(bind(listening.fd, reinterpret_cast<sockaddr *>(&address), length), 0) << strerror(errno);
        EXPECT_EQ(listen(listening.fd, 4), 0);
        getsockname(listening.fd, reinterpret_cast<sockaddr *>(&address), &length);
        theirs.fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(connect(theirs.fd, reinterpret_cast<sockaddr *>(&address), length), 0);
        ours.fd = accept4(listening.fd, nullptr, nullptr, SOCK_CLOEXEC);
    }
    static void set_loopback(sockaddr_storage &address) {
        if (address.ss_family == AF_INET) {
            reinterpret_cast<sockaddr_in &>(address).sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        } else {
            reinterpret_cast<sockaddr_in6 &>(address).sin6_addr = in6addr_loopback;
        }
    }
    Descriptor theirs{-1};
    Descriptor ours{-1};
};

in_port_t port_of(int fd, bool peer) {
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    auto *any = reinterpret_cast<sockaddr *>(&address);
    EXPECT_EQ(peer ? getpeername(fd, any, &length) : getsockname(fd, any, &length), 0);
    return ntohs(address.sin_port);
}

// ---- Who is there ---------------------------------------------------------------------------------------------------

TEST(PeerUser, OfAPairIsWhoMadeIt) {
    const SocketPair pair;
    EXPECT_EQ(platform_peer_user(pair.ours.fd), own_user());
}

TEST(PeerUser, OfATcpConnectionIsToldAtBothEnds) {
    const Connection connection;
    EXPECT_EQ(platform_peer_user(connection.ours.fd), own_user());
    EXPECT_EQ(platform_peer_user(connection.theirs.fd), own_user());
}

TEST(PeerUser, OfAConnectionOfTheLibrarysIsTold) {
    int port = 0;
    const int listening = platform_server_socket_open(20000, 30000, &port);
    const Descriptor theirs(platform_connect_host("localhost", port));
    const Descriptor ours(platform_accept_once(listening));
    EXPECT_EQ(platform_peer_user(ours.fd), own_user());
}

bool has_ipv6() {
    const Descriptor fd(socket(AF_INET6, SOCK_STREAM, 0));
    sockaddr_in6 address = {};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    return fd.fd != -1 && bind(fd.fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
}

TEST(PeerUser, OfAnIpv6ConnectionIsTold) {
    if (has_ipv6()) {
        const Connection connection(AF_INET6);
        EXPECT_EQ(platform_peer_user(connection.ours.fd), own_user());
    }
}

// Plays a peer of another user, if this process may: connects to the port, and stays until the stream ends.
pid_t start_stranger(int port) {
    const pid_t pid = fork();
    if (pid != 0) {
        return pid;
    }
    alarm(60);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<in_port_t>(port));
    char byte;
    if (geteuid() == 0 && setuid(kStranger) != 0) {
        _exit(1);
    }
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    const bool served = connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 &&
                        send(fd, "x", 1, 0) == 1 && recv(fd, &byte, 1, 0) == 0;
    _exit(served ? 0 : 1);
}

TEST(PeerUser, OfAStrangerIsTheStrangersNumber) {
    const Listener listener;
    const pid_t stranger = start_stranger(listener.port);
    Descriptor ours(accept4(listener.fd.fd, nullptr, nullptr, SOCK_CLOEXEC));
    EXPECT_EQ(platform_peer_user(ours.fd), geteuid() == 0 ? kStranger : own_user());
    char byte;
    EXPECT_EQ(recv(ours.fd, &byte, 1, 0), 1);
    ours.close();
    int status = -1;
    EXPECT_EQ(waitpid(stranger, &status, 0), stranger);
    EXPECT_EQ(status, 0);
}

TEST(PeerUser, OfAUnixStrangerIsTheStrangersNumber) {
    const ScratchFolder folder;
    EXPECT_EQ(chmod(folder.path.c_str(), 0777), 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, (folder.path + "/socket").c_str(), folder.path.size() + 8);
    const Descriptor listening(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(bind(listening.fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(chmod(address.sun_path, 0777), 0);
    ASSERT_EQ(listen(listening.fd, 4), 0);
    EXPECT_EQ(error_of(listening.fd), ENOTCONN);
    const pid_t stranger = fork();
    if (stranger == 0) {
        const bool changed = geteuid() != 0 || setuid(kStranger) == 0;
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        char byte;
        const bool ended =
            connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 && recv(fd, &byte, 1, 0) == 0;
        _exit(changed && ended ? 0 : 1);
    }
    Descriptor ours(accept4(listening.fd, nullptr, nullptr, SOCK_CLOEXEC));
    EXPECT_EQ(platform_peer_user(ours.fd), geteuid() == 0 ? kStranger : own_user());
    ours.close();
    int status = -1;
    EXPECT_EQ(waitpid(stranger, &status, 0), stranger);
    EXPECT_EQ(status, 0);
}

// ---- Nobody ---------------------------------------------------------------------------------------------------------

TEST(PeerUser, APeerThatHasClosedIsNobody) {
    Connection connection;
    connection.theirs.close();
    EXPECT_EQ(error_of(connection.ours.fd), EADDRNOTAVAIL) << "its row shows the user 0";
}

TEST(PeerUser, APeerThatHasNotAcceptedIsNobody) {
    const Listener listener;
    const Descriptor ours(connect_to(listener.address));
    EXPECT_EQ(error_of(ours.fd), EADDRNOTAVAIL) << "its row shows the user 0";
}

TEST(PeerUser, APeerThatHasShutItsStreamDownIsStillThere) {
    const Connection connection;
    shutdown(connection.theirs.fd, SHUT_WR);
    EXPECT_EQ(platform_peer_user(connection.ours.fd), own_user());
}

TEST(PeerUser, WhatIsNotConnectedOrNoStreamSocketHasNone) {
    const Descriptor tcp(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(error_of(tcp.fd), ENOTCONN);
    EXPECT_EQ(error_of(-1), EBADF);
    const Descriptor file(open("/dev/null", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(error_of(file.fd), ENOTSOCK);
    const Connection connection; // its ends have the addresses of a TCP connection
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    getpeername(connection.ours.fd, reinterpret_cast<sockaddr *>(&address), &length);
    const Descriptor udp(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(connect(udp.fd, reinterpret_cast<sockaddr *>(&address), length), 0);
    EXPECT_EQ(error_of(udp.fd), EOPNOTSUPP);
}

// ---- The system's table, as a file of the test's --------------------------------------------------------------------

// Row text of an IPv4 table whose socket stands at the peer's end of the connection.
std::string row(const Connection &connection, const std::string &state, uint32_t user, int inode) {
    char text[200];
    snprintf(text, sizeof text,
             "   7: 0100007F:%04X 0100007F:%04X %s 00000000:00000000 00:00000000 00000000 %5u        0 %d 1",
             static_cast<unsigned>(port_of(connection.ours.fd, true)),
             static_cast<unsigned>(port_of(connection.ours.fd, false)), state.c_str(), user, inode);
    return text + std::string("\n");
}

// The same socket in the IPv6 table.
std::string mapped(std::string row) {
    for (size_t at = row.find(" 0100007F:"); at != std::string::npos; at = row.find(" 0100007F:", at + 10)) {
        row.replace(at, 1, " 0000000000000000FFFF0000");
    }
    return row;
}

// Shows the library these tables in the scope of a test. No table: the file is not there.
struct Tables {
    Tables(const std::string &tcp, const std::optional<std::string> &tcp6) {
        write_file(folder.path + "/tcp", tcp);
        if (tcp6) {
            write_file(folder.path + "/tcp6", *tcp6);
        }
    }
    int open_table(const char *path, int flags, mode_t mode) {
        const std::string name = path;
        if (!name.starts_with("/proc/net/")) {
            return hook::open.real(path, flags, mode);
        }
        if (opened++ == failing_open) {
            errno = EMFILE;
            return -1;
        }
        return hook::open.real((folder.path + name.substr(9)).c_str(), flags, mode);
    }
    ScratchFolder folder;
    int opened = 0;
    int failing_open = -1; // from 0
    Interposed<int(const char *, int, mode_t)> opening{
        hook::open, [this](const char *path, int flags, mode_t mode) { return open_table(path, flags, mode); }};
};

constexpr const char *kHead = "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid\n";

// What the tables tell about a connection.
int64_t user_by(const Connection &connection, const std::string &tcp, const std::optional<std::string> &tcp6) {
    int64_t user = -1;
    int error = 0;
    {
        const Tables tables(kHead + tcp, tcp6);
        errno = 0;
        user = platform_peer_user(connection.ours.fd);
        error = errno;
    }
    errno = error;
    return user;
}

TEST(PeerUserTable, TheRowOfThePeerCountsAndNotOurOwn) {
    const Connection connection;
    Connection swapped;
    std::swap(swapped.ours.fd, swapped.theirs.fd);
    std::string own = row(connection, "01", 77, 5);
    const std::string peer = own.substr(6, 27);
    own.replace(6, 27, peer.substr(14, 13) + " " + peer.substr(0, 13));
    EXPECT_EQ(user_by(connection, own + row(connection, "01", 1234, 6), ""), 1234);
    EXPECT_EQ(user_by(connection, own, ""), -1);
    EXPECT_EQ(errno, EADDRNOTAVAIL);
}

TEST(PeerUserTable, OnlyAConnectionThatAProcessHoldsIsTrusted) {
    const Connection connection;
    for (const char *state : {"01", "04", "05", "08"}) {
        EXPECT_EQ(user_by(connection, row(connection, state, 1234, 6), ""), 1234) << state;
        EXPECT_EQ(user_by(connection, row(connection, state, 0, 0), ""), -1) << state;
    }
    for (const char *state : {"02", "03", "06", "07", "09", "0A", "0B", "0C"}) {
        EXPECT_EQ(user_by(connection, row(connection, state, 0, 6), ""), -1) << state;
        EXPECT_EQ(errno, EADDRNOTAVAIL);
    }
}

TEST(PeerUserTable, APeerWithAnIpv6SocketStandsInTheOtherTable) {
    const Connection connection;
    EXPECT_EQ(user_by(connection, "", kHead + mapped(row(connection, "01", 1234, 6))), 1234);
    EXPECT_EQ(user_by(connection, "", kHead + mapped(row(connection, "01", 0, 0))), -1);
}

TEST(PeerUserTable, ASystemWithoutIpv6HasNoSecondTable) {
    const Connection connection;
    EXPECT_EQ(user_by(connection, row(connection, "01", 1234, 6), std::nullopt), 1234);
    EXPECT_EQ(user_by(connection, "", std::nullopt), -1);
    EXPECT_EQ(errno, EADDRNOTAVAIL);
}

TEST(PeerUserTable, ARowIsFoundBehindThousandsAndAcrossEveryRead) {
    const Connection connection;
    std::string few;
    std::string others;
    for (int place = 0; place < 10000; ++place) {
        others += "  12: 0100007F:0001 0100007F:0002 01 00000000:00000000 00:00000000 00000000     0        0 9 1\n";
        few = place == 40 ? others : few;
    }
    EXPECT_EQ(user_by(connection, others + row(connection, "01", 4000000000U, 6), ""), 4000000000);
    const Interposed short_reads(hook::read, [](int fd, void *buffer, size_t size) {
        return hook::read.real(fd, buffer, std::min<size_t>(size, 7));
    });
    EXPECT_EQ(user_by(connection, few + row(connection, "01", 1234, 6), ""), 1234);
}

TEST(PeerUserTable, NonsenseIsNobody) {
    const Connection connection;
    const std::string good = row(connection, "01", 1234, 6);
    for (const std::string &table :
         {std::string(), std::string("\n\n\n"), std::string(100000, 'x'), good.substr(0, good.size() - 1),
          good.substr(0, 40) + "\n", std::string(10000, ':') + "\n", good.substr(6)}) {
        EXPECT_EQ(user_by(connection, table, ""), -1) << table.substr(0, 80);
    }
    EXPECT_EQ(user_by(connection, std::string(9000, 'x') + "\n" + good, ""), 1234);
}

TEST(PeerUserTable, AMachineThatIsNotThisOneIsNotLookedUp) {
    const Connection connection;
    const Interposed elsewhere(hook::getpeername, [](int fd, sockaddr *address, socklen_t *length) {
        const int result = hook::getpeername.real(fd, address, length);
        reinterpret_cast<sockaddr_in *>(address)->sin_addr.s_addr = inet_addr("192.0.2.1");
        return result;
    });
    int opened = 0;
    const Interposed opening(hook::open, [&opened](const char *path, int flags, mode_t mode) {
        ++opened;
        return hook::open.real(path, flags, mode);
    });
    EXPECT_EQ(error_of(connection.ours.fd), EADDRNOTAVAIL);
    EXPECT_EQ(opened, 0);
}

// ---- Failures -------------------------------------------------------------------------------------------------------

// Fails the n-th call of a function, n = 0, 1, 2 ..., until the user is told. Returns how often it failed.
template <typename Signature, typename Result>
int failures_of(Hook<Signature> &hook, const Connection &connection, int error, Result result) {
    const std::string tcp6 = kHead + mapped(row(connection, "01", 1234, 6));
    const Tables tables(kHead, tcp6); // both tables are read
    for (int nth = 0;; ++nth) {
        const std::set<int> before = open_descriptors();
        int64_t user = -1;
        {
            const Interposed failing(hook, fail_nth(hook, nth, error, result));
            user = platform_peer_user(connection.ours.fd);
            EXPECT_EQ(user == -1 ? errno : error, error);
        }
        EXPECT_EQ(open_descriptors(), before);
        if (user != -1 || nth > 20) {
            EXPECT_EQ(user, 1234);
            return nth;
        }
    }
}

TEST(PeerUserFailure, EachStepThatFailsIsTold) {
    const Connection connection;
    EXPECT_EQ(failures_of(hook::getpeername, connection, ENOBUFS, -1), 1);
    EXPECT_EQ(failures_of(hook::getsockname, connection, ENOBUFS, -1), 1);
    EXPECT_GE(failures_of(hook::read, connection, EIO, ssize_t{-1}), 3);
    EXPECT_EQ(failures_of(hook::read, connection, EINTR, ssize_t{-1}), 0) << "an interrupted read goes on";
}

TEST(PeerUserFailure, ATableThatCannotBeOpenedIsNotAnEmptyOne) {
    const Connection connection;
    const std::string tcp6 = kHead + mapped(row(connection, "01", 1234, 6));
    for (const int failing : {0, 1}) {
        Tables tables(kHead, tcp6);
        tables.failing_open = failing;
        EXPECT_EQ(error_of(connection.ours.fd), EMFILE);
    }
}

TEST(PeerUserFailure, WithoutTheTableItsErrorIsTold) {
    const Connection connection;
    const Tables tables("", "");
    EXPECT_EQ(unlink((tables.folder.path + "/tcp").c_str()), 0);
    EXPECT_EQ(error_of(connection.ours.fd), ENOENT);
}

TEST(PeerUserFailure, ASocketWhoseOptionsCannotBeReadIsAStranger) {
    const SocketPair pair;
    const Connection connection;
    const Interposed failing(hook::getsockopt, fail_always(hook::getsockopt, ENOBUFS, -1));
    EXPECT_EQ(error_of(pair.ours.fd), ENOBUFS);
    EXPECT_EQ(error_of(connection.ours.fd), EOPNOTSUPP);
}

TEST(PeerUserFailure, AUnixPeerWithoutAUserIsNobody) {
    const SocketPair pair;
    const Interposed nobody(hook::getsockopt, [](int, int, int, void *value, socklen_t *) {
        static_cast<ucred *>(value)->uid = static_cast<uid_t>(-1);
        return 0;
    });
    EXPECT_EQ(error_of(pair.ours.fd), EADDRNOTAVAIL);
}

} // namespace
