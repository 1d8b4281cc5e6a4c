// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The steps around fork and between fork and exec.
#include <components/platform/base/child_start.h>

#include <components/platform/base/descriptor.h>
#include <msg/base/errno_kept.h>
#include <msg/base/sigpipe.h>

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace zel {

namespace {

constexpr int kStandardCount = 3;

bool is_open(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

// A source may be a standard descriptor of another place. It is copied above the
// standard ones, since another source may replace it before its turn.
Standards lift_moved_standards(const Standards &standards) {
    Standards sources = standards;
    for (int place = 0; place < kStandardCount; ++place) {
        int &source = sources[static_cast<size_t>(place)];
        if (source < kStandardCount && source != place) {
            source = dup_above_standard(source);
        }
    }
    return sources;
}

void close_after_last_use(const Standards &sources, size_t place) {
    const auto later = sources.begin() + static_cast<std::ptrdiff_t>(place) + 1;
    if (std::find(later, sources.end(), sources[place]) == sources.end()) {
        close(sources[place]);
    }
}

bool put_in_place(const Standards &sources, size_t place) {
    const int target = static_cast<int>(place);
    if (sources[place] == target) {
        clear_own_close_on_exec(target); // a socket made here may stand on a standard descriptor
        return true;
    }
    // A source that could not be lifted is -1, and errno tells why.
    if (sources[place] == -1 || dup2(sources[place], target) == -1) {
        return false;
    }
    close_after_last_use(sources, place);
    return true;
}

// A stream gets the number of a standard descriptor when the parent had closed that one.
// Then it stays open.
void close_unless_standard(FILE *stream) {
    if (stream != nullptr && fileno(stream) >= kStandardCount) {
        fclose(stream);
    }
}

bool duplicate_onto(FILE *stream, int place) {
    return stream != nullptr && dup2(fileno(stream), place) != -1;
}

} // namespace

Standards choose_standards(const int descriptors[kStandardCount]) {
    const ErrnoKept kept;
    Standards standards;
    for (int place = 0; place < kStandardCount; ++place) {
        const int given = descriptors[place];
        standards[static_cast<size_t>(place)] = given != place && is_open(given) ? given : place;
    }
    return standards;
}

// SIGPIPE is not ignored meanwhile: an ignored signal would stay ignored in a child.
void flush_output() {
    const ErrnoKept kept;
    const SigpipeBlocked blocked;
    fflush(nullptr);
}

int32_t fork_flushed() {
    flush_output();
    return fork();
}

bool redirect_standard(const Standards &standards) {
    const Standards sources = lift_moved_standards(standards);
    bool placed = true;
    for (size_t place = 0; place < sources.size(); ++place) {
        placed = put_in_place(sources, place) && placed;
    }
    return placed;
}

bool redirect_standard_to_null() {
    FILE *input = fopen("/dev/null", "r");
    FILE *output = fopen("/dev/null", "w");
    const bool placed = duplicate_onto(input, STDIN_FILENO) && duplicate_onto(output, STDOUT_FILENO) &&
                        duplicate_onto(output, STDERR_FILENO);
    close_unless_standard(input);
    close_unless_standard(output);
    return placed;
}

} // namespace zel
