// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Where the text of a message stands while it is written.
#ifndef ZEL_MSG_INTERNAL_FORMAT_H
#define ZEL_MSG_INTERNAL_FORMAT_H

#include <cstdarg>

namespace zel::msg {

// The text of a message, in the fixed area while that is free, else in storage from malloc; null when memory runs out
// or the format cannot be converted. A report of the memory library that finds none has an area of its own. Clears
// errno. Released with release_message when the message has been written.
char *format_message(const char *format, va_list args) __attribute__((format(printf, 1, 0)));

void release_message(char *text);

} // namespace zel::msg

#endif
