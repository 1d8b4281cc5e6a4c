// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The steps that connecting and listening share.
#ifndef ZEL_COMPONENTS_PLATFORM_SOCKET_CONNECTION_H
#define ZEL_COMPONENTS_PLATFORM_SOCKET_CONNECTION_H

#include <components/platform/socket.h>

namespace zel::socket {

// Looks up the IPv4 TCP addresses of a host. Returns null with errno when there are none.
struct addrinfo *look_up(const char *host, int port);

// Sets TCP_NODELAY: a message of several sends does not wait for a delayed
// acknowledgement. A socket that is not TCP stays as it is. errno is kept.
void send_without_delay(int fd);

} // namespace zel::socket

#endif
