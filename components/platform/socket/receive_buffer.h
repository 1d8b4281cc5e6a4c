// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The current receive buffer, as the loops that receive messages work on it. There is one.
#ifndef ZEL_COMPONENTS_PLATFORM_SOCKET_RECEIVE_BUFFER_H
#define ZEL_COMPONENTS_PLATFORM_SOCKET_RECEIVE_BUFFER_H

#include <components/platform/socket.h>

#include <cstdint>

namespace zel::socket {

// Counts how often a buffer was emptied or replaced, or its data moved. The pointers of
// the buffer do not show that: other data of the same length may stand in it.
uint32_t buffer_changes();

inline int32_t unparsed_length() {
    return static_cast<int32_t>(gMsgBuf->p2 - gMsgBuf->p1);
}

// Adds bytes that the socket was read for and that stand behind the data already.
void add_received(int socket, int32_t length);

void move_rest_to_start();

// A message of that length is handed over: it stays in the buffer meanwhile, and is no
// longer unparsed. Returns the buffer.
inline const MsgBuf *begin_message(int32_t length) {
    gMsgBuf->p1 += length;
    return gMsgBuf;
}

// The message has been handed over. When the handler has made another buffer current, this
// one is left to its owner.
inline void end_message(const MsgBuf *buffer) {
    if (gMsgBuf == buffer) {
        move_rest_to_start();
    }
}

} // namespace zel::socket

#endif
