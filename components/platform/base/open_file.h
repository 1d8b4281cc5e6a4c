// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A descriptor that is closed where its scope ends.
#ifndef ZEL_COMPONENTS_PLATFORM_BASE_OPEN_FILE_H
#define ZEL_COMPONENTS_PLATFORM_BASE_OPEN_FILE_H

#include <components/platform/base/descriptor.h>

namespace zel {

// The close keeps errno.
struct OpenFile {
    explicit OpenFile(int number) : fd(number) {}
    OpenFile(const OpenFile &) = delete;
    OpenFile &operator=(const OpenFile &) = delete;
    ~OpenFile() {
        if (fd != -1) {
            close_keeping_errno(fd);
        }
    }
    const int fd; // or -1
};

} // namespace zel

#endif
