// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A directory with those above it.
#include <components/platform/file_services.h>

#include <components/platform/file_services/path_copy.h>

#include <sys/stat.h>

namespace {

// Whether a directory is there that could not be made. If not, errno says why.
bool is_there(const char *path, int error) {
    struct stat status;
    const bool is_taken = stat(path, &status) == 0;
    if (is_taken && S_ISDIR(status.st_mode)) {
        return true;
    }
    if (error != EEXIST) {
        errno = error;
    } else if (is_taken || errno == ENOENT) { // ENOENT: a link that leads nowhere
        errno = ENOTDIR;
    }
    return false;
}

// Making comes first: between a look and a making another process may make the directory.
bool make_dir(const char *path, mode_t mode) {
    return mkdir(path, mode) == 0 || is_there(path, errno);
}

} // namespace

int platform_make_dirs(const char *path, uint32_t mode) {
    zel::PathBuffer part;
    if (!zel::copy_path(part, path)) {
        return 0;
    }
    for (size_t end = 1; part.front() != '\0' && part[end] != '\0'; ++end) {
        if (part[end] != '/' || part[end - 1] == '/') {
            continue;
        }
        part[end] = '\0';
        if (!make_dir(part.data(), mode)) {
            return 0;
        }
        part[end] = '/';
    }
    return make_dir(part.data(), mode) ? 1 : 0;
}
