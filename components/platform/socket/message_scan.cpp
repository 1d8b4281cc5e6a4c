// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Finds a message: lines that each end in CR LF, and an empty line after them.
#include <components/platform/socket.h>

#include <components/platform/socket/message_scan.h>
#include <msg/base/assertion.h>

#include <algorithm>

namespace zel::socket {

namespace {

constexpr int32_t kLineEndSize = 2;

// Why a search stops.
enum class Stop { at_end, message, full };

// A search under way. The compiler keeps these pointers in registers; the state of the
// scan is written back when the search stops.
struct Search {
    char *line;     // start of the line whose end is searched
    char *position; // no line end lies between line and here
    char **entry;   // takes the next line
};

bool is_line_end(const char *text) {
    return text[0] == '\r' && text[1] == '\n';
}

// Moves the position after the CR LF that ends the current line. Returns false when there
// is none. memchr finds the LF. The CR must stand before it in the same line.
inline bool pass_line_end(Search &search, char *end) {
    do {
        void *newline = memchr(search.position, '\n', static_cast<size_t>(end - search.position));
        if (newline == nullptr) {
            search.position = end;
            return false;
        }
        search.position = static_cast<char *>(newline) + 1;
    } while (search.position - search.line < kLineEndSize || search.position[-kLineEndSize] != '\r');
    return true;
}

// Returns the entry at which the table is full. A table for PLATFORM_MAX_MESSAGE_LINES
// lines has room for all of them.
char *const *full_at(const MessageScan &scan) {
    return scan.line_table + std::min(scan.capacity - 1, PLATFORM_MAX_MESSAGE_LINES);
}

// The text of a line ends kLineEndSize bytes before the next line. The empty line follows
// the last one.
void cut_lines(const Search &found, char **first) {
    for (char **line = first + 1; line != found.entry; ++line) {
        (*line)[-kLineEndSize] = '\0';
    }
    found.line[-kLineEndSize] = '\0';
    found.line[0] = '\0';
    *found.entry = nullptr;
}

// An empty line ends the message. An empty first line does not: a message has at least
// one line. behind_line: a line has just ended where the search goes on.
inline Stop run(Search &search, char *end, bool behind_line, char *const *full) {
    for (;; behind_line = true) {
        if (behind_line && end - search.line < kLineEndSize) {
            return Stop::at_end;
        }
        if (behind_line && is_line_end(search.line)) {
            return Stop::message;
        }
        if (!pass_line_end(search, end)) {
            return Stop::at_end;
        }
        if (search.entry == full) {
            --search.position; // the search finds this LF again when it goes on
            return Stop::full;
        }
        *search.entry++ = search.line;
        search.line = search.position;
    }
}

} // namespace

int32_t scan_message(MessageScan &scan, int32_t length) {
    if (scan.searched >= length) {
        return 0;
    }
    Search search = {.line = scan.data + scan.line_start,
                     .position = scan.data + scan.searched,
                     .entry = scan.line_table + scan.lines};
    const bool behind_line = scan.lines > 0 && scan.searched == scan.line_start;
    const Stop stop = run(search, scan.data + length, behind_line, full_at(scan));
    scan.lines = static_cast<int32_t>(search.entry - scan.line_table);
    scan.line_start = static_cast<int32_t>(search.line - scan.data);
    scan.searched = static_cast<int32_t>(search.position - scan.data);
    if (stop != Stop::message) {
        return stop == Stop::full ? kLineTableFull : 0;
    }
    cut_lines(search, scan.line_table);
    return scan.line_start + kLineEndSize;
}

// The condition and the function are promised texts.
void assert_line_limit(const MessageScan &scan) {
    if (is_at_line_limit(scan)) {
        assertion_failed("lines < PLATFORM_MAX_MESSAGE_LINES", kUnit, "platform_parse_message");
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
    const int32_t found = zel::socket::scan_message(scan, length);
    if (found == zel::socket::kLineTableFull) {
        zel::socket::assert_line_limit(scan);
    }
    return found;
}
