// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The trace of the live blocks, kept from the first mark on.
#include <malloc/internal/trace.h>

#include <malloc/internal/debug_block.h>
#include <malloc/internal/debug_records.h>
#include <malloc/internal/table_storage.h>

#include <algorithm>

namespace zel::memory {

constinit Trace trace = {.last_serial = 0, .blocks = nullptr, .owners = {}, .peak = 0};

namespace {

// Enters the block of a record into its owner's sum. Returns the place of the sum.
int32_t add_to_owner(OwnerTable &owners, const Record &record) {
    const int32_t place = add_owner(owners, owner_of(caller_of(record)));
    if (place != kNoOwner) {
        add_block(owners.sums[place], record.length);
    }
    return place;
}

// Enters all live blocks. Returns false when an owner finds no memory.
bool enter_live_blocks(Trace &started) {
    for (uint32_t index = next_in_use(0); index < debug_heap.capacity; index = next_in_use(index + 1)) {
        const int32_t owner = add_to_owner(started.owners, debug_heap.records[index]);
        if (owner == kNoOwner) {
            return false;
        }
        started.blocks[index] = {.serial = 0, .owner = owner};
        started.peak += debug_heap.records[index].length;
    }
    return true;
}

} // namespace

bool start_trace() {
    Trace started = {.last_serial = 0, .blocks = nullptr, .owners = {}, .peak = 0};
    if (!enlarge(started.blocks, std::max(debug_heap.capacity, uint32_t{1})) || !enter_live_blocks(started)) {
        clear_owners(started.owners);
        free(started.blocks);
        return false;
    }
    trace = started;
    state.watchers |= kTrace;
    return true;
}

bool grow_trace(uint32_t capacity) {
    return !is_traced() || enlarge(trace.blocks, capacity);
}

void trace_new_block(const void *pointer) {
    const int32_t index = header_of(pointer).index;
    trace.blocks[index] = {.serial = ++trace.last_serial,
                           .owner = add_to_owner(trace.owners, debug_heap.records[index])};
    trace.peak = std::max(trace.peak, debug_heap.bytes_in_use);
}

void trace_released_block(const void *pointer, size_t length) {
    const int32_t owner = trace.blocks[header_of(pointer).index].owner;
    if (owner != kNoOwner) {
        remove_block(trace.owners.sums[owner], length);
    }
}

size_t traced_peak(const Owner &owner) {
    const int32_t place = find_owner(trace.owners, owner);
    return place == kNoOwner ? 0 : trace.owners.sums[place].peak;
}

} // namespace zel::memory
