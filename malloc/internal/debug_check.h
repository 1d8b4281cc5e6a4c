// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Checking a pointer, verifying the heap.
#ifndef ZEL_MALLOC_INTERNAL_DEBUG_CHECK_H
#define ZEL_MALLOC_INTERNAL_DEBUG_CHECK_H

#include <malloc/internal/debug_records.h>
#include <malloc/internal/readable_memory.h>

namespace zel::memory {

// The record of a pointer, in use and with header and trailer intact; null when the pointer is not valid.
const Record *valid_record(const void *pointer, const Reach &reach);

// In verify mode: a heap that is not sound is reported, and the process ends.
void require_sound_heap(const Caller &caller);

} // namespace zel::memory

#endif
