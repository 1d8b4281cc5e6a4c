// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Allocation for callers that cannot go on without memory.
#ifndef ZEL_COMPONENTS_PLATFORM_BASE_ALLOCATION_H
#define ZEL_COMPONENTS_PLATFORM_BASE_ALLOCATION_H

#include <msg/msg.h>

#include <cstdlib>

namespace zel {

// Returns storage from malloc. Without memory an error names the function, and the
// process ends.
inline void *allocate_or_end(size_t size, const char *function) {
    void *storage = malloc(size);
    if (storage == nullptr) {
        msg_fatal("%s: Not enough memory to allocate %lu bytes.", function, static_cast<unsigned long>(size));
    }
    return storage;
}

} // namespace zel

#endif
