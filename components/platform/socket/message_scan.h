// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Finds the end of a message in data that arrives in pieces. It works on text alone.
#ifndef ZEL_COMPONENTS_PLATFORM_SOCKET_MESSAGE_SCAN_H
#define ZEL_COMPONENTS_PLATFORM_SOCKET_MESSAGE_SCAN_H

#include <components/platform/socket.h>

#include <cstdint>

namespace zel::socket {

// The name of the unit, as assertions print it.
inline constexpr const char *kUnit = "components/platform/socket";

// The state of the search for one message. Searched data is not searched again when more
// has arrived.
struct MessageScan {
    char *data;         // start of the message
    char **line_table;  // start of each line found
    int32_t capacity;   // entries of the table, one of them for the null after the last line
    int32_t lines;      // entries in use
    int32_t line_start; // start of the line whose end is searched
    int32_t searched;   // no line end lies between line_start and here
};

// The table has no room for another line. The search goes on in a larger table that
// begins with the same entries.
inline constexpr int32_t kLineTableFull = -1;

// Continues the search. length: the bytes of data that are there now.
// - Result: the length of a complete message, 0 while it is not complete, or
//   kLineTableFull.
// - In a complete message the CR of every line, the empty one too, becomes NUL. A null
//   pointer closes the line table. Otherwise the data is untouched.
int32_t scan_message(MessageScan &scan, int32_t length);

// Whether a full table holds as many lines as a message may have.
inline bool is_at_line_limit(const MessageScan &scan) {
    return scan.lines >= PLATFORM_MAX_MESSAGE_LINES;
}

// Aborts by an assertion at that limit.
void assert_line_limit(const MessageScan &scan);

} // namespace zel::socket

#endif
