// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The environment variables by which a user directs the library.
#ifndef ZEL_MSG_BASE_VARIABLES_H
#define ZEL_MSG_BASE_VARIABLES_H

#include <msg/base/errno_kept.h>

#include <cstdlib>
#include <initializer_list>
#include <sys/auxv.h>

namespace zel {

// Whether the kernel started the process with rights that its caller does not have (set-user-ID and the like). errno is
// kept.
inline bool has_raised_rights() {
    const ErrnoKept kept;
    return getauxval(AT_SECURE) != 0;
}

// The value of a variable that directs the library, or null when it is unset. The environment is the caller's: where
// the process has rights that its caller lacks, the variable counts as unset. The value belongs to the environment.
inline const char *variable(const char *name) {
    return has_raised_rights() ? nullptr : getenv(name);
}

// The value of the first of the variables that is set, an empty one included; the other text when none is.
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
