// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The formats of most messages, converted without the C library.
#ifndef ZEL_MSG_INTERNAL_PLAIN_H
#define ZEL_MSG_INTERNAL_PLAIN_H

#include <cstdarg>
#include <span>

#pragma GCC visibility push(hidden)

namespace zel::msg {

inline constexpr int kNotPlain = -1;

// Formats as vsnprintf does, if the format holds no other conversions than %s, %d, %u and
// %%, without flags, width, precision and length. Returns the length, or kNotPlain for
// another format, a null text, and a text that does not fit with a character to spare.
// The arguments are copied.
int format_plain(std::span<char> area, const char *format, va_list args) __attribute__((format(printf, 2, 0)));

} // namespace zel::msg

#pragma GCC visibility pop

#endif
