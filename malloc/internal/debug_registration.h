// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The registration of a block: it enters the record table, and leaves it. Inline, because
// every guarded allocation and release runs through here.
#ifndef ZEL_MALLOC_INTERNAL_DEBUG_REGISTRATION_H
#define ZEL_MALLOC_INTERNAL_DEBUG_REGISTRATION_H

#include <malloc/internal/debug_check.h>

#pragma GCC visibility push(hidden)

namespace zel::memory {

// Ends the process with the diagnosis of a pointer that is not valid.
[[noreturn, gnu::cold]] void refuse(const void *pointer, const Caller &caller);

// Warns of the release of a block. The stream may run the program's code: header and
// record are read again, and what does not fit is an error that ends the process. Returns
// the record.
[[gnu::cold]] const Record *note_release(const Record &record, const Caller &caller);

// Whether the release of a block is noted: it has the threshold's length or more.
inline bool is_noted(const Record &record) {
    const int32_t threshold = debug_heap.free_report_threshold;
    return threshold >= 0 && record.length >= static_cast<size_t>(threshold);
}

// Records a new block and writes its guards. Returns the user pointer. Without memory for
// a record returns null and leaves the block as it was.
[[gnu::always_inline]] inline void *register_block(void *block, size_t size, const Caller &caller) {
    if (!has_free_record()) {
        return nullptr;
    }
    void *pointer = user_pointer_of(block);
    const int32_t index = take_record();
    Record &record = debug_heap.records[index];
    record.pointer = pointer;
    record.length = size;
    Caller &described = debug_heap.callers[index]; // value by value, from their registers
    described.method = caller.method;
    described.name = caller.name;
    described.place = caller.place;
    described.purpose_or_file = caller.purpose_or_file;
    debug_heap.bytes_in_use += size;
    write_guards(pointer, size, index);
    return pointer;
}

// Checks a pointer, releases its record and marks its header. Returns the length of the
// user data. A finding is an error that ends the process.
[[gnu::always_inline]] inline size_t free_debug_info(void *pointer, const Caller &caller) {
    const Record *record = valid_record(pointer, heap_reach());
    if (record == nullptr) {
        refuse(pointer, caller);
    }
    require_sound_heap(caller);
    debug_heap.bytes_in_use -= record->length;
    if (is_noted(*record)) {
        record = note_release(*record, caller);
    }
    const size_t length = record->length;
    release_record(header_of(pointer).index);
    mark_released(pointer);
    return length;
}

} // namespace zel::memory

#pragma GCC visibility pop

#endif
