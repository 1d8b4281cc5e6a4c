// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The receive buffers that platform_msgbuf_create made, and whose bytes are in them.
#include <components/platform/base/read_ahead.h>

#include <msg/base/limits.h>

#include <array>
#include <cstddef>

namespace zel {

namespace {

constexpr int kNobody = -1;
constexpr int kSeveral = -2;

struct KnownBuffer {
    MsgBuf *buffer;
    int fd; // whose bytes are in it, kNobody or kSeveral
};

// A fixed table: it works when memory has run out. The entries in use come first.
struct State {
    std::array<KnownBuffer, kKnownBuffers> buffers;
    size_t count;
    size_t last; // the entry that was looked for last
};

constinit State state = {};

KnownBuffer *find(const MsgBuf *buffer) {
    if (state.buffers[state.last].buffer == buffer && buffer != nullptr) {
        return &state.buffers[state.last];
    }
    for (size_t place = 0; place < state.count; ++place) {
        if (state.buffers[place].buffer == buffer) {
            state.last = place;
            return &state.buffers[place];
        }
    }
    return nullptr;
}

} // namespace

void know_buffer(MsgBuf *buffer) {
    if (state.count < state.buffers.size()) {
        state.buffers[state.count++] = {.buffer = buffer, .fd = kNobody};
    }
}

void forget_buffer(const MsgBuf *buffer) {
    KnownBuffer *known = find(buffer);
    if (known != nullptr) {
        *known = state.buffers[--state.count];
        state.buffers[state.count] = {};
    }
}

void note_read_ahead(const MsgBuf *buffer, int fd, bool was_empty) {
    KnownBuffer *known = find(buffer);
    if (known != nullptr && known->fd != fd) {
        known->fd = was_empty ? fd : kSeveral;
    }
}

void forget_read_ahead_in(const MsgBuf *buffer) {
    KnownBuffer *known = find(buffer);
    if (known != nullptr) {
        known->fd = kNobody;
    }
}

void forget_read_ahead_of(int fd) {
    for (size_t place = 0; place < state.count; ++place) {
        if (state.buffers[place].fd == fd) {
            state.buffers[place].fd = kNobody;
        }
    }
}

MsgBuf *next_read_ahead(int fd, const MsgBuf *after) {
    bool passed = after == nullptr;
    for (size_t place = 0; place < state.count; ++place) {
        const KnownBuffer &known = state.buffers[place];
        if (passed && known.fd == fd) {
            return known.buffer;
        }
        passed = passed || known.buffer == after;
    }
    return nullptr;
}

} // namespace zel
