// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Which memory can be read: the debug heap is handed pointers that lead anywhere.
#ifndef ZEL_MALLOC_INTERNAL_READABLE_MEMORY_H
#define ZEL_MALLOC_INTERNAL_READABLE_MEMORY_H

#include <cstdint>

namespace zel::memory {

// A sanitizer's allocator keeps its blocks elsewhere than in the system's heap.
#ifdef __has_feature
#define ZEL_HAS_FEATURE(feature) __has_feature(feature)
#else
#define ZEL_HAS_FEATURE(feature) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || ZEL_HAS_FEATURE(address_sanitizer)
inline constexpr bool kAlwaysProbes = true;
#else
inline constexpr bool kAlwaysProbes = false;
#endif

// Asks once where the system's heap starts. Without an answer it starts where it ends now.
void find_heap_start();

// The addresses between which memory is read without asking, until the next call of the system's allocator or of the
// program's code.
struct Reach {
    uintptr_t start;
    uintptr_t end;
};

Reach heap_reach();

// Whether the kernel can read the word at an address, a multiple of 4. A system call.
bool can_be_read(uintptr_t address);

// The same without a system call for an address in reach.
inline bool is_readable(uintptr_t address, const Reach &reach) {
    return (address >= reach.start && address < reach.end) || can_be_read(address);
}

} // namespace zel::memory

#endif
