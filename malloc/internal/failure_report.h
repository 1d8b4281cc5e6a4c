// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The report of a request that failed.
#ifndef ZEL_MALLOC_INTERNAL_FAILURE_REPORT_H
#define ZEL_MALLOC_INTERNAL_FAILURE_REPORT_H

#include <malloc/internal/zel_malloc_core.h>
#include <malloc/zel_malloc.h>

#pragma GCC visibility push(hidden)

namespace zel::memory {

// Composes the report of a failed request of that size. errno is as the system allocator
// left it. Returns the result of the failure handler; without a handler the report is an
// error that ends the process.
void *report_failure(size_t size, Method method, const char *name, Place place, const char *purpose_or_file);

} // namespace zel::memory

#pragma GCC visibility pop

#endif
