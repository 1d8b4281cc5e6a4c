// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The report of a request that failed, and the failure handler.
#include <malloc/internal/failure_report.h>

#include <msg/base/memory_report.h>
#include <msg/base/text.h>
#include <msg/msg.h>

#include <array>
#include <cerrno>

using zel::memory::Caller;
using zel::memory::Method;

namespace {

// Null: the report is an error that ends the process.
constinit ZelMallocFailureHandler failure_handler = nullptr;

// DELIBERATE: a report is cut at 10000 characters with its NUL. Test:
// MallocFailure.ALongReportIsCut.
constexpr size_t kReportSize = 10000;
using Report = std::array<char, kReportSize>;

// The report of a request without a function or a purpose.
void compose_short(Report &report, unsigned long size, const char *name, int error) {
    if (error == ENOMEM) {
        zel::format_text(report, "%s: Not enough memory to allocate %lu bytes.", name, size);
        return;
    }
    zel::format_text(report, "%s: %s while trying to allocate %lu bytes.", name, strerror(error), size);
}

// The report of a request with a function and a purpose.
void compose_full(Report &report, unsigned long size, const Caller &caller, int error) {
    const char *function = caller.place.function;
    const char *purpose = caller.purpose_or_file;
    if (error == ENOMEM) {
        zel::format_text(report, "%s (via %s): Not enough memory to allocate %lu bytes for %s.", function, caller.name,
                         size, purpose);
        return;
    }
    zel::format_text(report, "%s (via %s): %s while trying to allocate %lu bytes for %s.", function, caller.name,
                     strerror(error), size, purpose);
}

// DELIBERATE: the file/line form does not look at the error. Test:
// MallocFailure.NameFileAndLineAreNamedWhateverTheError.
void compose_report(Report &report, unsigned long size, const Caller &caller, int error) {
    if (caller.method == Method::file_line) {
        zel::format_text(report, "%s in %s, line %d: Not enough memory to allocate %lu bytes.", caller.name,
                         caller.purpose_or_file, caller.place.line, size);
    } else if (caller.place.function != nullptr && caller.purpose_or_file != nullptr) {
        compose_full(report, size, caller, error);
    } else {
        compose_short(report, size, caller.name, error);
    }
}

} // namespace

void *zel::memory::report_failure(size_t size, Method method, const char *name, Place place,
                                  const char *purpose_or_file) {
    const Caller caller = {.method = method, .name = name, .place = place, .purpose_or_file = purpose_or_file};
    Report report;
    compose_report(report, size, caller, errno);
    // Spans the handler as well: it may write messages without memory.
    const zel::MemoryReport under_way;
    if (failure_handler == nullptr) {
        msg_fatal("%s", report.data());
    }
    return failure_handler(size, report.data());
}

ZelMallocFailureHandler zel_malloc_set_failure_handler(ZelMallocFailureHandler handler) {
    const ZelMallocFailureHandler previous = failure_handler;
    failure_handler = handler;
    return previous;
}
