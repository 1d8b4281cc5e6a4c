// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The shape of a block of the debug heap: sizes, guards, magics, fill. The guards are the
// header in front of the user data and the trailer behind them. debug_heap.h gives the
// grammar of a block.
#ifndef ZEL_MALLOC_INTERNAL_DEBUG_BLOCK_H
#define ZEL_MALLOC_INTERNAL_DEBUG_BLOCK_H

#include <malloc/internal/readable_memory.h>

#include <cstddef>
#include <cstdint>

namespace zel::memory {

// User data are filled with this byte when they are new, and again when they are
// released.
inline constexpr int kFillByte = 0xAB;

// The magic of a header while its block is live, the magic after the release, and the
// trailer.
inline constexpr uint32_t kLiveMagic = 0x5739E56A;
inline constexpr uint32_t kReleasedMagic = 0x7D2C5B7E;
inline constexpr uint32_t kTrailerMagic = 0x35A7B641;

struct Header {
    int32_t index; // of the block's record
    uint32_t magic;
};

// The size of the block for a request of that size. A size that leaves no room for the
// guards gives SIZE_MAX, which no system provides.
size_t debug_block_size(size_t size);

// The user pointer of a block: the address behind its header.
void *user_pointer_of(void *block);

// The block of a user pointer: the address of its header.
void *block_of(void *pointer);

// Writes the header and the trailer of a live block with that many bytes of user data.
void write_guards(void *pointer, size_t length, int32_t index);

// Reads the header in front of a pointer of any value. Returns false when the header
// cannot be read.
bool read_header(const void *pointer, const Reach &reach, Header *header);

// Whether the trailer behind that many bytes of user data can be read and is intact.
bool has_intact_trailer(const void *pointer, size_t length, const Reach &reach);

// Writes the magic of a release into the header of a block.
void mark_released(void *pointer);

} // namespace zel::memory

#endif
