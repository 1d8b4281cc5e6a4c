// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The name of the installed distribution.
#include <components/platform/environment.h>

#include <components/platform/base/descriptor.h>
#include <components/platform/base/path.h>
#include <msg/base/text.h>
#include <msg/base/variables.h>

#include <array>
#include <unistd.h>

namespace {

constexpr size_t kDistributionNameSize = 256;

// The result of platform_dist_name. Every call overwrites it.
constinit std::array<char, kDistributionNameSize> distribution_name = {};

// Moves a file off the standard descriptors, where the program would take it for its own
// input. Without a free descriptor the file is closed, and the result is null.
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

// Opens a file that is never closed. Programs that are executed later do not inherit it.
FILE *open_for_keeps(const char *path) {
    FILE *opened = fopen(path, "r");
    FILE *file = opened == nullptr ? nullptr : above_standard(opened);
    if (file != nullptr) {
        zel::set_close_on_exec(fileno(file));
    }
    return file;
}

// The word stays empty when the file holds none.
bool read_first_word(FILE *file, std::array<char, kDistributionNameSize> &word) {
    static_assert(kDistributionNameSize == 256, "the conversion below states the size");
    word.front() = '\0';
    return fscanf(file, "%255s", word.data()) == 1;
}

} // namespace

// DELIBERATE: the file is not closed. Test: PlatformDistName.TheFileStaysOpen.
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
    read_first_word(file, distribution_name);
    return distribution_name.data();
}
