// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The report of a request that failed.
#ifndef ZEL_MALLOC_INTERNAL_FAILURE_REPORT_H
#define ZEL_MALLOC_INTERNAL_FAILURE_REPORT_H

#include <malloc/internal/zel_malloc_core.h>
#include <malloc/zel_malloc.h>

namespace zel::memory {

// Composes the report of a failed request of that size. errno is as the system allocator
// left it. Returns the result of the failure handler; without a handler the report is an
// error that ends the process.
void *report_failure(size_t size, const Caller &caller);

} // namespace zel::memory

#endif
