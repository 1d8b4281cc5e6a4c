// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Bounded text.
#ifndef ZEL_MSG_BASE_TEXT_H
#define ZEL_MSG_BASE_TEXT_H

#include <cstdarg>
#include <span>
#include <string_view>

namespace zel {

// Returns the first length characters of the text, or all of a shorter text. substr of
// string_view can throw, and the library is built without exceptions.
constexpr std::string_view first_part(std::string_view text, size_t length) {
    return {text.data(), length < text.size() ? length : text.size()};
}

// Returns the text from the position on. A position behind its end gives an empty text.
constexpr std::string_view part_from(std::string_view text, size_t position) {
    const size_t skipped = position < text.size() ? position : text.size();
    return {text.data() + skipped, text.size() - skipped};
}

// Copies as much of the text as fits into the target, without a NUL. Returns how many
// characters were copied.
size_t copy_part(std::span<char> target, std::string_view text);

// Formats into the buffer, cut to fit with its NUL. The text ends in front of a
// conversion that fails. Returns whether the whole text is there.
bool format_text(std::span<char> buffer, const char *format, ...) __attribute__((format(printf, 2, 3)));

// format_text with an argument list.
bool vformat_text(std::span<char> buffer, const char *format, va_list args) __attribute__((format(printf, 2, 0)));

} // namespace zel

#endif
