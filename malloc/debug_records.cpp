// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The record table of the debug heap.
#include <malloc/internal/debug_records.h>

#include <malloc/internal/table_storage.h>
#include <malloc/internal/trace.h>
#include <msg/base/limits.h>

#include <algorithm>

namespace zel::memory {

namespace {

constexpr uint32_t kMostRecords = INT32_MAX; // every index fits an int32_t

// Gives each level the words for the capacity. Once a level has enough words, so do all
// above.
bool grow_index_set(uint32_t before, uint32_t capacity) {
    for (uint32_t level = 0; level < kIndexLevels; ++level) {
        const uint32_t words_before = before == 0 ? 0 : index_words(before, level);
        const uint32_t words = index_words(capacity, level);
        if (words == words_before) {
            return true;
        }
        uint32_t *&table = debug_heap.in_use.levels[level];
        if (!enlarge(table, words)) {
            return false;
        }
        std::fill(table + words_before, table + words, 0);
    }
    return true;
}

} // namespace

// Grows every part of the table, then stores the capacity. When a part cannot grow, the
// capacity stays. Entries behind the capacity are not read, and the next attempt sets
// them up. The set grows in every mode: a switch of the mode needs no memory.
bool grow_table() {
    const uint32_t before = debug_heap.capacity;
    if (before > kMostRecords - kRecordTableStep) {
        return false;
    }
    const uint32_t capacity = before + kRecordTableStep;
    if (!enlarge(debug_heap.records, capacity) || !enlarge(debug_heap.callers, capacity) ||
        !grow_index_set(before, capacity) || !grow_trace(capacity)) {
        return false;
    }
    // The new records are the free list, in the order of their indices.
    for (uint32_t index = before; index < capacity; ++index) {
        debug_heap.records[index] = {};
        debug_heap.records[index].state = static_cast<int32_t>(index + 1);
    }
    debug_heap.records[capacity - 1].state = kEndOfFreeList;
    debug_heap.free_head = static_cast<int32_t>(before);
    debug_heap.capacity = capacity;
    return true;
}

uint32_t next_in_use(uint32_t from) {
    if (keeps_in_use()) {
        return next_index(debug_heap.in_use, debug_heap.capacity, from);
    }
    while (from < debug_heap.capacity && !is_in_use(debug_heap.records[from])) {
        ++from;
    }
    return from;
}

void build_in_use() {
    for (uint32_t index = 0; index < debug_heap.capacity; ++index) {
        if (is_in_use(debug_heap.records[index])) {
            insert_index(debug_heap.in_use, index);
        } else {
            erase_index(debug_heap.in_use, index);
        }
    }
}

} // namespace zel::memory
