// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Where a line of a message breaks: text and room in, a length out.
#ifndef ZEL_MSG_INTERNAL_CUT_H
#define ZEL_MSG_INTERNAL_CUT_H

#include <cstddef>
#include <string_view>

namespace zel::msg {

// How many characters of the rest of a text go on the current line, which has room for that many columns; the room may
// be negative. 0 moves the whole rest to the next line.
size_t break_point(std::string_view rest, ptrdiff_t room);

// How many spaces and tabs the text begins with.
size_t leading_blanks(std::string_view text);

} // namespace zel::msg

#endif
