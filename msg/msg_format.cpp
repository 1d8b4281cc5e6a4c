// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Formatting a message of any length.
#include <msg/base/format_growing.h>
#include <msg/base/limits.h>
#include <msg/base/memory_report.h>
#include <msg/internal/format.h>
#include <msg/internal/plain.h>
#include <msg/msg.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

// The storage of one text. A message within a message finds it taken. It stays taken when
// a stream leaves the message by longjmp or exit.
struct TextArea {
    std::array<char, zel::kFirstTextSize> text;
    bool taken;
};

struct TextAreas {
    TextArea message; // of a message that finds it free
    TextArea report;  // of a memory report within a message, when memory is exhausted
};

constinit TextAreas areas = {};

struct HeapStorage {
    static void *allocate(size_t size) { return malloc(size); }
    static void *resize(void *buffer, size_t size) { return realloc(buffer, size); }
    static void release(void *buffer) { free(buffer); }
};

struct Attempt {
    std::span<char> text; // without data: not formatted here
    size_t size_needed;   // to be allocated; 0: the text is there, or lost
};

// The text up to its first NUL: a conversion may have written one.
std::span<char> shown_part(char *text) {
    return {text, text == nullptr ? 0 : strlen(text)};
}

// Formats in the area if it is free. It counts as taken meanwhile: a message that a
// conversion of the program writes is formatted elsewhere.
__attribute__((format(printf, 2, 0))) Attempt format_in(TextArea &area, const char *format, va_list args) {
    if (area.taken) {
        return {.text = {}, .size_needed = zel::kFirstTextSize};
    }
    area.taken = true;
    errno = 0;
    const int plain_length = zel::msg::format_plain(area.text, format, args);
    if (plain_length != zel::msg::kNotPlain) {
        return {.text = std::span(area.text).first(static_cast<size_t>(plain_length)), .size_needed = 0};
    }
    const int length = zel::format_attempt(area.text.data(), area.text.size(), format, args);
    if (zel::text_fits(length, area.text.size())) {
        return {.text = shown_part(area.text.data()), .size_needed = 0};
    }
    area.taken = false;
    const bool lost = zel::text_is_lost(length);
    return {.text = {}, .size_needed = lost ? 0 : zel::next_text_size(length, area.text.size())};
}

} // namespace

namespace zel::msg {

std::span<char> format_message(const char *format, va_list args) {
    const Attempt attempt = format_in(areas.message, format, args);
    if (attempt.size_needed == 0) {
        return attempt.text;
    }
    char *text = msg_vformat_alloc(format, args, attempt.size_needed);
    if (text == nullptr && memory_report_under_way()) {
        return format_in(areas.report, format, args).text;
    }
    return shown_part(text);
}

void release_message(char *text) {
    for (TextArea *area : {&areas.message, &areas.report}) {
        if (text == area->text.data()) {
            area->taken = false;
            return;
        }
    }
    free(text);
}

} // namespace zel::msg

char *msg_vformat_alloc(const char *format, va_list args, size_t initial_size) {
    return zel::format_growing<HeapStorage>(initial_size, format, args);
}
