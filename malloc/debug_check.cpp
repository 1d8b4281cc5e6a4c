// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The checks of the debug heap: one pointer, or the whole heap.
#include <malloc/internal/debug_check.h>

#include <malloc/debug_heap.h>
#include <malloc/internal/debug_block.h>
#include <malloc/internal/debug_diagnosis.h>
#include <malloc/internal/debug_heap_state.h>
#include <malloc/internal/pointer.h>
#include <msg/base/memory_report.h>
#include <msg/msg.h>

namespace zel::memory {

namespace {

// Checks every record in use, in the order of the indices. Each finding is a warning. A
// stream that takes it may run the program's code and so move the table and the end of
// the heap: both are read again.
bool heap_is_sound() {
    bool sound = true;
    Reach reach = heap_reach();
    uint32_t index = next_index(debug_heap.in_use, debug_heap.capacity, 0);
    while (index < debug_heap.capacity) {
        const Record &record = debug_heap.records[index];
        if (valid_record(record.pointer, reach) == nullptr) {
            msg_warn("%s", diagnose(record.pointer, &record, false));
            sound = false;
            reach = heap_reach();
        }
        index = next_index(debug_heap.in_use, debug_heap.capacity, index + 1);
    }
    return sound;
}

} // namespace

const Record *valid_record(const void *pointer, const Reach &reach) {
    Header header;
    if (!is_aligned(pointer) || !read_header(pointer, reach, &header) || header.magic != kLiveMagic) {
        return nullptr;
    }
    const Record *record = record_at(header.index);
    const bool valid = record != nullptr && record->pointer == pointer && is_in_use(*record) &&
                       has_intact_trailer(pointer, record->length, reach);
    return valid ? record : nullptr;
}

// A stream may allocate while a finding is written to it. That allocation does not verify
// the heap again: the same finding would be written without end.
void require_sound_heap(const Caller &caller) {
    if (debug_heap.mode != ZEL_MALLOC_VERIFY_HEAP || debug_heap.verifying) {
        return;
    }
    debug_heap.verifying = true;
    const zel::MemoryReport under_way; // the findings are reports of the memory library
    if (!heap_is_sound()) {
        msg_fatal("%s: The heap was corrupted. %s", caller.name, context_text(caller));
    }
    debug_heap.verifying = false;
}

} // namespace zel::memory
