// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The text of a message, from formatting to release.
#ifndef ZEL_MSG_INTERNAL_FORMAT_H
#define ZEL_MSG_INTERNAL_FORMAT_H

#include <cstdarg>
#include <span>

#pragma GCC visibility push(hidden)

namespace zel::msg {

// Formats in the fixed area if that is free and the text fits, else in storage from
// malloc. The text ends at its first NUL, and one follows it. It has no data when memory
// runs out or the format cannot be converted. A report of the memory library that finds
// no memory is formatted in a second area. Clears errno.
std::span<char> format_message(const char *format, va_list args) __attribute__((format(printf, 1, 0)));

// Releases a text of format_message.
void release_message(char *text);

} // namespace zel::msg

#pragma GCC visibility pop

#endif
