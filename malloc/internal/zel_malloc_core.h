// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The core primitives under every entry of the memory library. They report no failure of
// the system allocator.
#ifndef ZEL_MALLOC_INTERNAL_ZEL_MALLOC_CORE_H
#define ZEL_MALLOC_INTERNAL_ZEL_MALLOC_CORE_H

#include <malloc/internal/caller.h>

#include <cstddef>

namespace zel::memory {

// The state of the core.
struct State {
    uint32_t total_requested; // the block sizes of all attempts, modulo 2 to the 32
    bool allocation_called;   // set by the first attempt; a debug heap that is off then stays off
};

extern State state;

// Allocates size bytes; asks the system for 0 bytes as well. Returns null with errno when
// the system provides no block, or no memory for the record of the debug heap.
void *zel_malloc_core(size_t size, const Caller &caller);
// Resizes storage to size bytes, not 0. Returns null with errno when the system cannot.
void *zel_realloc_core(void *pointer, size_t size, const Caller &caller);
// Releases storage. pointer: not null.
void zel_free_core(void *pointer);

} // namespace zel::memory

#endif
