// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The registration of a block: it enters the record table, and leaves it.
#include <malloc/internal/debug_registration.h>

#include <malloc/internal/debug_diagnosis.h>
#include <msg/base/memory_report.h>
#include <msg/msg.h>

namespace zel::memory {

namespace {

// The record of a pointer behind the note of its release. A record of another pointer is
// refused, because its length is not that of this block.
// DELIBERATE: the errors name free_debug_info, which the texts promise. Tests:
// DebugHeapRelease.ANegativeIndexIsAnInternalError,
// DebugHeapRelease.AnIndexThatPointsToAReleasedRecordIsAnInternalError.
const Record *require_record(const void *pointer, const Caller &caller) {
    if (!has_readable_header(pointer, heap_reach())) {
        refuse(pointer, caller);
    }
    const zel::MemoryReport under_way;
    const int32_t index = header_of(pointer).index;
    if (!has_record(index)) {
        msg_fatal("Zel MALLOC library internal error: free_debug_info index out of range (index = %ld, limit = %ld).",
                  static_cast<long>(index), static_cast<long>(debug_heap.capacity));
    }
    const Record &record = debug_heap.records[index];
    if (!is_in_use(record)) {
        msg_fatal("Zel MALLOC library internal error: free_debug_info index pointed to a free debug info structure "
                  "(index = %ld)",
                  static_cast<long>(index));
    }
    if (record.pointer != pointer) {
        refuse(pointer, caller);
    }
    return &record;
}

} // namespace

void refuse(const void *pointer, const Caller &caller) {
    const zel::MemoryReport under_way;
    const char *diagnosis = diagnose(pointer, nullptr, true);
    msg_fatal("%s: %s %s", caller.name, diagnosis, context_text(caller));
}

// DELIBERATE: two blanks stand in front of the context, also of an empty one. Test:
// DebugHeapNote.AtThresholdZeroEveryReleaseIsNoted.
const Record *note_release(const Record &record, const Caller &caller) {
    const void *pointer = record.pointer; // the table may move
    {
        const zel::MemoryReport under_way;
        msg_warn("(%s): Freeing a pointer (0x%0*lX) which pointed to %lu bytes of data.  %s", caller.name,
                 kPointerDigits, reinterpret_cast<unsigned long>(pointer), static_cast<unsigned long>(record.length),
                 context_text(caller));
    }
    return require_record(pointer, caller);
}

} // namespace zel::memory
