// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// What happens around fork and between fork and exec.
#include <components/platform/internal/child_start.h>

#include <components/platform/internal/descriptor.h>
#include <msg/base/text.h>

#include <algorithm>
#include <array>
#include <unistd.h>

namespace zel {

namespace {

constexpr int kStandardCount = 3;
using Sources = std::array<int, kStandardCount>;

// A standard descriptor that is to stand in another place too is copied away first: its own place may be taken before
// it is used, and closing it would take it from the child.
Sources lift_moved_standards(const int descriptors[kStandardCount]) {
    Sources sources;
    for (int place = 0; place < kStandardCount; ++place) {
        const int source = descriptors[place];
        sources[static_cast<size_t>(place)] =
            source < kStandardCount && source != place && source >= 0 ? dup_above_standard(source) : source;
    }
    return sources;
}

void close_after_last_use(const Sources &sources, size_t place) {
    const auto later = sources.begin() + static_cast<std::ptrdiff_t>(place) + 1;
    if (std::find(later, sources.end(), sources[place]) == sources.end()) {
        close(sources[place]);
    }
}

// A stream may itself stand on a standard descriptor when the parent had none; there it stays.
void close_unless_standard(FILE *stream) {
    if (stream != nullptr && fileno(stream) >= kStandardCount) {
        fclose(stream);
    }
}

void duplicate_onto(FILE *stream, int place) {
    if (stream != nullptr) {
        dup2(fileno(stream), place);
    }
}

} // namespace

int32_t fork_flushed() {
    {
        const ErrnoKept kept;
        fflush(nullptr);
    }
    return fork();
}

void redirect_standard(const int descriptors[kStandardCount]) {
    const Sources sources = lift_moved_standards(descriptors);
    for (size_t place = 0; place < sources.size(); ++place) {
        const int target = static_cast<int>(place);
        if (sources[place] != target) {
            dup2(sources[place], target);
            close_after_last_use(sources, place);
        }
    }
}

void redirect_standard_to_null() {
    FILE *input = fopen("/dev/null", "r");
    FILE *output = fopen("/dev/null", "w");
    duplicate_onto(input, STDIN_FILENO);
    duplicate_onto(output, STDOUT_FILENO);
    duplicate_onto(output, STDERR_FILENO);
    close_unless_standard(input);
    close_unless_standard(output);
}

} // namespace zel
