// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The user at the other end of a connection.
#include <components/platform/message_lines.h>

#include <components/platform/socket/tcp_table.h>

#include <cerrno>
#include <netinet/in.h>

namespace {

using zel::socket::TcpEnd;

constexpr uint32_t kLoopbackNet = 127;

int64_t fail(int error) {
    errno = error;
    return -1;
}

// A socket whose peer the system does not know has the user -1.
int64_t user_of_unix_peer(int socket) {
    struct ucred peer = {};
    socklen_t length = sizeof peer;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) {
        return -1;
    }
    return peer.uid == static_cast<uid_t>(-1) ? fail(EADDRNOTAVAIL) : peer.uid;
}

TcpEnd end_of(const struct sockaddr_storage &address) {
    TcpEnd end = {};
    if (address.ss_family == AF_INET6) {
        struct sockaddr_in6 ipv6;
        memcpy(&ipv6, &address, sizeof ipv6);
        return {.address = ipv6.sin6_addr, .port = ipv6.sin6_port};
    }
    struct sockaddr_in ipv4;
    memcpy(&ipv4, &address, sizeof ipv4);
    constexpr size_t kMappedAt = 12;
    memset(end.address.s6_addr + 10, 0xff, 2);
    memcpy(end.address.s6_addr + kMappedAt, &ipv4.sin_addr, sizeof ipv4.sin_addr);
    end.port = ipv4.sin_port;
    return end;
}

// An address of the machine's own network is no proof: the table shows this machine's
// sockets, and that of another machine is not among them.
bool is_loopback(const TcpEnd &end) {
    constexpr size_t kFirstByteOfIpv4 = 12;
    if (IN6_IS_ADDR_V4MAPPED(&end.address)) {
        return end.address.s6_addr[kFirstByteOfIpv4] == kLoopbackNet;
    }
    return IN6_IS_ADDR_LOOPBACK(&end.address);
}

bool is_tcp(int socket) {
    int protocol = 0;
    socklen_t length = sizeof protocol;
    return getsockopt(socket, SOL_SOCKET, SO_PROTOCOL, &protocol, &length) == 0 && protocol == IPPROTO_TCP;
}

// The row of the peer is that of the connection with its ends exchanged.
int64_t user_of_tcp_peer(int socket, const struct sockaddr_storage &peer) {
    struct sockaddr_storage own = {};
    socklen_t length = sizeof own;
    if (getsockname(socket, reinterpret_cast<struct sockaddr *>(&own), &length) != 0) {
        return -1;
    }
    const TcpEnd peer_end = end_of(peer);
    return is_loopback(peer_end) ? zel::socket::user_of_tcp_socket(peer_end, end_of(own)) : fail(EADDRNOTAVAIL);
}

} // namespace

int64_t platform_peer_user(int socket) {
    struct sockaddr_storage peer = {};
    socklen_t length = sizeof peer;
    if (getpeername(socket, reinterpret_cast<struct sockaddr *>(&peer), &length) != 0) {
        return -1;
    }
    if (peer.ss_family == AF_UNIX) {
        return user_of_unix_peer(socket);
    }
    const bool internet = peer.ss_family == AF_INET || peer.ss_family == AF_INET6;
    return internet && is_tcp(socket) ? user_of_tcp_peer(socket, peer) : fail(EOPNOTSUPP);
}
