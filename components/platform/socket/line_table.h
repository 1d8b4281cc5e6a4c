// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The starts of the lines of one message, and the search that fills them in.
#ifndef ZEL_COMPONENTS_PLATFORM_SOCKET_LINE_TABLE_H
#define ZEL_COMPONENTS_PLATFORM_SOCKET_LINE_TABLE_H

#include <components/platform/socket/message_scan.h>
#include <components/platform/socket/receive_buffer.h>
#include <msg/base/errno_kept.h>
#include <msg/base/limits.h>

#include <array>
#include <cstdint>
#include <cstdlib>

namespace zel::socket {

// A small table stands in place, a larger one on the heap. Handlers that receive are
// nested as deep as the peer decides: each level takes little stack. A handler that leaves
// by longjmp leaks the table on the heap.
struct LineTable {
    explicit LineTable(const char *user) : function(user) {}
    ~LineTable() {
        const ErrnoKept kept;
        free(on_heap);
    }
    LineTable(const LineTable &) = delete;
    LineTable &operator=(const LineTable &) = delete;
    char **entries() { return on_heap != nullptr ? on_heap : in_place.data(); }
    const char *function; // named by the error about missing memory
    int32_t capacity = kLineTableSize;
    char **on_heap = nullptr;
    std::array<char *, kLineTableSize> in_place; // not cleared: every message would pay for that
};

// Makes the table larger. grow returns false without memory, and the table stays as it is;
// grow_or_end ends the process with an error.
bool grow(LineTable &table);
void grow_or_end(LineTable &table);

// A search for the first message of the unparsed data.
inline MessageScan start_scan(LineTable &table) {
    return {.data = gMsgBuf->p1,
            .line_table = table.entries(),
            .capacity = table.capacity,
            .lines = 0,
            .line_start = 0,
            .searched = 0};
}

// The search goes on in the table that has grown.
inline void use_table(MessageScan &scan, LineTable &table) {
    scan.line_table = table.entries();
    scan.capacity = table.capacity;
}

} // namespace zel::socket

#endif
