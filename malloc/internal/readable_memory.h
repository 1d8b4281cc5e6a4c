// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Which memory can be read. The debug heap is asked about pointers of any value.
#ifndef ZEL_MALLOC_INTERNAL_READABLE_MEMORY_H
#define ZEL_MALLOC_INTERNAL_READABLE_MEMORY_H

#include <malloc/internal/debug_heap_state.h>

#include <cstdint>
#include <unistd.h>

#pragma GCC visibility push(hidden)

namespace zel::memory {

// Whether the kernel is asked about every address, as it is with the address sanitizer.
// The sanitizer's allocator keeps its blocks outside the system's heap.
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

// Finds where the system's heap starts; called once. Without an answer from /proc the
// start is the heap's present end.
void find_heap_start();

// The addresses from start to end are read without a system call. A reach holds until the
// system's allocator or the program's code runs: either may shorten the heap.
struct Reach {
    uintptr_t start;
    uintptr_t end;
};

// The reach of the system's heap as it stands. The C library keeps its end: there is no
// system call. All memory from the start of the heap to its end is mapped, unless the
// program unmaps some.
inline Reach heap_reach() {
    return {.start = debug_heap.heap_start, .end = kAlwaysProbes ? 0 : reinterpret_cast<uintptr_t>(sbrk(0))};
}

// Asks the kernel whether the word at an address can be read. address: a multiple of 4.
bool can_be_read(uintptr_t address);

// Whether an address lies within reach.
inline bool is_within(uintptr_t address, Reach reach) {
    return address >= reach.start && address < reach.end;
}

// Whether the word at an address can be read. An address within reach costs no system
// call.
inline bool is_readable(uintptr_t address, Reach reach) {
    return is_within(address, reach) || can_be_read(address);
}

} // namespace zel::memory

#pragma GCC visibility pop

#endif
