// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Connecting to a host and port.
#include <components/platform/socket.h>

#include <components/platform/socket/connection.h>
#include <msg/base/text.h>

#include <array>
#include <cerrno>
#include <netinet/in.h>

namespace zel::socket {

namespace {

constexpr int kLargestPort = 65535;

} // namespace

struct addrinfo *look_up(const char *host, int port) {
    if (port < 0 || port > kLargestPort) {
        errno = EINVAL; // getaddrinfo takes the low 16 bits as the port
        return nullptr;
    }
    std::array<char, 16> service;
    format_text(service, "%d", port);
    struct addrinfo hints = {};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    struct addrinfo *list = nullptr;
    const int result = getaddrinfo(host, service.data(), &hints, &list);
    if (result == 0) {
        return list;
    }
    if (result != EAI_SYSTEM) {
        errno = EADDRNOTAVAIL;
    }
    return nullptr;
}

} // namespace zel::socket

int platform_connect_host(const char *host, int port) {
    // DELIBERATE: the result of the lookup is not freed. Test:
    // ConnectHost.TheResultOfTheLookupIsNotFreed.
    return platform_socket_open(zel::socket::look_up(host, port), 0, 0);
}
