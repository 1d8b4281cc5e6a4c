// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Where a line of a message breaks.
#ifndef ZEL_MSG_INTERNAL_CUT_H
#define ZEL_MSG_INTERNAL_CUT_H

#include <cstddef>
#include <string_view>

namespace zel::msg {

// Returns how many characters of the rest go on the current line. room: the columns left
// on the line; it may be negative. A result of 0 moves the rest to the next line.
size_t break_point(std::string_view rest, ptrdiff_t room);

// Returns how many spaces and tabs the text begins with.
size_t leading_blanks(std::string_view text);

} // namespace zel::msg

#endif
