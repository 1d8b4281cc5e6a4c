// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Formatting a text of any length into storage that grows until the text fits.
#ifndef ZEL_MSG_BASE_FORMAT_GROWING_H
#define ZEL_MSG_BASE_FORMAT_GROWING_H

#include <cerrno>
#include <cstdarg>
#include <cstdio>

namespace zel {

// Formats once. The arguments are copied: each attempt starts with the first of them.
inline int format_attempt(char *buffer, size_t size, const char *format, va_list args)
    __attribute__((format(printf, 3, 0)));

inline int format_attempt(char *buffer, size_t size, const char *format, va_list args) {
    va_list attempt;
    va_copy(attempt, args);
    const int length = vsnprintf(buffer, size, format, attempt);
    va_end(attempt);
    return length;
}

// DELIBERATE: a text that just fills its buffer counts as too long.
// Test: MsgFormat.ATextThatJustFillsItsBufferDoublesIt.
constexpr bool text_fits(int length, size_t size) {
    return length >= 0 && static_cast<size_t>(length) + 1 < size;
}

// Whether no attempt can succeed: the conversion failed with an error. With an errno of 0
// or ERANGE a larger buffer may help.
inline bool text_is_lost(int length) {
    return length < 0 && errno != 0 && errno != ERANGE;
}

// The size of the next attempt. The buffer doubles when the length is unknown, or when
// the text just filled it.
constexpr size_t next_text_size(int length, size_t size) {
    const bool below = length < 0 || static_cast<size_t>(length) < size;
    return below ? size * 2 : static_cast<size_t>(length) + 2;
}

// Formats into storage from Storage::allocate. Returns null when memory runs out or the
// text is lost. Clears errno before each attempt.
// DELIBERATE: storage that cannot grow is not released. Test:
// MsgFormat.ABufferThatCannotGrowIsLeftAllocated.
template <typename Storage>
__attribute__((format(printf, 2, 0))) char *format_growing(size_t size, const char *format, va_list args) {
    errno = 0;
    char *buffer = static_cast<char *>(Storage::allocate(size));
    while (buffer != nullptr) {
        const int length = format_attempt(buffer, size, format, args);
        if (text_fits(length, size)) {
            return buffer;
        }
        if (text_is_lost(length)) {
            Storage::release(buffer);
            return nullptr;
        }
        errno = 0;
        size = next_text_size(length, size);
        buffer = static_cast<char *>(Storage::resize(buffer, size));
    }
    return nullptr; // NOLINT(clang-analyzer-unix.Malloc): left allocated, see above
}

} // namespace zel

#endif
