// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The steps that connecting and listening share.
#ifndef ZEL_COMPONENTS_PLATFORM_SOCKET_CONNECTION_H
#define ZEL_COMPONENTS_PLATFORM_SOCKET_CONNECTION_H

#include <components/platform/socket.h>

namespace zel::socket {

// Looks up the IPv4 TCP addresses of a host. Null, with errno set, when there are none.
struct addrinfo *look_up(const char *host, int port);

// A message of several sends never waits for a delayed acknowledgement. On other than TCP sockets nothing happens.
void send_without_delay(int fd);

} // namespace zel::socket

#endif
