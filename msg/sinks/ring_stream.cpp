// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The stream to a ring.
#include <msg/sinks.h>

#include <msg/base/errno_kept.h>
#include <msg/base/ring.h>

#include <cerrno>
#include <cstdlib>

namespace {

ssize_t write_text(void *cookie, const char *text, size_t size) {
    zel::append(*static_cast<zel::Ring *>(cookie), {text, size});
    return static_cast<ssize_t>(size);
}

int close_ring(void *cookie) {
    auto *ring = static_cast<zel::Ring *>(cookie);
    zel::forget(ring);
    free(ring);
    return 0;
}

// The bytes of the ring stand behind its record.
zel::Ring *create_ring(size_t size, int fd) {
    size_t whole;
    if (__builtin_add_overflow(sizeof(zel::Ring), size, &whole)) {
        errno = ENOMEM;
        return nullptr;
    }
    auto *ring = static_cast<zel::Ring *>(malloc(whole));
    if (ring != nullptr) {
        *ring = {.next = nullptr,
                 .stream = nullptr,
                 .fd = fd,
                 .bytes = {reinterpret_cast<char *>(ring + 1), size},
                 .start = 0,
                 .used = 0,
                 .dropped = '\n'};
    }
    return ring;
}

} // namespace

FILE *msg_open_ring(size_t size, int fd) {
    if (size == 0 || fd < -1) {
        errno = EINVAL;
        return nullptr;
    }
    zel::Ring *ring = create_ring(size, fd);
    if (ring == nullptr) {
        return nullptr;
    }
    const cookie_io_functions_t calls = {.read = nullptr, .write = write_text, .seek = nullptr, .close = close_ring};
    FILE *stream = fopencookie(ring, "w", calls);
    if (stream == nullptr) {
        const zel::ErrnoKept kept;
        free(ring);
        return nullptr;
    }
    setvbuf(stream, nullptr, _IONBF, 0); // the ring is to hold all that was written
    ring->stream = stream;
    zel::remember(ring);
    return stream;
}

int msg_write_ring(FILE *ring, int fd) {
    const zel::Ring *found = zel::ring_of(ring);
    if (found == nullptr) {
        errno = EINVAL;
        return 0;
    }
    return zel::write_out(*found, fd) ? 1 : 0;
}
