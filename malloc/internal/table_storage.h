// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The storage of the debug heap's own tables.
#ifndef ZEL_MALLOC_INTERNAL_TABLE_STORAGE_H
#define ZEL_MALLOC_INTERNAL_TABLE_STORAGE_H

#include <cstddef>
#include <cstdlib>

namespace zel::memory {

// Enlarges a table through the system's allocator: it is no allocation of the program.
// Returns false without memory and leaves the table as it was. count: not 0.
template <typename Entry>
bool enlarge(Entry *&table, size_t count) {
    auto *larger = static_cast<Entry *>(realloc(static_cast<void *>(table), count * sizeof(Entry)));
    if (larger == nullptr) {
        return false;
    }
    table = larger;
    return true;
}

} // namespace zel::memory

#endif
