// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The error number kept across work that may change it.
#ifndef ZEL_MSG_BASE_ERRNO_KEPT_H
#define ZEL_MSG_BASE_ERRNO_KEPT_H

#include <cerrno>

namespace zel {

// Restores errno at the end of its scope.
struct ErrnoKept {
    const int value = errno;
    ErrnoKept() = default;
    ErrnoKept(const ErrnoKept &) = delete;
    ErrnoKept &operator=(const ErrnoKept &) = delete;
    ~ErrnoKept() { errno = value; }
};

} // namespace zel

#endif
