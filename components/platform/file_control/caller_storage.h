// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// What the files of the file-control unit share: its name, and storage for its callers under that name.
#ifndef ZEL_COMPONENTS_PLATFORM_FILE_CONTROL_CALLER_STORAGE_H
#define ZEL_COMPONENTS_PLATFORM_FILE_CONTROL_CALLER_STORAGE_H

#include <malloc/zel_malloc.h>

namespace zel::file_control {

inline constexpr const char *kUnitName = "components/platform/file_control";

// What a path buffer takes when it is allocated, and the size that is used of it.
inline constexpr size_t kAllocatedPathSize = 4097;
inline constexpr size_t kPathSize = 4096;

} // namespace zel::file_control

namespace zel::file_control {

// Storage for a caller, described by this unit and the line of the service that asks for it.
inline char *allocate_chars(size_t count, int32_t line) {
    return static_cast<char *>(zel_malloc_fl(count, "ZEL_MALLOC_ARRAY", line, kUnitName));
}

// The same for a copy of a text.
inline char *allocate_copy(size_t count, int32_t line) {
    return static_cast<char *>(zel_malloc_fl(count, "ZEL_STRDUP", line, kUnitName));
}

} // namespace zel::file_control

#endif
