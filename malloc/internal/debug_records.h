// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The record table of the debug heap.
#ifndef ZEL_MALLOC_INTERNAL_DEBUG_RECORDS_H
#define ZEL_MALLOC_INTERNAL_DEBUG_RECORDS_H

#include <malloc/internal/caller.h>

#include <cstddef>
#include <cstdint>

namespace zel::memory {

// The states of a record in use. Any other is the index of the next free record, or the end of that list.
inline constexpr int32_t kInUseByFunction = -1;
inline constexpr int32_t kInUseByLine = -2;
inline constexpr int32_t kEndOfFreeList = -3;

// One allocation, live or released. Its index is its ID.
struct Record {
    void *pointer;
    size_t length;
    Caller caller; // keeps its form when the record is released, so that a later diagnosis can name the owner
    int32_t state;
};

bool is_in_use(const Record &record);

// The record of an index, or null for one outside the table. An index equal to the capacity matches none.
Record *record_at(int32_t index);

// Whether there is a record to take, the table grown when there was none.
bool has_free_record();

// The index of a record that is now in use: the one that was released last. There is one.
int32_t take_record(Method method);
void release_record(int32_t index);

} // namespace zel::memory

#endif
