// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The texts of the findings: the diagnosis of a pointer, and the context of a call.
#ifndef ZEL_MALLOC_INTERNAL_DEBUG_DIAGNOSIS_H
#define ZEL_MALLOC_INTERNAL_DEBUG_DIAGNOSIS_H

#include <malloc/internal/debug_heap_state.h>

#pragma GCC visibility push(hidden)

namespace zel::memory {

// The diagnosis of a pointer of any value. known: the record that holds the
// pointer, or null. in_release: whether the pointer is being released or resized. The
// text stands in a static buffer until the next call.
const char *diagnose(const void *pointer, const Record *known, bool in_release);

// The context of a call, from its description; "" without a function and a purpose. The
// text stands in a static buffer until the next call.
const char *context_text(const Caller &caller);

} // namespace zel::memory

#pragma GCC visibility pop

#endif
