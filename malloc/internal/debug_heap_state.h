// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The state of the debug heap, and the record of an allocation.
#ifndef ZEL_MALLOC_INTERNAL_DEBUG_HEAP_STATE_H
#define ZEL_MALLOC_INTERNAL_DEBUG_HEAP_STATE_H

#include <malloc/debug_heap.h>
#include <malloc/internal/caller.h>
#include <malloc/internal/index_set.h>

#include <cstddef>
#include <cstdint>

#pragma GCC visibility push(hidden)

namespace zel::memory {

// The state of a record in use.
inline constexpr int32_t kInUse = -1;

// The state of the last free record. Every other free record holds the index of the next
// one.
inline constexpr int32_t kEndOfFreeList = -3;

// One allocation, as far as a check reads it: the caller stands in a table beside, so
// that a verification walks over half the memory. The index of the record is its ID in
// every text. A released record keeps all but its state, so that a later diagnosis names
// the owner.
struct Record {
    void *pointer; // the user pointer
    size_t length; // the bytes asked for
    int32_t state; // kInUse, or the index of the next free record, or kEndOfFreeList
};

// All that the debug heap remembers, but for the texts of debug_diagnosis.cpp.
struct DebugHeap {
    int mode;                           // 0, then 1 or 2; see malloc/debug_heap.h
    bool verifying;                     // the heap is being verified, or was found corrupted
    uintptr_t heap_start;               // of the system's heap; set at the first switch
    Record *records;                    // the record table; it only grows
    Caller *callers;                    // who asked, for each record
    IndexSet in_use;                    // the indices of the records in use; see keeps_in_use
    uint32_t capacity;                  // records in the table, and callers
    int32_t free_head = kEndOfFreeList; // the first free record, or kEndOfFreeList
    size_t bytes_in_use;                // sum of the lengths of records in use
    int32_t free_report_threshold = -1; // in bytes; negative: no release is noted
};

extern DebugHeap debug_heap;

// Whether the set of the indices in use is kept. Only a verification walks it: in the
// other modes its words grow with the table and its members are not up to date.
inline bool keeps_in_use() {
    return debug_heap.mode == ZEL_MALLOC_VERIFY_HEAP;
}

// While the debug heap is off: warns that the operation needs it. Returns whether it is
// off.
bool warn_while_off(const char *operation);

} // namespace zel::memory

#pragma GCC visibility pop

#endif
