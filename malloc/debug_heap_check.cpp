// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Checking a pointer, verifying the heap, releasing a record.
#include <malloc/debug_heap.h>
#include <malloc/internal/debug_heap.h>
#include <msg/base/memory_report.h>
#include <msg/msg.h>

namespace zel::memory {

namespace {

// Every record in use, in the order of the indices; each that is not sound is a warning. Returns whether all are.
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

// A stream that allocates while a finding is written to it does not have the heap verified again: it would be told the
// same finding, without end.
void require_sound_heap(const Caller &caller) {
    if (debug_heap.mode != ZEL_MALLOC_VERIFY_HEAP || debug_heap.verifying) {
        return;
    }
    debug_heap.verifying = true;
    const zel::MemoryReport under_way; // findings are written while the heap is verified
    if (!heap_is_sound()) {
        msg_fatal("%s: The heap was corrupted. %s", caller.name, context_text(caller));
    }
    debug_heap.verifying = false;
}

[[noreturn]] void refuse(const void *pointer, const Caller &caller) {
    const zel::MemoryReport under_way;
    const char *diagnosis = diagnose(pointer, nullptr, true);
    msg_fatal("%s: %s %s", caller.name, diagnosis, context_text(caller));
}

void note_release(const Record &record, const Caller &caller) {
    const int32_t threshold = debug_heap.free_report_threshold;
    if (threshold < 0 || record.length < static_cast<size_t>(threshold)) {
        return;
    }
    const zel::MemoryReport under_way;
    msg_warn("(%s): Freeing a pointer (0x%0*lX) which pointed to %lu bytes of data.  %s", caller.name, kPointerDigits,
             reinterpret_cast<unsigned long>(record.pointer), static_cast<unsigned long>(record.length),
             context_text(caller));
}

// The note of the release may have run the program's code: header and record are read again. A record of another
// pointer is refused: as many bytes as it says would be filled.
int32_t require_record(const void *pointer, const Caller &caller) {
    Header header;
    if (!read_header(pointer, heap_reach(), &header)) {
        refuse(pointer, caller);
    }
    const zel::MemoryReport under_way;
    const Record *record = record_at(header.index);
    if (record == nullptr) {
        msg_fatal("Zel MALLOC library internal error: free_debug_info index out of range (index = %ld, limit = %ld).",
                  static_cast<long>(header.index), static_cast<long>(debug_heap.capacity));
    }
    if (!is_in_use(*record)) {
        msg_fatal("Zel MALLOC library internal error: free_debug_info index pointed to a free debug info structure "
                  "(index = %ld)",
                  static_cast<long>(header.index));
    }
    if (record->pointer != pointer) {
        refuse(pointer, caller);
    }
    return header.index;
}

} // namespace

const Record *valid_record(const void *pointer, const Reach &reach) {
    Header header;
    if (!is_aligned(pointer) || !read_header(pointer, reach, &header) || header.magic != kLiveMagic) {
        return nullptr;
    }
    const Record *record = record_at(header.index);
    const bool valid =
        record != nullptr && record->pointer == pointer && is_in_use(*record) && has_intact_trailer(*record, reach);
    return valid ? record : nullptr;
}

void verify_before_allocation(const Caller &caller) {
    require_sound_heap(caller);
}

size_t free_debug_info(void *pointer, const Caller &caller) {
    const Record *owner = valid_record(pointer, heap_reach());
    if (owner == nullptr) {
        refuse(pointer, caller);
    }
    require_sound_heap(caller);
    debug_heap.bytes_in_use -= owner->length;
    note_release(*owner, caller);
    const int32_t index = require_record(pointer, caller);
    release_record(index);
    mark_released(pointer);
    return debug_heap.records[index].length;
}

} // namespace zel::memory
