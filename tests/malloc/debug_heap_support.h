// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Support of the debug heap's tests: children, named pointers, the words of a block.
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

// The places of a block's words, as distances from the user pointer.
inline constexpr ptrdiff_t kIndexAt = -8;
inline constexpr ptrdiff_t kMagicAt = -4;

inline constexpr uint32_t kLive = 0x5739E56A;
inline constexpr uint32_t kReleased = 0x7D2C5B7E;
inline constexpr uint32_t kTrailer = 0x35A7B641;

// Runs the body in a child with the debug heap on in that mode and no width limit. In
// what it wrote, each pointer that the body has named stands as that letter in angle
// brackets, provided it was written with all its digits.
Outcome run_heap(int mode, const std::function<void()> &body);

// The same in the mode that the body switches on.
Outcome run_named(const std::function<void()> &body);

// Names a pointer by a letter from A to Z, and returns it.
void *named(char letter, void *pointer);

// A pointer as the library writes it: 8 digits on x86, 16 on x86-64.
std::string written(const void *pointer);

// The words of a block, live or released. The address sanitizer does not see these reads.
uint32_t word_at(const void *pointer, ptrdiff_t offset);
void set_word_at(void *pointer, ptrdiff_t offset, uint32_t value);

// From now on the release of this block leaves its bytes as they are. For children.
void keep_from_system(void *pointer);

// From now on the release of this block overwrites both words of its header, as an
// allocator may. For children.
void reuse_header_when_released(void *pointer);

// The address of a released block, and its bytes when it went to the system.
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
