// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Formatting a message of any length.
#include <msg/base/format_growing.h>
#include <msg/base/limits.h>
#include <msg/internal/format.h>
#include <msg/msg.h>

#include <array>
#include <cstdlib>

namespace {

// The area of one message's text. A message inside a message finds it taken. A message that never ends, because a
// stream left it by longjmp or exit, keeps it.
struct TextArea {
    std::array<char, zel::kFirstTextSize> text;
    bool taken;
};

constinit TextArea area = {};

struct HeapStorage {
    static void *allocate(size_t size) { return malloc(size); }
    static void *resize(void *buffer, size_t size) { return realloc(buffer, size); }
    static void release(void *buffer) { free(buffer); }
};

} // namespace

namespace zel::msg {

// The area counts as taken while it is formatted in: what a conversion of the program's own writes goes elsewhere.
char *format_message(const char *format, va_list args) {
    if (area.taken) {
        return msg_vformat_alloc(format, args, kFirstTextSize);
    }
    area.taken = true;
    errno = 0;
    const int length = format_attempt(area.text.data(), area.text.size(), format, args);
    if (text_fits(length, area.text.size())) {
        return area.text.data();
    }
    area.taken = false;
    if (text_is_lost(length)) {
        return nullptr;
    }
    return msg_vformat_alloc(format, args, next_text_size(length, area.text.size()));
}

void release_message(char *text) {
    if (text == area.text.data()) {
        area.taken = false;
        return;
    }
    free(text);
}

} // namespace zel::msg

char *msg_vformat_alloc(const char *format, va_list args, size_t initial_size) {
    return zel::format_growing<HeapStorage>(initial_size, format, args);
}
