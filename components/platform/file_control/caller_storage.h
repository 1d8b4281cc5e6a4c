// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Storage that the file-control unit hands to its callers, and the unit's name in it.
#ifndef ZEL_COMPONENTS_PLATFORM_FILE_CONTROL_CALLER_STORAGE_H
#define ZEL_COMPONENTS_PLATFORM_FILE_CONTROL_CALLER_STORAGE_H

#include <malloc/zel_malloc.h>

namespace zel::file_control {

inline constexpr const char *kUnit = "components/platform/file_control";

// DELIBERATE: the descriptions are ZEL_MALLOC_ARRAY and ZEL_STRDUP, the unit, and the
// line of the service. Test:
// PathStorage.BuffersAndCopiesAreAskedForUnderTheirCategoryUnitAndLine.

// Allocates a buffer for a caller. line: that of the service.
inline char *allocate_chars(size_t count, int32_t line) {
    return static_cast<char *>(zel_malloc_fl(count, "ZEL_MALLOC_ARRAY", line, kUnit));
}

// Allocates storage for the copy of a text. line: that of the service.
inline char *allocate_copy(size_t count, int32_t line) {
    return static_cast<char *>(zel_malloc_fl(count, "ZEL_STRDUP", line, kUnit));
}

} // namespace zel::file_control

#endif
