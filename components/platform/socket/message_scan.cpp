// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Finds a message: lines that each end in CR LF, and an empty line after them.
#include <components/platform/socket.h>

#include <components/platform/socket/message_scan.h>
#include <msg/base/assertion.h>

namespace zel::socket {

namespace {

constexpr int32_t kLineEndSize = 2;

bool is_line_end(const char *text) {
    return text[0] == '\r' && text[1] == '\n';
}

// Returns the position after the CR LF that ends the current line, or 0 when there is
// none. memchr finds the LF. The CR must stand before it in the same line.
int32_t find_line_end(MessageScan &scan, int32_t length) {
    while (scan.searched < length) {
        const char *from = scan.data + scan.searched;
        const void *found = memchr(from, '\n', static_cast<size_t>(length - scan.searched));
        if (found == nullptr) {
            scan.searched = length;
            return 0;
        }
        const auto newline = static_cast<int32_t>(static_cast<const char *>(found) - scan.data);
        scan.searched = newline + 1;
        if (newline > scan.line_start && scan.data[newline - 1] == '\r') {
            return scan.searched;
        }
    }
    return 0;
}

// A table for PLATFORM_MAX_MESSAGE_LINES lines never counts as full: at that limit
// record_line asserts.
bool is_full(const MessageScan &scan) {
    return scan.lines + 1 >= scan.capacity && scan.lines < PLATFORM_MAX_MESSAGE_LINES;
}

// The condition and the function of the assertion are promised texts.
void record_line(MessageScan &scan, int32_t next_line) {
    if (scan.lines >= PLATFORM_MAX_MESSAGE_LINES) {
        assertion_failed("lines < PLATFORM_MAX_MESSAGE_LINES", kUnit, "platform_parse_message");
    }
    scan.line_table[scan.lines++] = scan.data + scan.line_start;
    scan.line_start = next_line;
}

// The text of a line ends kLineEndSize bytes before the next line. The empty line follows
// the last one.
int32_t close_message(MessageScan &scan) {
    char *const end = scan.data + scan.line_start;
    for (int32_t line = 1; line < scan.lines; ++line) {
        scan.line_table[line][-kLineEndSize] = '\0';
    }
    end[-kLineEndSize] = '\0';
    end[0] = '\0';
    scan.line_table[scan.lines] = nullptr;
    return scan.line_start + kLineEndSize;
}

} // namespace

int32_t scan_message(MessageScan &scan, int32_t length) {
    for (;;) {
        // An empty line ends the message. An empty first line does not: a message has at
        // least one line.
        if (scan.lines > 0 && scan.searched == scan.line_start) {
            if (length - scan.line_start < kLineEndSize) {
                return 0;
            }
            if (is_line_end(scan.data + scan.line_start)) {
                return close_message(scan);
            }
        }
        const int32_t next_line = find_line_end(scan, length);
        if (next_line == 0) {
            return 0;
        }
        if (is_full(scan)) {
            scan.searched = next_line - 1; // the search finds this LF again when it goes on
            return kLineTableFull;
        }
        record_line(scan, next_line);
    }
}

} // namespace zel::socket

int platform_parse_message(char *data, int32_t length, char **line_table) {
    zel::socket::MessageScan scan = {.data = data,
                                     .line_table = line_table,
                                     .capacity = PLATFORM_MAX_MESSAGE_LINES + 1,
                                     .lines = 0,
                                     .line_start = 0,
                                     .searched = 0};
    return zel::socket::scan_message(scan, length);
}
