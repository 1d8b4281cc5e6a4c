// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Formatting a text of any length into storage that grows until the text fits.
#ifndef ZEL_MSG_BASE_FORMAT_GROWING_H
#define ZEL_MSG_BASE_FORMAT_GROWING_H

#include <cerrno>
#include <cstdarg>
#include <cstdio>

namespace zel {

// One attempt, from the start of the arguments.
inline int format_attempt(char *buffer, size_t size, const char *format, va_list args)
    __attribute__((format(printf, 3, 0)));

inline int format_attempt(char *buffer, size_t size, const char *format, va_list args) {
    va_list attempt;
    va_copy(attempt, args);
    const int length = vsnprintf(buffer, size, format, attempt);
    va_end(attempt);
    return length;
}

// A text that just fills its buffer counts as too long: one spare byte is demanded. Such a text, and one whose length
// is not known, doubles the buffer; any other says how much it needs.
constexpr bool text_fits(int length, size_t size) {
    return length >= 0 && static_cast<size_t>(length) + 1 < size;
}

// Whether an attempt failed for good: an unknown length with an error number that does not ask for more room.
inline bool text_is_lost(int length) {
    return length < 0 && errno != 0 && errno != ERANGE;
}

constexpr size_t next_text_size(int length, size_t size) {
    const bool below = length < 0 || static_cast<size_t>(length) < size;
    return below ? size * 2 : static_cast<size_t>(length) + 2;
}

// The formatted text in storage from Storage::allocate, or null when there is none to be had or the text cannot be
// formatted. Clears errno before each attempt.
// DELIBERATE: when the storage cannot grow, what was allocated is not released: a caller that loses its text for lack
// of memory is about to end, and the allocator is not entered again. Held by the test
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
