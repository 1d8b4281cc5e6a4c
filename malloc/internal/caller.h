// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Who asks for storage: the description that every allocation carries from its entry down to the core.
#ifndef ZEL_MALLOC_INTERNAL_CALLER_H
#define ZEL_MALLOC_INTERNAL_CALLER_H

#include <cstdint>

namespace zel::memory {

enum class Method : int32_t { function_purpose = 0, file_line = 1 };

struct Place {
    const char *function; // function/purpose form; may be null
    int32_t line;         // file/line form
};

// The texts are kept by pointer: they are literals of the caller's.
struct Caller {
    Method method;
    const char *name; // the allocating entry, or the macro
    Place place;
    const char *purpose_or_file; // may be null in the function/purpose form
};

constexpr Caller by_function(const char *name, const char *function, const char *purpose) {
    return {.method = Method::function_purpose,
            .name = name,
            .place = {.function = function, .line = 0},
            .purpose_or_file = purpose};
}

constexpr Caller by_line(const char *name, int32_t line, const char *file) {
    return {.method = Method::file_line,
            .name = name,
            .place = {.function = nullptr, .line = line},
            .purpose_or_file = file};
}

} // namespace zel::memory

#endif
