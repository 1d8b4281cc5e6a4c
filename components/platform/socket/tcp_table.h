// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The system's table of TCP sockets: /proc/net/tcp and /proc/net/tcp6.
#ifndef ZEL_COMPONENTS_PLATFORM_SOCKET_TCP_TABLE_H
#define ZEL_COMPONENTS_PLATFORM_SOCKET_TCP_TABLE_H

#include <cstdint>
#include <netinet/in.h>

namespace zel::socket {

// One end of a connection. An IPv4 address is in its mapped form.
struct TcpEnd {
    struct in6_addr address;
    in_port_t port; // in the byte order of the network
};

// Returns the user of the socket that stands on the local end and is connected to the
// remote one. -1 with errno: EADDRNOTAVAIL when there is no such socket or no process holds
// it, else that of reading the table.
int64_t user_of_tcp_socket(const TcpEnd &local, const TcpEnd &remote);

} // namespace zel::socket

#endif
