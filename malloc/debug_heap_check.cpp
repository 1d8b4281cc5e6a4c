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
    uint32_t index = next_index(debug_heap.in_use, debug_heap.capacity, 0);
    while (index < debug_heap.capacity) {
        const Record &record = debug_heap.records[index];
        if (!is_valid(record.pointer)) {
            msg_warn("%s", diagnose(record.pointer, &record, false));
            sound = false;
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

void require_valid(const void *pointer, const Caller &caller) {
    if (!is_valid(pointer)) {
        const zel::MemoryReport under_way;
        const char *diagnosis = diagnose(pointer, nullptr, true);
        msg_fatal("%s: %s %s", caller.name, diagnosis, context_text(caller));
    }
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

// The checks have passed: what stands here now was changed since, by what wrote the note of the release at the latest.
Record &require_record(int32_t index) {
    const zel::MemoryReport under_way;
    Record *record = record_at(index);
    if (record == nullptr) {
        msg_fatal("Zel MALLOC library internal error: free_debug_info index out of range (index = %ld, limit = %ld).",
                  static_cast<long>(index), static_cast<long>(debug_heap.capacity));
    }
    if (!is_in_use(*record)) {
        msg_fatal("Zel MALLOC library internal error: free_debug_info index pointed to a free debug info structure "
                  "(index = %ld)",
                  static_cast<long>(index));
    }
    return *record;
}

} // namespace

bool is_valid(const void *pointer) {
    if (!is_aligned(pointer)) {
        return false;
    }
    const Header header = read_header(pointer);
    if (header.magic != kLiveMagic) {
        return false;
    }
    const Record *record = record_at(header.index);
    return record != nullptr && record->pointer == pointer && is_in_use(*record) &&
           read_trailer(pointer, record->length) == kTrailerMagic;
}

void verify_before_allocation(const Caller &caller) {
    require_sound_heap(caller);
}

// The header is read again behind the note: a stream of the program's was written to meanwhile.
void free_debug_info(void *pointer, const Caller &caller) {
    require_valid(pointer, caller);
    require_sound_heap(caller);
    const Record &owner = *record_at(read_header(pointer).index);
    debug_heap.bytes_in_use -= owner.length;
    note_release(owner, caller);
    const int32_t index = read_header(pointer).index;
    Record &record = require_record(index);
    record.state = debug_heap.free_head;
    debug_heap.free_head = index;
    erase_index(debug_heap.in_use, static_cast<uint32_t>(index));
    mark_released(pointer);
}

} // namespace zel::memory
