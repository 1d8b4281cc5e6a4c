// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The checks of the debug heap: one pointer, or the whole heap.
#ifndef ZEL_MALLOC_INTERNAL_DEBUG_CHECK_H
#define ZEL_MALLOC_INTERNAL_DEBUG_CHECK_H

#include <malloc/internal/debug_records.h>
#include <malloc/internal/readable_memory.h>

namespace zel::memory {

// The record of a valid pointer: aligned, its record in use, header and trailer intact.
// Null for any other value.
const Record *valid_record(const void *pointer, const Reach &reach);

// In the mode ZEL_MALLOC_VERIFY_HEAP: verifies the whole heap. Each corrupted block is a
// warning. After the last warning an error ends the process. In the other modes nothing
// happens.
void require_sound_heap(const Caller &caller);

} // namespace zel::memory

#endif
