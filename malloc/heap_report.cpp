// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Marks, and the visit of the live blocks.
#include <malloc/heap_report.h>

#include <malloc/internal/debug_records.h>
#include <malloc/internal/trace.h>

using zel::memory::Caller;
using zel::memory::debug_heap;
using zel::memory::next_in_use;
using zel::memory::Owner;
using zel::memory::Record;
using zel::memory::trace;

namespace {

ZelLiveBlock live_block(uint32_t index) {
    const Record &record = debug_heap.records[index];
    const Caller &caller = debug_heap.callers[index];
    const Owner owner = zel::memory::owner_of(caller);
    const bool by_function = caller.method == zel::memory::Method::function_purpose;
    return {.pointer = record.pointer,
            .length = record.length,
            .serial = zel::memory::serial_of(index),
            .id = static_cast<int32_t>(index),
            .line = owner.line,
            .name = caller.name,
            .owner = owner.text,
            .purpose = by_function ? caller.purpose_or_file : nullptr};
}

} // namespace

uint64_t zel_malloc_mark() {
    if (!zel::memory::debug_heap_on()) {
        return 0;
    }
    if (!zel::memory::is_traced() && !zel::memory::start_trace()) {
        return 0;
    }
    return ++trace.last_serial;
}

// The visitor may make the tables move and change the mode: each step reads them again.
int32_t zel_malloc_visit(uint64_t mark, ZelLiveBlockVisitor visitor, void *user) {
    if (!zel::memory::debug_heap_on()) {
        return -1;
    }
    const uint32_t end = debug_heap.capacity;
    int32_t shown = 0;
    for (uint32_t index = next_in_use(0); index < end; index = next_in_use(index + 1)) {
        if (!zel::memory::is_later(index, mark)) {
            continue;
        }
        ++shown;
        const ZelLiveBlock block = live_block(index);
        if (visitor != nullptr && visitor(&block, user) == 0) {
            break;
        }
    }
    return shown;
}
