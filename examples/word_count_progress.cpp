// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The line of progress on the terminal.
#include "word_count_progress.h"

#include <algorithm>
#include <cstdio>
#include <sys/stat.h>
#include <unistd.h>

namespace word_count {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr auto kFirst = milliseconds(500);
constexpr auto kPause = milliseconds(200);

// Each line is filled up to this width, so that it covers the one before.
constexpr int kWidth = 40;

uint64_t size_of_file(int fd) {
    struct stat status;
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode) ? static_cast<uint64_t>(status.st_size) : 0;
}

// The cursor rests at the beginning of the line: an error message of the companion, which
// shares the terminal, stands over the progress and not behind it. A terminal that cannot
// be written to is no reason to stop counting.
void write_line(const char *text) {
    fprintf(stderr, "%-*.*s\r", kWidth, kWidth, text);
}

double megabytes(uint64_t bytes) {
    return static_cast<double>(bytes) / 1e6;
}

// A file may grow while it is read.
void show(const Progress &progress) {
    char text[64];
    if (progress.size == 0) {
        snprintf(text, sizeof text, "%.1f MB", megabytes(progress.done));
    } else {
        const uint64_t size = std::max(progress.size, progress.done);
        snprintf(text, sizeof text, "%.1f of %.1f MB, %d %%", megabytes(progress.done), megabytes(size),
                 static_cast<int>(100 * megabytes(progress.done) / megabytes(size)));
    }
    write_line(text);
}

} // namespace

Progress begin_progress(int fd) {
    Progress progress;
    progress.on_terminal = isatty(STDERR_FILENO) == 1;
    if (progress.on_terminal) {
        progress.size = size_of_file(fd);
        progress.next = Clock::now() + kFirst;
    }
    return progress;
}

void advance_progress(Progress &progress, int32_t length) {
    progress.done += static_cast<uint64_t>(length);
    if (!progress.on_terminal || Clock::now() < progress.next) {
        return;
    }
    show(progress);
    progress.shown = true;
    progress.next = Clock::now() + kPause;
}

void end_progress(const Progress &progress) {
    if (progress.shown) {
        write_line("");
    }
}

} // namespace word_count
