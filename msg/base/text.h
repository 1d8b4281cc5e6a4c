// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Bounded text.
#ifndef ZEL_MSG_BASE_TEXT_H
#define ZEL_MSG_BASE_TEXT_H

#include <cstdarg>
#include <span>
#include <string_view>

namespace zel {

// Returns the first characters of the text, at most all of them. substr of string_view
// can throw, and the library is built without exceptions.
constexpr std::string_view first_part(std::string_view text, size_t length) {
    return {text.data(), length < text.size() ? length : text.size()};
}

// Returns the text from the position on; from behind its end, an empty text.
constexpr std::string_view part_from(std::string_view text, size_t position) {
    const size_t skipped = position < text.size() ? position : text.size();
    return {text.data() + skipped, text.size() - skipped};
}

// Copies what fits of the text into the target, without a NUL. Returns how many
// characters were copied.
size_t copy_part(std::span<char> target, std::string_view text);

// Formats into the buffer, cut to fit with its NUL. A conversion that fails ends the text
// in front of it. Returns whether the whole text is there.
bool format_text(std::span<char> buffer, const char *format, ...) __attribute__((format(printf, 2, 3)));

// format_text with an argument list.
bool vformat_text(std::span<char> buffer, const char *format, va_list args) __attribute__((format(printf, 2, 0)));

} // namespace zel

#endif
