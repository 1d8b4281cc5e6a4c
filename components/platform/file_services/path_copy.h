// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A path that may be cut: a copy of the caller's.
#ifndef ZEL_COMPONENTS_PLATFORM_FILE_SERVICES_PATH_COPY_H
#define ZEL_COMPONENTS_PLATFORM_FILE_SERVICES_PATH_COPY_H

#include <components/platform/base/path.h>

#include <cerrno>

namespace zel {

// A null path becomes the empty one, which does not exist. Returns false with errno when
// the path is too long.
inline bool copy_path(PathBuffer &copy, const char *path) {
    const std::string_view whole = path == nullptr ? "" : path;
    if (whole.size() > kPathLength) {
        errno = ENAMETOOLONG;
        return false;
    }
    copy[copy_part(copy, whole)] = '\0';
    return true;
}

} // namespace zel

#endif
