// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Finding the end of a message in data that arrives in pieces: pure text work, no socket.
#ifndef ZEL_COMPONENTS_PLATFORM_SOCKET_MESSAGE_SCAN_H
#define ZEL_COMPONENTS_PLATFORM_SOCKET_MESSAGE_SCAN_H

#include <cstdint>

namespace zel::socket {

// The name of the unit, as assertions print it.
inline constexpr const char *kUnit = "components/platform/socket";

// How far the search for one message has come. What was searched is not searched again when more data is there.
struct MessageScan {
    char *data;         // start of the message
    char **line_table;  // start of each line found
    int32_t capacity;   // entries of the table, one for the null behind the last line
    int32_t lines;      // entries in use
    int32_t line_start; // where the line that is being looked for begins
    int32_t searched;   // no line end lies between line_start and here
};

// No room in the table for another line. The search goes on in a larger table that begins with the same entries.
inline constexpr int32_t kLineTableFull = -1;

// Goes on with the search in what is now length bytes of data. Returns the length of the message, with the CR of every
// line and of the end replaced by NUL and the line table closed by null; or, with the data untouched, 0 while it is not
// complete, or kLineTableFull. More than PLATFORM_MAX_MESSAGE_LINES lines: an assertion that aborts.
int32_t scan_message(MessageScan &scan, int32_t length);

} // namespace zel::socket

#endif
