// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The core primitives under every entry of the memory library. They report no failure of
// the system allocator. While nothing special is on they are a few instructions around
// the system's call, so they are inline; all else is out of line.
#ifndef ZEL_MALLOC_INTERNAL_ZEL_MALLOC_CORE_H
#define ZEL_MALLOC_INTERNAL_ZEL_MALLOC_CORE_H

#include <malloc/internal/caller.h>
#include <malloc/internal/pointer.h>

#include <cstdint>
#include <cstdlib>

#pragma GCC visibility push(hidden)

namespace zel::memory {

// What is on and looks at the requests of the program: the bits of State::watchers.
inline constexpr uint32_t kDebugHeap = 1;      // blocks are guarded and recorded
inline constexpr uint32_t kAwaitedFailure = 2; // one of the next requests is to fail
inline constexpr uint32_t kTrace = 4;          // a mark was taken; only with the debug heap

// The state of the core.
struct State {
    uint32_t total_requested; // the block sizes of all attempts, modulo 2 to the 32
    bool allocation_called;   // set by the first attempt; a debug heap that is off then stays off
    uint32_t watchers;        // 0: nothing special is on
    long requests_left;       // that succeed before the awaited failure
};

extern State state;

// Whether the debug heap is on.
inline bool debug_heap_on() {
    return (state.watchers & kDebugHeap) != 0;
}

// Whether anything looks at the requests. Inline, because every request asks.
inline bool is_watched() {
    return state.watchers != 0;
}

// Asks the system for a block. An attempt that fails counts as well.
inline void *request_block(size_t size) {
    void *block = malloc(size);
    state.total_requested += static_cast<uint32_t>(size);
    return block;
}

// Asks the system to resize a block. An attempt that fails counts as well.
inline void *resize_block(void *block, size_t size) {
    void *resized = realloc(block, size);
    state.total_requested += static_cast<uint32_t>(size);
    return resized;
}

// The core primitives while something looks at the requests. With the debug heap on each
// block has guards and a record.
void *watched_malloc(size_t size, Method method, const char *name, Place place, const char *purpose_or_file);
void *watched_realloc(void *pointer, size_t size, Method method, const char *name, Place place,
                      const char *purpose_or_file);
// With the debug heap on.
void guarded_free(void *pointer);

// Ends the process: the entry of that name was passed a pointer that is no multiple of 8.
[[noreturn, gnu::cold]] void refuse_unaligned(const void *pointer, const char *name);

// Allocates size bytes; asks the system for 0 bytes as well. Returns null with errno when
// the system provides no block, or no memory for the record of the debug heap.
inline void *zel_malloc_core(size_t size, const Caller &caller) {
    state.allocation_called = true;
    if (is_watched()) [[unlikely]] {
        return watched_malloc(size, caller.method, caller.name, caller.place, caller.purpose_or_file);
    }
    return request_block(size);
}

// Resizes storage to size bytes, not 0. Returns null with errno when the system cannot.
inline void *zel_realloc_core(void *pointer, size_t size, const Caller &caller) {
    state.allocation_called = true;
    if (!is_aligned(pointer)) {
        refuse_unaligned(pointer, caller.name);
    }
    if (is_watched()) [[unlikely]] {
        return watched_realloc(pointer, size, caller.method, caller.name, caller.place, caller.purpose_or_file);
    }
    return resize_block(pointer, size);
}

// Releases storage. pointer: not null.
inline void zel_free_core(void *pointer) {
    if (!is_aligned(pointer)) {
        refuse_unaligned(pointer, "zel_free");
    }
    if (debug_heap_on()) [[unlikely]] {
        guarded_free(pointer);
        return;
    }
    free(pointer);
}

} // namespace zel::memory

#pragma GCC visibility pop

#endif
