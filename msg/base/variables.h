// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Settings that the user may give in one of several environment variables.
#ifndef ZEL_MSG_BASE_VARIABLES_H
#define ZEL_MSG_BASE_VARIABLES_H

#include <cstdlib>
#include <initializer_list>

namespace zel {

// The value of the first of the variables that is set, an empty one included; the other text when none is. The value
// belongs to the environment.
inline const char *first_set(std::initializer_list<const char *> variables, const char *otherwise) {
    for (const char *variable : variables) {
        const char *value = getenv(variable);
        if (value != nullptr) {
            return value;
        }
    }
    return otherwise;
}

} // namespace zel

#endif
