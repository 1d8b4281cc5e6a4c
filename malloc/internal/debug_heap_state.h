// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The state of the debug heap, and whether it is on.
#ifndef ZEL_MALLOC_INTERNAL_DEBUG_HEAP_STATE_H
#define ZEL_MALLOC_INTERNAL_DEBUG_HEAP_STATE_H

#include <malloc/internal/debug_records.h>
#include <malloc/internal/index_set.h>

#include <cstddef>
#include <cstdint>

namespace zel::memory {

struct DebugHeap {
    int mode;                           // 0, ZEL_MALLOC_CHECK_PTR or ZEL_MALLOC_VERIFY_HEAP; never back to 0
    bool verifying;                     // while the whole heap is verified, and after it was found corrupted
    uintptr_t heap_start;               // of the system's heap; from there to sbrk(0) memory is read without asking
    Record *records;                    // only grows
    IndexSet in_use;                    // the records in use, for walking
    uint32_t capacity;                  // records in the table
    int32_t free_head = kEndOfFreeList; // released last, reused first
    size_t bytes_in_use;                // sum of the lengths of records in use
    int32_t free_report_threshold = -1; // negative: no note
};

extern DebugHeap debug_heap;

// Whether the debug heap is on, in either mode. Here, because every allocation asks.
inline bool debug_heap_on() {
    return debug_heap.mode != 0;
}

// Warns that a question needs the debug heap, and returns whether that is off.
bool warn_while_off(const char *operation);

} // namespace zel::memory

#endif
