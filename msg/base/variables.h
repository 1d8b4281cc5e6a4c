// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The environment variables by which a user directs the library.
#ifndef ZEL_MSG_BASE_VARIABLES_H
#define ZEL_MSG_BASE_VARIABLES_H

#include <msg/base/errno_kept.h>

#include <cstdlib>
#include <initializer_list>
#include <sys/auxv.h>

namespace zel {

// Whether the process has rights that its caller lacks (set-user-ID and the like). errno
// is kept.
inline bool has_raised_rights() {
    const ErrnoKept kept;
    return getauxval(AT_SECURE) != 0;
}

// Returns the value of a variable, or null when it is unset. The environment is the
// caller's: in a process with rights that its caller lacks, every variable counts as
// unset. The value belongs to the environment.
inline const char *variable(const char *name) {
    return has_raised_rights() ? nullptr : getenv(name);
}

// Returns the value of the first variable that is set, even if it is empty, or the other
// text when none is.
inline const char *first_set(std::initializer_list<const char *> names, const char *otherwise) {
    for (const char *name : names) {
        const char *value = variable(name);
        if (value != nullptr) {
            return value;
        }
    }
    return otherwise;
}

} // namespace zel

#endif
