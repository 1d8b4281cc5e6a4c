// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The formats of most messages, converted without the C library. Its formatter takes more
// time than all other work on a short message.
#include <msg/internal/plain.h>

#include <charconv>
#include <cstring>

namespace zel::msg {

namespace {

struct Output {
    char *next;
    char *end; // of the text at the latest
};

bool put_text(Output &out, const char *text) {
    const auto room = static_cast<size_t>(out.end - out.next);
    const size_t length = text == nullptr ? room : strnlen(text, room);
    if (length == room) {
        return false;
    }
    memcpy(out.next, text, length);
    out.next += length;
    return true;
}

template <typename Number>
bool put_number(Output &out, Number number) {
    const std::to_chars_result result = std::to_chars(out.next, out.end, number);
    out.next = result.ptr;
    return result.ec == std::errc();
}

bool put_conversion(Output &out, char conversion, va_list *args) {
    switch (conversion) {
    case 's':
        return put_text(out, va_arg(*args, const char *));
    case 'd':
        return put_number(out, va_arg(*args, int));
    case 'u':
        return put_number(out, va_arg(*args, unsigned));
    case '%':
        return put_text(out, "%");
    default:
        return false;
    }
}

bool put_format(Output &out, const char *format, va_list *args) {
    for (; *format != '\0'; ++format) {
        if (out.next == out.end) {
            return false;
        }
        if (*format != '%') {
            *out.next++ = *format;
        } else if (!put_conversion(out, *++format, args)) {
            return false;
        }
    }
    return true;
}

} // namespace

int format_plain(std::span<char> area, const char *format, va_list args) {
    // Behind the text stand a NUL and a character to spare.
    Output out = {.next = area.data(), .end = area.data() + area.size() - 2};
    va_list attempt;
    va_copy(attempt, args);
    const bool plain = put_format(out, format, &attempt);
    va_end(attempt);
    *out.next = '\0';
    return plain ? static_cast<int>(out.next - area.data()) : kNotPlain;
}

} // namespace zel::msg
