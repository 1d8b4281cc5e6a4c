// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The trace of the live blocks, kept from the first mark on: their numbers, their owners
// and the peaks. Without a mark an allocation and a release pay nothing for it.
#ifndef ZEL_MALLOC_INTERNAL_TRACE_H
#define ZEL_MALLOC_INTERNAL_TRACE_H

#include <malloc/internal/owner_table.h>
#include <malloc/internal/zel_malloc_core.h>

#include <cstddef>
#include <cstdint>

#pragma GCC visibility push(hidden)

namespace zel::memory {

// What the trace knows of the block of a record. Valid while the record is in use.
struct TracedBlock {
    uint64_t serial; // 0 for a block from before the first mark
    int32_t owner;   // the place of its sum, or kNoOwner when there was no memory for one
};

struct Trace {
    uint64_t last_serial; // the number of the latest allocation or mark
    TracedBlock *blocks;  // one for each record of the table
    OwnerTable owners;    // all owners since the first mark, and of the blocks before it
    size_t peak;          // the most bytes in use
};

extern Trace trace;

// Whether a mark was taken.
inline bool is_traced() {
    return (state.watchers & kTrace) != 0;
}

// Begins the trace with the blocks that are live. Returns false without memory.
bool start_trace();

// Makes room for as many records. Returns false without memory. Without a mark there is
// nothing to do.
bool grow_trace(uint32_t capacity);

// The block of a pointer was registered, or is released. length: of the released block.
// Its header is intact.
void trace_new_block(const void *pointer);
void trace_released_block(const void *pointer, size_t length);

// The number of the block of a record in use.
inline uint64_t serial_of(uint32_t index) {
    return is_traced() ? trace.blocks[index].serial : 0;
}

// Whether the block of a record in use is later than a mark.
inline bool is_later(uint32_t index, uint64_t mark) {
    return mark == 0 || serial_of(index) > mark;
}

// The peak of an owner; 0 when it is not known.
size_t traced_peak(const Owner &owner);

} // namespace zel::memory

#pragma GCC visibility pop

#endif
