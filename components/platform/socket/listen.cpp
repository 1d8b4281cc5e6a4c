// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Listening on localhost, and accepting connections.
#include <components/platform/socket.h>

#include <components/platform/base/descriptor.h>
#include <components/platform/base/read_ahead.h>
#include <components/platform/environment.h>
#include <components/platform/socket/connection.h>
#include <msg/base/errno_kept.h>

#include <cerrno>
#include <netinet/in.h>

namespace {

constexpr int kAcceptAttempts = 500;
constexpr socklen_t kAddressSize = 16;
static_assert(sizeof(struct sockaddr_in) == kAddressSize);

bool is_multicast(const struct addrinfo &entry) {
    struct sockaddr_in address = {};
    memcpy(&address, entry.ai_addr, sizeof address);
    return IN_MULTICAST(ntohl(address.sin_addr.s_addr));
}

// A stream socket cannot listen on a multicast address.
bool can_listen_on(const struct addrinfo &entry) {
    if (entry.ai_family != AF_INET && entry.ai_family != AF_INET6) {
        return false;
    }
    return entry.ai_family == AF_INET6 || entry.ai_socktype != SOCK_STREAM || !is_multicast(entry);
}

void refuse_addresses(struct addrinfo *list) {
    freeaddrinfo(list);
    errno = EADDRNOTAVAIL;
}

// Opens the first free port of the range. A failed lookup ends the search, and so does an
// address that cannot be listened on.
int search_port(int first_port, int end_port, int *chosen_port) {
    if (first_port >= end_port) {
        errno = EINVAL;
    }
    for (int port = first_port; port < end_port; ++port) {
        struct addrinfo *list = zel::socket::look_up("localhost", port);
        if (list == nullptr) {
            return -1;
        }
        if (!can_listen_on(*list)) {
            refuse_addresses(list);
            return -1;
        }
        const int fd = platform_socket_open(list, 1, 1);
        if (fd != -1) {
            // DELIBERATE: the addresses of the port that opened are not freed. Test:
            // ServerSocket.OnlyTheAddressesOfPortsThatFailedAreFreed.
            if (chosen_port != nullptr) {
                *chosen_port = port;
            }
            return fd;
        }
        const zel::ErrnoKept kept;
        freeaddrinfo(list);
    }
    return -1;
}

} // namespace

int platform_server_socket_open(int first_port, int end_port, int *chosen_port) {
    const int fd = search_port(first_port, end_port, chosen_port);
    if (fd == -1) {
        platform_perror("server sock open failed ");
    }
    return fd;
}

int platform_accept_retry(int listening, struct sockaddr *address, socklen_t *address_length) {
    socklen_t unasked;
    socklen_t *length = nullptr;
    if (address != nullptr) {
        length = address_length != nullptr ? address_length : &unasked;
        *length = kAddressSize;
    }
    errno = 0;
    for (int attempt = 0; attempt < kAcceptAttempts; ++attempt) {
        const int fd = accept(listening, address, length);
        if (fd != -1) {
            zel::set_close_on_exec(fd);
            zel::forget_read_ahead_of(fd);
            zel::socket::send_without_delay(fd);
            return fd;
        }
        platform_perror("accept");
        if (!zel::is_temporary(errno)) {
            break;
        }
    }
    return PLATFORM_SOCKET_FAILED;
}

int platform_accept_once(int listening) {
    const int fd = platform_accept_retry(listening, nullptr, nullptr);
    const zel::ErrnoKept kept;
    platform_socket_close(listening);
    return fd;
}

int platform_accept_timeout(int listening, int seconds) {
    for (;;) {
        switch (zel::wait_readable(listening, seconds, 0)) {
        case zel::Readiness::ready:
            return platform_accept_once(listening);
        case zel::Readiness::timeout:
            return PLATFORM_SOCKET_NOT_READY;
        case zel::Readiness::failed:
            break;
        }
        if (errno != 0 && !zel::is_temporary(errno)) {
            platform_perror("select failed");
            return PLATFORM_SOCKET_FAILED;
        }
    }
}
