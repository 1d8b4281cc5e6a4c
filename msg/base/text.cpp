// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Bounded formatting.
#include <msg/base/text.h>

#include <algorithm>

namespace zel {

size_t copy_part(std::span<char> target, std::string_view text) {
    const size_t length = std::min(target.size(), text.size());
    std::copy_n(text.data(), length, target.data());
    return length;
}

bool vformat_text(std::span<char> buffer, const char *format, va_list args) {
    // A conversion that fails at once writes nothing: the text is empty then.
    buffer.front() = '\0';
    const int length = vsnprintf(buffer.data(), buffer.size(), format, args);
    if (length < 0) {
        buffer.back() = '\0';
        return false;
    }
    return static_cast<size_t>(length) < buffer.size();
}

bool format_text(std::span<char> buffer, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const bool whole = vformat_text(buffer, format, args);
    va_end(args);
    return whole;
}

} // namespace zel
