// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The shape of a block of the debug heap: sizes, guards, magics, fill.
#ifndef ZEL_MALLOC_INTERNAL_DEBUG_BLOCK_H
#define ZEL_MALLOC_INTERNAL_DEBUG_BLOCK_H

#include <malloc/internal/readable_memory.h>

#include <cstddef>
#include <cstdint>

namespace zel::memory {

// What new and released bytes are filled with.
inline constexpr int kFillByte = 0xAB;

inline constexpr uint32_t kLiveMagic = 0x5739E56A;
inline constexpr uint32_t kReleasedMagic = 0x7D2C5B7E;
inline constexpr uint32_t kTrailerMagic = 0x35A7B641;

struct Header {
    int32_t index;
    uint32_t magic;
};

// The bytes to take from the system for a request of that size; the largest number when there are none so large.
size_t debug_block_size(size_t size);

// The user pointer of a block from the system, and the block of a user pointer.
void *user_pointer_of(void *block);
void *block_of(void *pointer);

// Writes the header and the trailer of a live block.
void write_guards(void *pointer, size_t length, int32_t index);

// The header in front of a user pointer, which may be anything: false when there is no such memory.
bool read_header(const void *pointer, const Reach &reach, Header *header);

// Whether the word behind that much user data is there and as it was written.
bool has_intact_trailer(const void *pointer, size_t length, const Reach &reach);

void mark_released(void *pointer);

} // namespace zel::memory

#endif
