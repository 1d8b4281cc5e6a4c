// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The report of a request that failed.
#include <malloc/internal/failure_report.h>

#include <msg/base/memory_report.h>
#include <msg/base/text.h>
#include <msg/msg.h>

#include <array>

using zel::memory::Caller;
using zel::memory::Method;

namespace {

constinit ZelMallocFailureHandler failure_handler = nullptr;

constexpr size_t kReportSize = 10000;
using Report = std::array<char, kReportSize>;

void compose_short(Report &report, unsigned long size, const char *name, int error) {
    if (error == ENOMEM) {
        zel::format_text(report, "%s: Not enough memory to allocate %lu bytes.", name, size);
        return;
    }
    zel::format_text(report, "%s: %s while trying to allocate %lu bytes.", name, strerror(error), size);
}

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

void *zel::memory::report_failure(size_t size, const Caller &caller) {
    Report report;
    compose_report(report, size, caller, errno);
    // For a failure handler that writes messages as well.
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
