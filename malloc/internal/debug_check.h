// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The checks of the debug heap: one pointer, or the whole heap.
#ifndef ZEL_MALLOC_INTERNAL_DEBUG_CHECK_H
#define ZEL_MALLOC_INTERNAL_DEBUG_CHECK_H

#include <malloc/internal/debug_block.h>
#include <malloc/internal/debug_records.h>
#include <malloc/internal/pointer.h>

#pragma GCC visibility push(hidden)

namespace zel::memory {

// The record of a valid pointer: aligned, its record in use, header and trailer intact.
// Null for any other value.
inline const Record *valid_record(const void *pointer, Reach reach) {
    if (!is_aligned(pointer) || !has_readable_header(pointer, reach)) {
        return nullptr;
    }
    const Header header = header_of(pointer);
    if (header.magic != kLiveMagic || !has_record(header.index)) {
        return nullptr;
    }
    const Record &record = debug_heap.records[header.index];
    const bool valid =
        record.pointer == pointer && is_in_use(record) && has_intact_trailer(pointer, record.length, reach);
    return valid ? &record : nullptr;
}

// Verifies the whole heap. Each corrupted block is a warning. After the last warning an
// error ends the process.
void verify_heap(Method method, const char *name, Place place, const char *purpose_or_file);

// In the mode ZEL_MALLOC_VERIFY_HEAP: verifies the whole heap. In the other modes nothing
// happens. A stream may allocate while a finding is written to it. That allocation does
// not verify the heap again: the same finding would be written without end.
inline void require_sound_heap(const Caller &caller) {
    if (debug_heap.mode == ZEL_MALLOC_VERIFY_HEAP && !debug_heap.verifying) {
        verify_heap(caller.method, caller.name, caller.place, caller.purpose_or_file);
    }
}

} // namespace zel::memory

#pragma GCC visibility pop

#endif
