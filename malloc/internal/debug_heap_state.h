// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The state of the debug heap.
#ifndef ZEL_MALLOC_INTERNAL_DEBUG_HEAP_STATE_H
#define ZEL_MALLOC_INTERNAL_DEBUG_HEAP_STATE_H

#include <malloc/internal/debug_records.h>
#include <malloc/internal/index_set.h>

#include <cstddef>
#include <cstdint>

namespace zel::memory {

// All that the debug heap remembers, but for the texts of debug_diagnosis.cpp.
struct DebugHeap {
    int mode;                           // 0, then 1 or 2; see malloc/debug_heap.h
    bool verifying;                     // the heap is being verified, or was found corrupted
    uintptr_t heap_start;               // of the system's heap; set at the first switch
    Record *records;                    // the record table; it only grows
    IndexSet in_use;                    // the indices of the records in use
    uint32_t capacity;                  // records in the table
    int32_t free_head = kEndOfFreeList; // the first free record, or kEndOfFreeList
    size_t bytes_in_use;                // sum of the lengths of records in use
    int32_t free_report_threshold = -1; // in bytes; negative: no release is noted
};

extern DebugHeap debug_heap;

// Whether the debug heap is on. Inline, because every allocation asks.
inline bool debug_heap_on() {
    return debug_heap.mode != 0;
}

// While the debug heap is off: warns that the operation needs it. Returns whether it is
// off.
bool warn_while_off(const char *operation);

} // namespace zel::memory

#endif
