// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The starts of the lines of one message, in storage that grows.
#include <components/platform/socket/line_table.h>

#include <components/platform/base/allocation.h>

#include <algorithm>

namespace zel::socket {

namespace {

int32_t larger_capacity(const LineTable &table) {
    return std::min(2 * table.capacity, PLATFORM_MAX_MESSAGE_LINES + 1);
}

size_t storage_size(int32_t capacity) {
    return static_cast<size_t>(capacity) * sizeof(char *);
}

void use_storage(LineTable &table, void *storage) {
    memcpy(storage, table.entries(), storage_size(table.capacity));
    free(table.on_heap);
    table.capacity = larger_capacity(table);
    table.on_heap = static_cast<char **>(storage);
}

} // namespace

bool grow(LineTable &table) {
    void *storage = malloc(storage_size(larger_capacity(table)));
    if (storage == nullptr) {
        return false;
    }
    use_storage(table, storage);
    return true;
}

void grow_or_end(LineTable &table) {
    const ErrnoKept kept;
    use_storage(table, allocate_or_end(storage_size(larger_capacity(table)), table.function));
}

} // namespace zel::socket
