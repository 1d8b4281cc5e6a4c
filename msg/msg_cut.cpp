// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Where a line of a message breaks.
#include <msg/internal/cut.h>

#include <msg/base/text.h>

#include <algorithm>

namespace zel::msg {

namespace {

constexpr std::string_view kWordEnds = " \t\n";

constexpr bool is_blank(char character) {
    return character == ' ' || character == '\t';
}

// Returns the end of the line if at most room characters precede it, else npos. It looks
// no further, so that a long paragraph takes time in proportion to its length.
size_t line_end_within(std::string_view rest, size_t room) {
    const size_t newline = first_part(rest, room + 1).find('\n');
    if (newline != std::string_view::npos) {
        return newline;
    }
    return rest.size() <= room ? rest.size() : std::string_view::npos;
}

// Returns the rightmost blank at or after position first, else npos.
size_t rightmost_blank(std::string_view text, size_t first) {
    for (size_t end = text.size(); end > first; --end) {
        if (is_blank(text[end - 1])) {
            return end - 1;
        }
    }
    return std::string_view::npos;
}

} // namespace

size_t leading_blanks(std::string_view text) {
    size_t count = 0;
    while (count < text.size() && is_blank(text[count])) {
        ++count;
    }
    return count;
}

size_t break_point(std::string_view rest, ptrdiff_t room) {
    const auto width = static_cast<size_t>(std::max<ptrdiff_t>(room, 0));
    if (room >= 0) {
        const size_t line_end = line_end_within(rest, width);
        if (line_end != std::string_view::npos) {
            return line_end;
        }
    }
    const size_t blanks = leading_blanks(rest);
    if (blanks == rest.size() || static_cast<ptrdiff_t>(blanks) > room) {
        return 0;
    }
    const size_t blank = rightmost_blank(first_part(rest, width + 1), blanks);
    if (blank != std::string_view::npos) {
        return blank;
    }
    // There is no blank to break at. A text that begins with a word breaks after it: the
    // word is written whole. A text that begins with blanks breaks at once: its word
    // moves to the next line.
    return std::min(rest.find_first_of(kWordEnds), rest.size());
}

} // namespace zel::msg
