// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// What the tests of the debug heap share.
#ifndef ZEL_TESTS_MALLOC_DEBUG_HEAP_SUPPORT_H
#define ZEL_TESTS_MALLOC_DEBUG_HEAP_SUPPORT_H

#include <malloc/debug_heap.h>
#include <malloc/zel_malloc.h>
#include <support/child.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace zel::test {

// Where the words around a block stand, seen from the user pointer.
inline constexpr ptrdiff_t kIndexAt = -8;
inline constexpr ptrdiff_t kMagicAt = -4;

inline constexpr uint32_t kLive = 0x5739E56A;
inline constexpr uint32_t kReleased = 0x7D2C5B7E;
inline constexpr uint32_t kTrailer = 0x35A7B641;

// Runs the body in a child with the debug heap on in that mode and no width limit. In what it wrote, each pointer that
// the body has named stands as that letter in angle brackets, provided it was written with all its digits.
Outcome run_heap(int mode, const std::function<void()> &body);

// The same in whichever mode the body switches on.
Outcome run_named(const std::function<void()> &body);

// Names a pointer by a letter from A to Z, and returns it.
void *named(char letter, void *pointer);

// A pointer as the library writes it: 8 digits on x86, 16 on x86-64.
std::string written(const void *pointer);

// The block's words, also when it was released: the address sanitizer is not asked.
uint32_t word_at(const void *pointer, ptrdiff_t offset);
void set_word_at(void *pointer, ptrdiff_t offset, uint32_t value);

// From now on this block does not go back to the system when it is released: what stands in it stays. For children.
void keep_from_system(void *pointer);

// From now on the system puts this block to a use of its own when it is released, as allocators do: both words of its
// header are overwritten. For children.
void reuse_header_when_released(void *pointer);

// What a block held in the moment in which it went to the system, and the address of the block.
struct SeenByTheSystem {
    void *block;
    std::string bytes;
};

// Notes the next block that is released, and keeps it from the system. For children.
SeenByTheSystem *watch_next_release(size_t length);

// The bytes as pairs of upper-case digits with blanks between them.
std::string hex(const void *bytes, size_t length);

} // namespace zel::test

#endif
