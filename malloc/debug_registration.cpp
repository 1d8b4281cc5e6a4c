// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The registration of a block: it enters the record table, and leaves it.
#include <malloc/internal/debug_registration.h>

#include <malloc/internal/debug_block.h>
#include <malloc/internal/debug_check.h>
#include <malloc/internal/debug_diagnosis.h>
#include <malloc/internal/debug_heap_state.h>
#include <malloc/internal/pointer.h>
#include <msg/base/memory_report.h>
#include <msg/msg.h>

namespace zel::memory {

namespace {

// Ends the process with the diagnosis of a pointer that is not valid.
[[noreturn]] void refuse(const void *pointer, const Caller &caller) {
    const zel::MemoryReport under_way;
    const char *diagnosis = diagnose(pointer, nullptr, true);
    msg_fatal("%s: %s %s", caller.name, diagnosis, context_text(caller));
}

// Warns of the release of a block that has the threshold's length or more.
// DELIBERATE: two blanks stand in front of the context, also of an empty one. Test:
// DebugHeapNote.AtThresholdZeroEveryReleaseIsNoted.
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

// The index of a pointer's record. The note of the release may have run the program's
// code: the header and the record are read again. A record of another pointer is refused,
// because its length is not that of this block.
// DELIBERATE: the errors name free_debug_info, which the texts promise. Tests:
// DebugHeapRelease.ANegativeIndexIsAnInternalError,
// DebugHeapRelease.AnIndexThatPointsToAReleasedRecordIsAnInternalError.
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

void *register_block(void *block, size_t size, const Caller &caller) {
    if (!has_free_record()) {
        return nullptr;
    }
    void *pointer = user_pointer_of(block);
    const int32_t index = take_record(caller.method);
    Record &record = debug_heap.records[index];
    record.pointer = pointer;
    record.length = size;
    record.caller = caller;
    debug_heap.bytes_in_use += size;
    write_guards(pointer, size, index);
    return pointer;
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
