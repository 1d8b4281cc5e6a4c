// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Helpers of the tests of the streams that are more than files.
#ifndef ZEL_TESTS_MSG_SINKS_SUPPORT_H
#define ZEL_TESTS_MSG_SINKS_SUPPORT_H

#include <msg/sinks.h>

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <support/files.h>

namespace zel::test {

// The function that takes a line. Returns whether it was taken.
using TakeLine = std::function<bool(const std::string &line)>;

// A stream to the function, which lives as long as the process.
FILE *open_lines(const TakeLine &take);

// A stream to a function that puts each call between brackets on standard output.
FILE *open_bracketed();

// What is between the brackets of both.
void print_bracketed(const std::string &line);

// A log in a folder of its own.
struct LogFolder : ScratchFolder {
    const std::string log = path + "/log";

    // The log and its older files up to the first that is not there, "|" between them.
    std::string all() const;
    // The names in the folder, in order.
    std::string names() const;
    FILE *open(int64_t most_bytes, int32_t older_files) const;
};

} // namespace zel::test

#endif
