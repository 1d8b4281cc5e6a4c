// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Reports of failed system calls.
#include <components/platform/environment.h>

#include <msg/base/errno_kept.h>
#include <msg/base/text.h>
#include <msg/base/variables.h>
#include <msg/msg.h>

#include <array>

namespace {

constexpr size_t kErrorTextSize = 256;

struct State {
    FILE *error_report;       // the error-report stream, or null; chosen once
    bool error_report_chosen; // set by the first choice
};

constinit State state = {};

} // namespace

// DELIBERATE: any value that is not empty chooses standard output, "2" and "stderr"
// included. Test: PlatformPerror.EveryNonEmptyValueChoosesStandardOutput.
void platform_perror_init() {
    if (state.error_report_chosen) {
        return;
    }
    state.error_report_chosen = true;
    const char *value = zel::variable("ZEL_PERROR");
    state.error_report = value != nullptr && *value != '\0' ? stdout : nullptr;
}

void platform_perror(const char *text) {
    const zel::ErrnoKept kept;
    // The copy is on the stack: a report must get through when memory has run out.
    std::array<char, kErrorTextSize> error_text;
    zel::format_text(error_text, "%s", strerror(kept.value));
    platform_perror_init();
    msg_diag("%s: %s\n", text, error_text.data());
    if (state.error_report != nullptr) {
        fprintf(state.error_report, "%s: %s\n", text, error_text.data());
        fflush(state.error_report);
    }
}
