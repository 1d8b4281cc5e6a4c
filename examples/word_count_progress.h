// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// How far a long text has come, on one line of the terminal.
//
// The line goes to standard error, and only when that is a terminal. It appears when a
// text takes longer than half a second, changes at most five times a second, and is wiped
// out at the end:
//
//   370.1 of 1000.0 MB, 37 %
//   370.1 MB                     without a size: a pipe, a device
#ifndef ZEL_EXAMPLES_WORD_COUNT_PROGRESS_H
#define ZEL_EXAMPLES_WORD_COUNT_PROGRESS_H

#include <chrono>
#include <cstdint>

namespace word_count {

struct Progress {
    bool on_terminal = false;
    bool shown = false;
    uint64_t size = 0; // bytes of the text, 0 when that is not known
    uint64_t done = 0;
    std::chrono::steady_clock::time_point next; // the line stays as it is until then
};

// The progress of the text that this descriptor reads.
Progress begin_progress(int fd);

// So many more bytes are done.
void advance_progress(Progress &progress, int32_t length);

// Wipes the line out. To be called before anything else is written to the terminal.
void end_progress(const Progress &progress);

} // namespace word_count

#endif
