// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A log under its name, and its older files beside it.
#ifndef ZEL_MSG_SINKS_ROTATION_H
#define ZEL_MSG_SINKS_ROTATION_H

#include <array>
#include <climits>
#include <cstdint>

#pragma GCC visibility push(hidden)

namespace zel::msg {

struct Log {
    int directory; // in which its names stand
    std::array<char, NAME_MAX + 1> name;
    int32_t older_files; // kept beside it
    int fd;              // of the file that is written
};

// Opens the log under its path. Returns whether it is open; errno says why not.
bool open_log(Log &log, const char *path, int32_t older_files);

// Closes what is open of it. Returns 0, or -1 with errno.
int close_log(Log &log);

// Gives a log that was found full at that size another file to write: a new one, or the
// one that another process put under its name. Returns false, and the log keeps its file,
// when that cannot be done, or another process is doing it.
bool rotate(Log &log, int64_t full_size);

} // namespace zel::msg

#pragma GCC visibility pop

#endif
