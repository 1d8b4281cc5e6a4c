// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Transfers over a connected socket.
#include <components/platform/socket.h>

#include <components/platform/base/descriptor.h>
#include <components/platform/environment.h>
#include <components/platform/socket/transfer.h>

#include <cerrno>

namespace zel::socket {

namespace {

constexpr long kPollMicroseconds = 100000;

} // namespace

int wait_for_input(int socket, bool wait, PlatformIdle idle) {
    for (;;) {
        const Readiness readiness = wait_readable(socket, 0, wait ? kPollMicroseconds : 0);
        const int error = errno; // idle may change errno
        if (idle != nullptr) {
            idle();
        }
        if (readiness == Readiness::ready) {
            return 1;
        }
        if (readiness == Readiness::timeout) {
            if (!wait) {
                return PLATFORM_SOCKET_NOT_READY;
            }
            continue;
        }
        if (error != 0 && !is_temporary(error)) {
            errno = error;
            platform_perror("select failed");
            return PLATFORM_SOCKET_FAILED;
        }
        errno = 0;
    }
}

int receive_waiting(int socket, void *buffer, size_t length) {
    const ssize_t count = recv(socket, buffer, length, 0);
    return count == 0 ? PLATFORM_SOCKET_FAILED : static_cast<int>(count);
}

} // namespace zel::socket

int platform_select_recv(int socket, void *buffer, int32_t length, int wait, PlatformIdle idle) {
    if (length < 1) {
        return 0;
    }
    const int ready = zel::socket::wait_for_input(socket, wait != 0, idle);
    return ready < 0 ? ready : zel::socket::receive_waiting(socket, buffer, static_cast<size_t>(length));
}

int platform_send_all(int socket, const void *buffer, int32_t length) {
    const char *data = static_cast<const char *>(buffer);
    int32_t sent = 0;
    while (sent < length) {
        const ssize_t count = send(socket, data + sent, static_cast<size_t>(length - sent), MSG_NOSIGNAL);
        if (count < 1) {
            return -1;
        }
        sent += static_cast<int32_t>(count);
    }
    return sent;
}

int platform_recv_guarded(int socket, void *buffer, int32_t length) {
    if (length < 1) {
        return PLATFORM_SOCKET_BAD_LENGTH;
    }
    return static_cast<int>(recv(socket, buffer, static_cast<size_t>(length), 0));
}
