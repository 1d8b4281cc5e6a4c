// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Rings of the bytes written last. They stand this low because a failed assertion writes
// them out.
#ifndef ZEL_MSG_BASE_RING_H
#define ZEL_MSG_BASE_RING_H

#include <cstddef>
#include <cstdio>
#include <span>
#include <string_view>

namespace zel {

struct Ring {
    Ring *next;            // opened later
    FILE *stream;          // that writes to it
    int fd;                // where it is written at a fatal end; -1: nowhere
    std::span<char> bytes; // all of the ring
    size_t start;          // of the oldest byte
    size_t used;
    char dropped; // the byte in front of the oldest one; '\n' at first
};

// Takes the text in. The oldest bytes make room for it.
void append(Ring &ring, std::string_view text);

// Writes out what the ring holds, from its first whole line on. Returns whether all of it
// was written; errno says why not.
bool write_out(const Ring &ring, int fd);

// Puts a ring behind those that are known, and takes it away again.
void remember(Ring *ring);
void forget(const Ring *ring);

// Returns the ring that the stream writes to, or null.
Ring *ring_of(const FILE *stream);

// Writes each ring to its descriptor. Called when a fatal call ends the process: it needs
// no memory. Only the first call writes.
void write_out_rings();

} // namespace zel

#endif
