// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The diagnostics file: choosing the destination of diagnostic lines, and the echo of the
// arguments.
#include <components/platform/environment.h>

#include <components/platform/base/path.h>
#include <components/platform/base/sleep.h>
#include <msg/base/log_file.h>
#include <msg/base/text.h>
#include <msg/base/variables.h>
#include <msg/msg.h>

#include <array>
#include <ctime>
#include <strings.h>

namespace {

// Set by the first choice of a destination, also by one that opens nothing.
constinit bool destination_chosen = false;

// The path of a log file with its NUL. It is shorter than a PathBuffer: a path of 4096
// characters is refused.
constexpr size_t kLogPathSize = 4096;
using LogPath = std::array<char, kLogPathSize>;

// One of these at the start of a program's name is left out of the log file's name.
constexpr std::array<std::string_view, 3> kFamilyPrefixes = {"kyrel", "zel", "kq_"};

std::string_view without_family_prefix(std::string_view name) {
    for (const std::string_view prefix : kFamilyPrefixes) {
        if (name.size() >= prefix.size() && strncasecmp(name.data(), prefix.data(), prefix.size()) == 0) {
            return zel::part_from(name, prefix.size());
        }
    }
    return name;
}

bool is_one_of(const char *value, const char *word, const char *digit) {
    return strcasecmp(value, word) == 0 || strcmp(value, digit) == 0;
}

// DELIBERATE: the directory that such a variable names is not tested. Test:
// PlatformDiagnostics.AFallbackDirectoryIsNotTestedAndItsFailureNotReported.
const char *fallback_directory() {
    return zel::first_set({"ZEL_TMPDIR", "TMP", "TEMP"}, "");
}

// DELIBERATE: the month counts from 00. Test:
// PlatformDiagnostics.TheFileNameCarriesTheLocalTimeWithTheMonthFromZero.
bool compose_path(LogPath &path, const char *directory, std::string_view name) {
    constexpr int kCentury = 100;
    const time_t now = time(nullptr);
    struct tm local = {};
    tzset(); // localtime_r alone would not see a TZ that the program has set since
    localtime_r(&now, &local);
    return zel::format_text(path, "%s/zel%02d%02d%02d%02d%02d%02d%.*s.log", directory, local.tm_year - kCentury,
                            local.tm_mon, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                            static_cast<int>(name.size()), name.data());
}

// Kept out of line: a start without a log does not touch the stack that the path takes.
[[gnu::noinline]] void open_log(const char *directory, std::string_view name) {
    LogPath path;
    if (!compose_path(path, directory, name)) {
        return;
    }
    // The name holds the second. A process that starts after this pause gets another name
    // for its file.
    zel::sleep_seconds(1);
    FILE *file = zel::open_log_file(path.data());
    if (file != nullptr) {
        msg_add_stream(MSG_DIAG, file);
    }
}

// Chooses the destination. Returns the directory in which a log is to be opened, or null
// when there is to be none.
const char *choose_destination() {
    if (destination_chosen) {
        return nullptr;
    }
    destination_chosen = true;
    const char *value = zel::variable("ZEL_DIAGNOSTICS_PATH");
    if (value == nullptr || *value == '\0' || strcmp(value, "0") == 0) {
        return nullptr;
    }
    if (is_one_of(value, "stdout", "1")) {
        msg_add_stream(MSG_DIAG, stdout);
        return nullptr;
    }
    if (is_one_of(value, "stderr", "2")) {
        msg_add_stream(MSG_DIAG, stderr);
        return nullptr;
    }
    return platform_is_writable_dir(value) ? value : fallback_directory();
}

// The name that a log takes from that of its program.
std::string_view derived_name(int32_t argc, char *const *argv) {
    const bool named = argc > 0 && argv[0] != nullptr;
    return named ? without_family_prefix(zel::without_extension(zel::last_component(argv[0]))) : "";
}

} // namespace

void platform_open_diagnostics(const char *name) {
    const char *directory = choose_destination();
    if (directory != nullptr) {
        open_log(directory, name == nullptr ? "" : name);
    }
}

void platform_diag_startup(int32_t argc, char **argv, const char *name) {
    const char *directory = choose_destination();
    if (directory != nullptr) {
        open_log(directory, name == nullptr ? derived_name(argc, argv) : name);
    }
    for (int32_t index = 0; index < argc; ++index) {
        msg_diag("argv[%d] = \"%s\"\n", index, argv[index]);
    }
}
