// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The core of the socket unit: opening and closing a socket, and its blocking mode.
#include <components/platform/socket.h>

#include <components/platform/base/descriptor.h>
#include <components/platform/base/read_ahead.h>
#include <components/platform/socket/connection.h>
#include <msg/base/errno_kept.h>

#include <cerrno>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>

namespace zel::socket {

void send_without_delay(int fd) {
    const ErrnoKept kept;
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

} // namespace zel::socket

namespace {

bool bind_and_listen(int fd, const struct addrinfo &entry, int backlog) {
    if (bind(fd, entry.ai_addr, entry.ai_addrlen) != 0) {
        return false;
    }
    return entry.ai_socktype != SOCK_STREAM || listen(fd, backlog) == 0;
}

// Connects to the first address that answers. A caller that limits the call by a signal
// learns of the signal by EINTR, also when another address failed after it.
bool connect_first(int fd, const struct addrinfo *list) {
    bool interrupted = false;
    for (const struct addrinfo *entry = list; entry != nullptr; entry = entry->ai_next) {
        if (connect(fd, entry->ai_addr, entry->ai_addrlen) == 0) {
            zel::socket::send_without_delay(fd);
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

int platform_socket_open(const struct addrinfo *list, int server, int backlog) {
    if (list == nullptr) {
        return -1;
    }
    const int fd = socket(list->ai_family, list->ai_socktype, list->ai_protocol);
    if (fd == -1) {
        return -1;
    }
    zel::set_close_on_exec(fd);
    zel::forget_read_ahead_of(fd);
    const bool opened = server != 0 ? bind_and_listen(fd, *list, backlog) : connect_first(fd, list);
    if (opened) {
        return fd;
    }
    const zel::ErrnoKept kept; // the error of the failed call, not that of the shutdown
    platform_socket_close(fd);
    return -1;
}

int platform_socket_close(int fd) {
    zel::forget_read_ahead_of(fd);
    {
        const zel::ErrnoKept kept; // shutdown fails on a socket that is not connected
        shutdown(fd, SHUT_RDWR);
    }
    return close(fd);
}

int platform_fd_is_blocking(int fd) {
    return (fcntl(fd, F_GETFL) & O_NONBLOCK) == 0 ? 1 : 0;
}

int platform_fd_set_blocking(int fd, int blocking) {
    return zel::set_blocking(fd, blocking != 0);
}
