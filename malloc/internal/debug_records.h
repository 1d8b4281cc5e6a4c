// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The record table of the debug heap: live allocations, and released ones whose record
// was not used again.
#ifndef ZEL_MALLOC_INTERNAL_DEBUG_RECORDS_H
#define ZEL_MALLOC_INTERNAL_DEBUG_RECORDS_H

#include <malloc/internal/caller.h>

#include <cstddef>
#include <cstdint>

namespace zel::memory {

// The states of a record in use, by the form of its description.
inline constexpr int32_t kInUseByFunction = -1;
inline constexpr int32_t kInUseByLine = -2;

// The state of the last free record. Every other free record holds the index of the next
// one.
inline constexpr int32_t kEndOfFreeList = -3;

// One allocation. The index of its record is its ID in every text. A released record
// keeps all but its state, so that a later diagnosis names the owner.
struct Record {
    void *pointer; // the user pointer
    size_t length; // the bytes asked for
    Caller caller;
    int32_t state; // one of the states above, or the index of the next free record
};

// Whether the allocation is live.
bool is_in_use(const Record &record);

// The record of an index; null when the index is outside the table.
Record *record_at(int32_t index);

// Grows the table when it has no free record. Returns false when there is still none.
bool has_free_record();

// Takes the head of the free list; has_free_record has made sure of one. Returns the
// index of the record.
int32_t take_record(Method method);

// Puts a record in use at the head of the free list.
void release_record(int32_t index);

} // namespace zel::memory

#endif
