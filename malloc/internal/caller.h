// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Who asks for storage. An entry passes this description down to the core primitives, and
// the debug heap keeps it.
#ifndef ZEL_MALLOC_INTERNAL_CALLER_H
#define ZEL_MALLOC_INTERNAL_CALLER_H

#include <cstdint>

namespace zel::memory {

// The form of a description, by its promised number.
enum class Method : int32_t { function_purpose = 0, file_line = 1 };

// The place of a request. The form of the description tells which of the two it is.
union Place {
    const char *function; // function/purpose form: the calling function, or null
    int32_t line;         // file/line form: the line of the call
};

// The texts are kept by pointer: callers pass literals. A function that is out of line
// takes the four values one by one: they travel in registers, and an entry that is inline
// up to there never builds the record.
struct Caller {
    Method method;
    const char *name; // the entry, or the name that the caller passed
    Place place;
    const char *purpose_or_file; // a purpose may be null
};

// The calling function; null in the file/line form.
constexpr const char *function_of(const Caller &caller) {
    return caller.method == Method::file_line ? nullptr : caller.place.function;
}

constexpr Caller by_function(const char *name, const char *function, const char *purpose) {
    return {
        .method = Method::function_purpose, .name = name, .place = {.function = function}, .purpose_or_file = purpose};
}

constexpr Caller by_line(const char *name, int32_t line, const char *file) {
    return {.method = Method::file_line, .name = name, .place = {.line = line}, .purpose_or_file = file};
}

} // namespace zel::memory

#endif
