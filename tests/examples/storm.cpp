// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Replaces read, recv and send in a program: each moves a few bytes at a time, and signals interrupt it again and
// again. STORM_READ_FAILS=N: the n-th read of a text, from 1, fails with EIO instead.
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <sys/socket.h>
#include <unistd.h>

extern "C" {
int real_bind(int fd, const sockaddr *address, socklen_t length) __asm__("__real_bind");
int wrap_bind(int fd, const sockaddr *address, socklen_t length) __asm__("__wrap_bind");
ssize_t real_read(int fd, void *buffer, size_t length) __asm__("__real_read");
ssize_t real_recv(int fd, void *buffer, size_t length, int flags) __asm__("__real_recv");
ssize_t real_send(int fd, const void *buffer, size_t length, int flags) __asm__("__real_send");
ssize_t wrap_read(int fd, void *buffer, size_t length) __asm__("__wrap_read");
ssize_t wrap_recv(int fd, void *buffer, size_t length, int flags) __asm__("__wrap_recv");
ssize_t wrap_send(int fd, const void *buffer, size_t length, int flags) __asm__("__wrap_send");
}

namespace {

// A text is read in chunks that are larger than any other read.
constexpr size_t kChunkSize = 65536;

// The lengths come round in this order; 0 is an interruption.
constexpr size_t kLengths[] = {0, 1, 3, 0, 0, 700, 2};

size_t next_length(size_t &calls) {
    return kLengths[calls++ % std::size(kLengths)];
}

ssize_t interrupted() {
    errno = EINTR;
    return -1;
}

bool has_input(int fd) {
    char byte;
    return real_recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) >= 0;
}

} // namespace

int wrap_bind(int fd, const sockaddr *address, socklen_t length) {
    if (getenv("STORM_BIND_FAILS") != nullptr) {
        errno = EADDRINUSE;
        return -1;
    }
    return real_bind(fd, address, length);
}

ssize_t wrap_read(int fd, void *buffer, size_t length) {
    static size_t calls = 0;
    static size_t reads = 0;
    static const char *failing = getenv("STORM_READ_FAILS");
    if (failing != nullptr && length == kChunkSize && ++reads == strtoul(failing, nullptr, 10)) {
        errno = EIO;
        return -1;
    }
    const size_t allowed = next_length(calls);
    return allowed == 0 ? interrupted() : real_read(fd, buffer, std::min(length, allowed));
}

// The message loop receives only when there is something to receive, and a receive is not interrupted then. That of a
// value, four bytes, comes unannounced and may be interrupted at any time.
ssize_t wrap_recv(int fd, void *buffer, size_t length, int flags) {
    static size_t calls = 0;
    const size_t allowed = next_length(calls);
    if (allowed == 0 && (length == sizeof(int32_t) || !has_input(fd))) {
        return interrupted();
    }
    return real_recv(fd, buffer, std::min(length, std::max<size_t>(allowed, 1)), flags);
}

ssize_t wrap_send(int fd, const void *buffer, size_t length, int flags) {
    static size_t calls = 0;
    const size_t allowed = next_length(calls);
    return allowed == 0 ? interrupted() : real_send(fd, buffer, std::min(length, allowed), flags);
}
