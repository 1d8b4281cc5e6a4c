// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The formats of most messages, converted without the C library. Its formatter takes more
// time than all other work on a short message.
#include <msg/internal/plain.h>

#include <cstring>
#include <string_view>

namespace zel::msg {

namespace {

struct Output {
    char *next;
    char *end; // the text ends here at the latest
};

bool put_part(Output &out, std::string_view part) {
    if (part.size() >= static_cast<size_t>(out.end - out.next)) {
        return false;
    }
    memcpy(out.next, part.data(), part.size());
    out.next += part.size();
    return true;
}

// Looks no further into the text than there is room.
bool put_text(Output &out, const char *text) {
    return text != nullptr && put_part(out, {text, strnlen(text, static_cast<size_t>(out.end - out.next))});
}

size_t digits_of(unsigned number) {
    size_t count = 1;
    for (; number >= 10; number /= 10) {
        ++count;
    }
    return count;
}

// std::to_chars would export a table of the C++ library.
bool put_unsigned(Output &out, unsigned number) {
    const size_t length = digits_of(number);
    if (length >= static_cast<size_t>(out.end - out.next)) {
        return false;
    }
    out.next += length;
    char *digit = out.next;
    do {
        *--digit = static_cast<char>('0' + number % 10);
        number /= 10;
    } while (number != 0);
    return true;
}

// The smallest number has no positive one of its type.
bool put_signed(Output &out, int number) {
    const auto bits = static_cast<unsigned>(number);
    return number < 0 ? put_part(out, "-") && put_unsigned(out, 0U - bits) : put_unsigned(out, bits);
}

bool put_conversion(Output &out, char conversion, va_list *args) {
    switch (conversion) {
    case 's':
        return put_text(out, va_arg(*args, const char *));
    case 'd':
        return put_signed(out, va_arg(*args, int));
    case 'u':
        return put_unsigned(out, va_arg(*args, unsigned));
    case '%':
        return put_part(out, "%");
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
