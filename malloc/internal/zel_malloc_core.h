// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The core primitives under every entry of the memory library. They return null on failure and never report a failure
// of the system allocator themselves.
#ifndef ZEL_MALLOC_INTERNAL_ZEL_MALLOC_CORE_H
#define ZEL_MALLOC_INTERNAL_ZEL_MALLOC_CORE_H

#include <malloc/internal/caller.h>

#include <cstddef>

namespace zel::memory {

// The counters of the memory library; the debug heap has a record of its own.
struct State {
    uint32_t total_requested; // sum of the sizes of all attempts; wraps, never decreases otherwise
    bool allocation_called;   // set by the first attempt and kept: from then on the debug heap cannot be switched on
};

extern State state;

void *zel_malloc_core(size_t size, const Caller &caller);
void *zel_realloc_core(void *pointer, size_t size, const Caller &caller);
void zel_free_core(void *pointer);

} // namespace zel::memory

#endif
