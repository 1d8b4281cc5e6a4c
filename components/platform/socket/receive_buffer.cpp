// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Receive buffers, and which of them is current.
#include <components/platform/socket/receive_buffer.h>

#include <components/platform/base/allocation.h>
#include <components/platform/base/read_ahead.h>

#include <cstdlib>

constinit MsgBuf *gMsgBuf = nullptr;

namespace {

constinit uint32_t changes = 0; // see buffer_changes

} // namespace

namespace zel::socket {

uint32_t buffer_changes() {
    return changes;
}

void add_received(int socket, int32_t length) {
    note_read_ahead(gMsgBuf, socket, gMsgBuf->p1 == gMsgBuf->p2);
    gMsgBuf->p2 += length;
}

void move_rest_to_start() {
    const int32_t length = unparsed_length();
    memmove(gMsgBuf->pBuf, gMsgBuf->p1, static_cast<size_t>(length));
    gMsgBuf->p1 = gMsgBuf->pBuf;
    gMsgBuf->p2 = gMsgBuf->pBuf + length;
    ++changes;
}

} // namespace zel::socket

MsgBuf *platform_msgbuf_create(int32_t size) {
    auto *buffer = static_cast<MsgBuf *>(zel::allocate_or_end(sizeof(MsgBuf), "platform_msgbuf_create"));
    auto *storage = static_cast<char *>(zel::allocate_or_end(static_cast<size_t>(size), "platform_msgbuf_create"));
    *buffer = {.pBuf = storage, .len = size, .p1 = storage, .p2 = storage};
    zel::know_buffer(buffer);
    return buffer;
}

MsgBuf *platform_msgbuf_reset(MsgBuf *buffer) {
    buffer->p1 = buffer->pBuf;
    buffer->p2 = buffer->pBuf;
    zel::forget_read_ahead_in(buffer);
    ++changes;
    return buffer;
}

void platform_msgbuf_free(MsgBuf *buffer) {
    if (buffer == nullptr) {
        return;
    }
    zel::forget_buffer(buffer);
    free(buffer->pBuf);
    free(buffer);
}

void platform_msgbuf_set(MsgBuf *buffer) {
    gMsgBuf = buffer;
    ++changes;
}
