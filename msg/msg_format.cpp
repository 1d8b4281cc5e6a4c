// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Formatting a message of any length.
#include <msg/base/format_growing.h>
#include <msg/msg.h>

#include <cstdlib>

namespace {

struct HeapStorage {
    static void *allocate(size_t size) { return malloc(size); }
    static void *resize(void *buffer, size_t size) { return realloc(buffer, size); }
    static void release(void *buffer) { free(buffer); }
};

} // namespace

char *msg_vformat_alloc(const char *format, va_list args, size_t initial_size) {
    return zel::format_growing<HeapStorage>(initial_size, format, args);
}
