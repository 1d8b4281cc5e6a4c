// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// What the tests of the file services share.
#ifndef ZEL_TESTS_COMPONENTS_PLATFORM_FILE_SERVICES_SUPPORT_H
#define ZEL_TESTS_COMPONENTS_PLATFORM_FILE_SERVICES_SUPPORT_H

#include "file_support.h"

#include <support/interpose.h>

#include <functional>
#include <set>
#include <string>
#include <sys/types.h>
#include <vector>

namespace zel::test {

using Names = std::vector<std::string>;

// Runs the body. In place of its n-th system call that is interposed, from 0, the action runs, which is told the name
// of the call: it returns true when the call fails with EIO, false when it is made. Returns the names of all calls.
Names with_calls(const std::function<void()> &body, int nth, const std::function<bool(const std::string &)> &action);

// The names of the interposed system calls that the body makes.
Names calls_of(const std::function<void()> &body);

// How a service fared whose n-th call failed.
struct Fared {
    std::string failed; // the call
    int result;
    int error;
};

// Lets each system call of the service fail once with EIO, in a run of its own. Finds no descriptor left after any run.
// Ahead of each run, prepare makes the world as it was; after each, check looks at it.
void sweep(const std::function<void()> &prepare, const std::function<int()> &service,
           const std::function<void(const Fared &)> &check);

// Tests of copies. The file system shares no blocks, whichever it is: each copy moves its content.
struct CopiedFiles : Files {
    Interposed<int(int, unsigned long, void *)> sharing{hook::ioctl, fail_always(hook::ioctl, EOPNOTSUPP, -1)};
};

// The entries of a folder.
std::set<std::string> entries(const std::string &folder);

// The permissions of a file, four octal digits.
mode_t permissions(const std::string &path);

// In its scope the process has this file creation mask.
struct Mask {
    explicit Mask(mode_t mask);
    ~Mask();
    Mask(const Mask &) = delete;
    Mask &operator=(const Mask &) = delete;
    const mode_t before;
};

// A text of this length in which no part is like another.
std::string long_text(size_t length);

} // namespace zel::test

#endif
