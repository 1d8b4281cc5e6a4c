// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A block enters the record table, and leaves it.
#ifndef ZEL_MALLOC_INTERNAL_DEBUG_REGISTRATION_H
#define ZEL_MALLOC_INTERNAL_DEBUG_REGISTRATION_H

#include <malloc/internal/caller.h>

#include <cstddef>

namespace zel::memory {

// Records a new block of the system's, writes its header and trailer, and returns its user pointer. Null when the table
// of records cannot grow: the block is as it was.
void *register_block(void *block, size_t size, const Caller &caller);

// Checks the pointer, then releases its record. The header is marked; the record keeps pointer, length and description.
// Returns the length. Anything wrong is an error that ends the process.
size_t free_debug_info(void *pointer, const Caller &caller);

} // namespace zel::memory

#endif
