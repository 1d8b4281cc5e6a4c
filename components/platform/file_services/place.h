// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The place that a path leads to: a name in a directory that is held open.
#ifndef ZEL_COMPONENTS_PLATFORM_FILE_SERVICES_PLACE_H
#define ZEL_COMPONENTS_PLATFORM_FILE_SERVICES_PLACE_H

#include <array>
#include <climits>
#include <fcntl.h>
#include <sys/stat.h>

namespace zel {

// What is done at the place is done relative to its directory, which is the same one
// until the scope ends, whatever becomes of its name.
struct Place {
    Place() = default;
    Place(const Place &) = delete;
    Place &operator=(const Place &) = delete;
    ~Place();
    int folder = AT_FDCWD;                    // its directory
    std::array<char, NAME_MAX + 1> name = {}; // in that directory
    bool is_taken = false;                    // whether a file has that name
    struct stat status = {};                  // of that file
};

// Finds the place of a regular file. Links are followed, also one that leads to no file
// yet. A link in a directory where everybody may make files, and remove his own alone, is
// followed when it belongs to the caller or to the owner of the directory.
// - Returns false with errno: EISDIR for a directory, EINVAL for another kind of file,
//   EACCES for a link that is not followed, ELOOP for more than 40 links.
bool find_place(const char *path, Place &place);

} // namespace zel

#endif
