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

// A word of a guard. The program may use the same bytes under any type.
using Word [[gnu::may_alias]] = uint32_t;

inline constexpr size_t kHeaderSize = sizeof(Header);
inline constexpr size_t kWordSize = sizeof(uint32_t);
inline constexpr size_t kGuardSize = kHeaderSize + kWordSize;
static_assert(kHeaderSize == 8 && offsetof(Header, magic) == 4 && kGuardSize == 12);

// The size with its padding: the next multiple of a word.
constexpr size_t rounded_up(size_t size) {
    return (size + kWordSize - 1) & ~(kWordSize - 1);
}
static_assert(rounded_up(5) + kGuardSize == 20);

inline char *bytes_at(const void *pointer) {
    return static_cast<char *>(const_cast<void *>(pointer));
}

// The diagnosis of a double release needs the header of a released block. The address
// sanitizer ends a process that reads one: this function is exempt from it.
[[gnu::no_sanitize_address]] inline uint32_t read_word(const void *address) {
    return *static_cast<const Word *>(address);
}

inline void write_word(void *address, uint32_t value) {
    *static_cast<Word *>(address) = value;
}

// The size of the block for a request of that size. A size that leaves no room for the
// guards gives SIZE_MAX, which no system provides.
constexpr size_t debug_block_size(size_t size) {
    constexpr size_t kLargest = SIZE_MAX - kGuardSize - (kWordSize - 1);
    return size > kLargest ? SIZE_MAX : rounded_up(size) + kGuardSize;
}

// The user pointer of a block: the address behind its header.
inline void *user_pointer_of(void *block) {
    return bytes_at(block) + kHeaderSize;
}

// The block of a user pointer: the address of its header.
inline void *block_of(void *pointer) {
    return bytes_at(pointer) - kHeaderSize;
}

// Writes the header and the trailer of a live block with that many bytes of user data.
inline void write_guards(void *pointer, size_t length, int32_t index) {
    write_word(bytes_at(pointer) + rounded_up(length), kTrailerMagic);
    write_word(block_of(pointer), static_cast<uint32_t>(index));
    write_word(bytes_at(pointer) - kWordSize, kLiveMagic);
}

// Whether the header in front of a pointer of any value can be read. The pointer is a
// multiple of 8, so its header lies within one page: where the magic can be read, the
// index can be read too. The address is computed as a number for the sake of that value.
inline bool has_readable_header(const void *pointer, Reach reach) {
    return is_readable(reinterpret_cast<uintptr_t>(pointer) - kWordSize, reach);
}

// The header in front of a pointer. It can be read.
inline Header header_of(const void *pointer) {
    const char *words = bytes_at(pointer) - kHeaderSize;
    return {.index = static_cast<int32_t>(read_word(words)), .magic = read_word(words + kWordSize)};
}

// Whether the trailer behind that many bytes of user data can be read and is intact.
inline bool has_intact_trailer(const void *pointer, size_t length, Reach reach) {
    const uintptr_t trailer = reinterpret_cast<uintptr_t>(pointer) + rounded_up(length);
    return is_readable(trailer, reach) && read_word(bytes_at(pointer) + rounded_up(length)) == kTrailerMagic;
}

// Whether the header in front of a pointer is that of a live block with that index. The
// header can be read. x86-64 compares both words at once.
[[gnu::no_sanitize_address]] inline bool is_live_header(const void *pointer, int32_t index) {
    const void *header = bytes_at(pointer) - kHeaderSize;
    if constexpr (sizeof(uintptr_t) == kHeaderSize) {
        using Words [[gnu::may_alias]] = uint64_t;
        return *static_cast<const Words *>(header) == (uint64_t{kLiveMagic} << 32 | static_cast<uint32_t>(index));
    }
    return read_word(header) == static_cast<uint32_t>(index) && read_word(bytes_at(pointer) - kWordSize) == kLiveMagic;
}

// Writes the magic of a release into the header of a block.
inline void mark_released(void *pointer) {
    write_word(bytes_at(pointer) - kWordSize, kReleasedMagic);
}

} // namespace zel::memory

#endif
