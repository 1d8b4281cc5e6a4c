// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The registration of a block: it enters the record table, and leaves it.
#ifndef ZEL_MALLOC_INTERNAL_DEBUG_REGISTRATION_H
#define ZEL_MALLOC_INTERNAL_DEBUG_REGISTRATION_H

#include <malloc/internal/caller.h>

#include <cstddef>

namespace zel::memory {

// Records a new block and writes its guards. Returns the user pointer. Without memory for
// a record returns null and leaves the block as it was.
void *register_block(void *block, size_t size, const Caller &caller);

// Checks a pointer, releases its record and marks its header. Returns the length of the
// user data. A finding is an error that ends the process.
size_t free_debug_info(void *pointer, const Caller &caller);

} // namespace zel::memory

#endif
