// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// What the debug heap says of a pointer, and of what it was doing.
#ifndef ZEL_MALLOC_INTERNAL_DEBUG_DIAGNOSIS_H
#define ZEL_MALLOC_INTERNAL_DEBUG_DIAGNOSIS_H

#include <malloc/internal/debug_records.h>

namespace zel::memory {

// The sentences on a pointer. known: its record, or null when that is not known. In a static buffer that every call
// overwrites.
const char *diagnose(const void *pointer, const Record *known, bool in_release);

// What the library was doing, from a call's description; "" when nothing is known. In a static buffer of its own.
const char *context_text(const Caller &caller);

} // namespace zel::memory

#endif
