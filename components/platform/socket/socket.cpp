// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Making connections: listen, accept, connect, close.
#include <components/platform/socket.h>

#include <components/platform/base/descriptor.h>
#include <components/platform/environment.h>
#include <msg/base/text.h>

#include <array>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>

namespace {

constexpr int kAcceptAttempts = 500;
constexpr int kLargestPort = 65535;
constexpr socklen_t kAddressSize = 16;
static_assert(sizeof(struct sockaddr_in) == kAddressSize);

// A message of several sends never waits for a delayed acknowledgement. On other than TCP sockets nothing happens.
void send_without_delay(int fd) {
    const zel::ErrnoKept kept;
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

// Looks up the IPv4 TCP addresses of a host. Null, with errno set, when there are none.
struct addrinfo *look_up(const char *host, int port) {
    if (port < 0 || port > kLargestPort) {
        errno = EINVAL; // the lookup would take the low bits for another port
        return nullptr;
    }
    std::array<char, 16> service;
    zel::format_text(service, "%d", port);
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

bool is_multicast(const struct addrinfo &entry) {
    struct sockaddr_in address = {};
    memcpy(&address, entry.ai_addr, sizeof address);
    return IN_MULTICAST(ntohl(address.sin_addr.s_addr));
}

// One peer at a time: a stream of a group address leads nowhere.
bool can_listen_on(const struct addrinfo &entry) {
    if (entry.ai_family != AF_INET && entry.ai_family != AF_INET6) {
        return false;
    }
    return entry.ai_family == AF_INET6 || entry.ai_socktype != SOCK_STREAM || !is_multicast(entry);
}

int refuse_addresses(struct addrinfo *list) {
    freeaddrinfo(list);
    errno = EADDRNOTAVAIL;
    return -1;
}

// The first port of the range that opens. A lookup that fails or is refused ends the search.
int search_port(int first_port, int end_port, int *chosen_port) {
    if (first_port >= end_port) {
        errno = EINVAL;
    }
    for (int port = first_port; port < end_port; ++port) {
        struct addrinfo *list = look_up("localhost", port);
        if (list == nullptr) {
            return -1;
        }
        if (!can_listen_on(*list)) {
            return refuse_addresses(list);
        }
        const int fd = platform_socket_open(list, 1, 1);
        if (fd != -1) {
            // DELIBERATE: the addresses of the port that opened are not freed; they last as long as the server, which
            // is opened once. Held by the test ServerSocket.OnlyTheAddressesOfPortsThatFailedAreFreed.
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

bool bind_and_listen(int fd, const struct addrinfo &entry, int backlog) {
    if (bind(fd, entry.ai_addr, entry.ai_addrlen) != 0) {
        return false;
    }
    return entry.ai_socktype != SOCK_STREAM || listen(fd, backlog) == 0;
}

// Whoever limits a connection by a signal must learn that the signal came, also when another address failed after it.
bool connect_first(int fd, const struct addrinfo *list) {
    bool interrupted = false;
    for (const struct addrinfo *entry = list; entry != nullptr; entry = entry->ai_next) {
        if (connect(fd, entry->ai_addr, entry->ai_addrlen) == 0) {
            send_without_delay(fd);
            return true;
        }
        interrupted = interrupted || errno == EINTR;
    }
    if (interrupted) {
        errno = EINTR;
    }
    return false;
}

} // namespace

int platform_server_socket_open(int first_port, int end_port, int *chosen_port) {
    const int fd = search_port(first_port, end_port, chosen_port);
    if (fd == -1) {
        platform_perror("server sock open failed ");
    }
    return fd;
}

int platform_connect_host(const char *host, int port) {
    // DELIBERATE: the result of the lookup is not freed; the text of an address may be asked for until the process
    // ends. Held by the test ConnectHost.TheResultOfTheLookupIsNotFreed.
    return platform_socket_open(look_up(host, port), 0, 0);
}

int platform_socket_open(const struct addrinfo *list, int server, int backlog) {
    if (list == nullptr) {
        return -1;
    }
    const int fd = socket(list->ai_family, list->ai_socktype, list->ai_protocol);
    if (fd == -1) {
        return -1;
    }
    zel::set_close_on_exec(fd);
    const bool opened = server != 0 ? bind_and_listen(fd, *list, backlog) : connect_first(fd, list);
    if (opened) {
        return fd;
    }
    const zel::ErrnoKept kept; // why it failed, and not that the socket was not connected
    platform_socket_close(fd);
    return -1;
}

int platform_socket_close(int fd) {
    {
        const zel::ErrnoKept kept; // a socket that is not connected is closed like any other
        shutdown(fd, SHUT_RDWR);
    }
    return close(fd);
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
            send_without_delay(fd);
            return fd;
        }
        platform_perror("accept");
        if (!zel::is_interruption(errno)) {
            break;
        }
    }
    return -1;
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
            return -2;
        case zel::Readiness::failed:
            break;
        }
        if (errno != 0 && !zel::is_interruption(errno)) {
            platform_perror("select failed");
            return -1;
        }
    }
}
