// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Formatting a message of any length.
#include <msg/base/format_growing.h>
#include <msg/base/limits.h>
#include <msg/base/memory_report.h>
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

struct TextAreas {
    TextArea message; // of the message that finds it free
    TextArea report;  // of a report of the memory library inside a message, when there is no other storage
};

constinit TextAreas areas = {};

struct HeapStorage {
    static void *allocate(size_t size) { return malloc(size); }
    static void *resize(void *buffer, size_t size) { return realloc(buffer, size); }
    static void release(void *buffer) { free(buffer); }
};

struct Attempt {
    char *text;         // null: it is not there
    size_t size_needed; // to be asked for elsewhere; 0: the text is there, or cannot be had
};

// The area counts as taken while it is formatted in: what a conversion of the program's own writes goes elsewhere.
__attribute__((format(printf, 2, 0))) Attempt format_in(TextArea &area, const char *format, va_list args) {
    if (area.taken) {
        return {.text = nullptr, .size_needed = zel::kFirstTextSize};
    }
    area.taken = true;
    errno = 0;
    const int length = zel::format_attempt(area.text.data(), area.text.size(), format, args);
    if (zel::text_fits(length, area.text.size())) {
        return {.text = area.text.data(), .size_needed = 0};
    }
    area.taken = false;
    const bool lost = zel::text_is_lost(length);
    return {.text = nullptr, .size_needed = lost ? 0 : zel::next_text_size(length, area.text.size())};
}

} // namespace

namespace zel::msg {

char *format_message(const char *format, va_list args) {
    const Attempt attempt = format_in(areas.message, format, args);
    if (attempt.size_needed == 0) {
        return attempt.text;
    }
    char *text = msg_vformat_alloc(format, args, attempt.size_needed);
    if (text == nullptr && memory_report_under_way()) {
        return format_in(areas.report, format, args).text;
    }
    return text;
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
