// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Which descriptor the bytes in a receive buffer came from. It is remembered beside the
// buffers: their record has no room for it.
#ifndef ZEL_COMPONENTS_PLATFORM_BASE_READ_AHEAD_H
#define ZEL_COMPONENTS_PLATFORM_BASE_READ_AHEAD_H

struct MsgBuf;

namespace zel {

// A new buffer is known until it is forgotten. One for which the table has no room, and one
// that the program made itself, stays unknown: nothing is remembered for it.
void know_buffer(MsgBuf *buffer);
void forget_buffer(const MsgBuf *buffer);

// Bytes of the descriptor arrive in the buffer. was_empty: no others stood in it. Bytes of
// two descriptors in one buffer belong to neither.
void note_read_ahead(const MsgBuf *buffer, int fd, bool was_empty);

// The bytes in the buffer belong to no descriptor any more.
void forget_read_ahead_in(const MsgBuf *buffer);

// The descriptor is closed, or its number is that of a new one.
void forget_read_ahead_of(int fd);

// The next known buffer whose bytes are those of the descriptor: the first one for null,
// else the one after that. Null when there is none.
MsgBuf *next_read_ahead(int fd, const MsgBuf *after);

} // namespace zel

#endif
