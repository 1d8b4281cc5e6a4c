// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The record table of the debug heap: live allocations, and released ones whose record
// was not used again.
#ifndef ZEL_MALLOC_INTERNAL_DEBUG_RECORDS_H
#define ZEL_MALLOC_INTERNAL_DEBUG_RECORDS_H

#include <malloc/internal/caller.h>
#include <malloc/internal/debug_heap_state.h>

#pragma GCC visibility push(hidden)

namespace zel::memory {

// Who asked for the storage of a record of the table.
inline const Caller &caller_of(const Record &record) {
    return debug_heap.callers[&record - debug_heap.records];
}

// Whether the allocation is live.
inline bool is_in_use(const Record &record) {
    return record.state == kInUse;
}

// Whether the table has a record of that index.
inline bool has_record(int32_t index) {
    return static_cast<uint32_t>(index) < debug_heap.capacity;
}

// Enlarges a table whose records are all in use. Returns false without memory; the table
// is as it was then.
bool grow_table();

// Makes sure of a free record. Returns false when the table cannot grow.
inline bool has_free_record() {
    return debug_heap.free_head != kEndOfFreeList || grow_table();
}

// Takes the head of the free list; has_free_record has made sure of one. Returns the
// index of the record.
inline int32_t take_record() {
    const int32_t index = debug_heap.free_head;
    Record &record = debug_heap.records[index];
    debug_heap.free_head = record.state;
    record.state = kInUse;
    if (keeps_in_use()) {
        insert_index(debug_heap.in_use, static_cast<uint32_t>(index));
    }
    return index;
}

// Puts a record in use at the head of the free list.
inline void release_record(int32_t index) {
    debug_heap.records[index].state = debug_heap.free_head;
    debug_heap.free_head = index;
    if (keeps_in_use()) {
        erase_index(debug_heap.in_use, static_cast<uint32_t>(index));
    }
}

// The smallest index of a record in use that is not below from; the capacity when there
// is none.
uint32_t next_in_use(uint32_t from);

// Builds the set of the indices in use anew from the records.
void build_in_use();

} // namespace zel::memory

#pragma GCC visibility pop

#endif
