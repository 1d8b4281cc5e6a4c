// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Environment variables, reports of failed system calls, the distribution name.
#include <components/platform/environment.h>

#include <components/platform/base/descriptor.h>
#include <components/platform/base/path.h>
#include <msg/base/text.h>
#include <msg/base/variables.h>
#include <msg/msg.h>

#include <array>
#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr size_t kErrorTextSize = 256;
constexpr size_t kDistributionNameSize = 256;

struct State {
    FILE *error_report;                                        // the error-report stream, or null; chosen once
    bool error_report_chosen;                                  // set by the first choice
    std::array<char, kDistributionNameSize> distribution_name; // overwritten by each call
};

constinit State state = {};

// Moves a file that stands on a standard descriptor, where it would be taken for the program's own input, above them.
FILE *above_standard(FILE *file) {
    if (fileno(file) > STDERR_FILENO) {
        return file;
    }
    const int moved = zel::dup_above_standard(fileno(file));
    fclose(file);
    if (moved == -1) {
        return nullptr;
    }
    FILE *again = fdopen(moved, "r");
    if (again == nullptr) {
        close(moved);
    }
    return again;
}

// Opens a file that stays open. Programs that are executed later do not inherit it.
FILE *open_for_keeps(const char *path) {
    FILE *opened = fopen(path, "r");
    FILE *file = opened == nullptr ? nullptr : above_standard(opened);
    if (file != nullptr) {
        zel::set_close_on_exec(fileno(file));
    }
    return file;
}

bool read_first_word(FILE *file, std::array<char, kDistributionNameSize> &word) {
    static_assert(kDistributionNameSize == 256, "the conversion below names the size");
    word.front() = '\0';
    return fscanf(file, "%255s", word.data()) == 1;
}

} // namespace

char *platform_getenv(const char *name) {
    return getenv(name);
}

int platform_setenv(const char *name, const char *value) {
    const size_t size = strlen(name) + strlen(value) + 2;
    char *entry = static_cast<char *>(malloc(size));
    if (entry == nullptr) {
        return 0;
    }
    zel::format_text({entry, size}, "%s=%s", name, value);
    putenv(entry); // the environment keeps the storage
    return 0;
}

// DELIBERATE: any value chooses standard output, "2" and "stderr" included. The stream is for a developer at a
// terminal; standard error already carries what the program says itself. Held by the test
// PlatformPerror.EveryNonEmptyValueChoosesStandardOutput.
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
    // A bounded copy on the stack: a report must get through when memory has run out.
    std::array<char, kErrorTextSize> error_text;
    zel::format_text(error_text, "%s", strerror(kept.value));
    platform_perror_init();
    msg_diag("%s: %s\n", text, error_text.data());
    if (state.error_report != nullptr) {
        fprintf(state.error_report, "%s: %s\n", text, error_text.data());
        fflush(state.error_report);
    }
}

// DELIBERATE: the file stays open, so that the installed file can be told from /proc for as long as the process lives.
// Held by the test PlatformDistName.TheFileStaysOpen.
char *platform_dist_name() {
    const char *root = zel::variable("ZEL_DIST");
    zel::PathBuffer path;
    if (root == nullptr || !zel::format_text(path, "%s/dist/DISTRIBUTION", root)) {
        return nullptr;
    }
    FILE *file = open_for_keeps(path.data());
    if (file == nullptr) {
        return nullptr;
    }
    read_first_word(file, state.distribution_name);
    return state.distribution_name.data();
}

int platform_is_writable_dir(const char *path) {
    struct stat status;
    return path != nullptr && access(path, W_OK) == 0 && stat(path, &status) == 0 && S_ISDIR(status.st_mode) ? 1 : 0;
}
