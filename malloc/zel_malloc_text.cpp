// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Texts in storage of the memory library: copied, joined and formatted.
#include <malloc/internal/failure_report.h>
#include <malloc/zel_malloc.h>
#include <msg/base/format_growing.h>
#include <msg/base/limits.h>

using zel::memory::by_function;
using zel::memory::by_line;
using zel::memory::Caller;
using zel::memory::report_failure;
using zel::memory::zel_malloc_core;

namespace {

// The result of a request for a text. When it was not allocated, text is the result of
// the failure handler: the entry returns it as it stands.
struct Piece {
    char *text;
    bool allocated;
};

// Allocates storage for a text, its NUL included in the size.
Piece allocate_text(size_t size, const Caller &caller) {
    void *block = zel_malloc_core(size, caller);
    if (block == nullptr) {
        return {.text = static_cast<char *>(
                    report_failure(size, caller.method, caller.name, caller.place, caller.purpose_or_file)),
                .allocated = false};
    }
    return {.text = static_cast<char *>(block), .allocated = true};
}

Piece copy_text(const char *text, const Caller &caller) {
    const size_t size = strlen(text) + 1;
    const Piece copy = allocate_text(size, caller);
    if (copy.allocated) {
        memcpy(copy.text, text, size);
    }
    return copy;
}

char *duplicate(const char *text, const Caller &caller) {
    return text == nullptr ? nullptr : copy_text(text, caller).text;
}

// DELIBERATE: the copies of both texts stay allocated. Memory totals and heap reports
// count them. Test: ZelStrdup2.TheCopiesOfBothTextsStayAllocated.
char *join(const char *a, const char *b, const Caller &caller) {
    for (const char *text : {a, b}) {
        const Piece copy = copy_text(text, caller);
        if (!copy.allocated) {
            return copy.text;
        }
    }
    const size_t length = strlen(a);
    const size_t rest = strlen(b) + 1;
    const Piece joined = allocate_text(length + rest, caller);
    if (joined.allocated) {
        memcpy(joined.text, a, length);
        memcpy(joined.text + length, b, rest);
    }
    return joined.text;
}

// The storage of a formatted text.
// DELIBERATE: its requests fail under zel_malloc and zel_realloc, with this function and
// these purposes, for zel_printf_strdup too. Tests:
// ZelPrintfStrdupSize.AFirstAllocationThatFailsIsReportedUnderTheNestedEntry,
// ZelPrintfStrdup.AResizeThatFailsIsReportedUnderTheNestedEntry.
struct FormattedStorage {
    static void *allocate(size_t size) { return zel_malloc(size, "zel_vprintf_strdup", "buffer allocation"); }
    static void *resize(void *buffer, size_t size) {
        return zel_realloc(buffer, size, "zel_vprintf_strdup", "buffer resize");
    }
    static void release(void *buffer) { zel_free(buffer); }
};

} // namespace

char *zel_strdup(const char *text, const char *function, const char *purpose) {
    return duplicate(text, by_function("zel_strdup", function, purpose));
}

char *zel_strdup_fl(const char *text, const char *name, int32_t line, const char *file) {
    return duplicate(text, by_line(name, line, file));
}

char *zel_strdup2(const char *a, const char *b, const char *function, const char *purpose) {
    return join(a, b, by_function("zel_strdup2", function, purpose));
}

char *zel_strdup2_fl(const char *a, const char *b, const char *name, int32_t line, const char *file) {
    return join(a, b, by_line(name, line, file));
}

char *zel_vprintf_strdup(const char *format, va_list args) {
    return zel::format_growing<FormattedStorage>(zel::kFirstFormattedSize, format, args);
}

char *zel_printf_strdup(const char *format, ...) {
    va_list args;
    va_start(args, format);
    char *text = zel_vprintf_strdup(format, args);
    va_end(args);
    return text;
}
