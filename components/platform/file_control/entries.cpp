// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Entries of directories: removed, renamed, made.
#include <components/platform/file_control.h>

#include <sys/stat.h>
#include <unistd.h>

namespace {

// The mask of the process takes permissions away from it.
constexpr mode_t kDirectoryMode = 0777;

} // namespace

// lstat sees a link that points nowhere, which remove can remove.
int platform_remove_file(const char *path) {
    struct stat status;
    return path != nullptr && lstat(path, &status) == 0 && remove(path) == 0 ? 1 : 0;
}

int platform_rename(const char *from, const char *to) {
    return from != nullptr && to != nullptr && rename(from, to) == 0 ? 1 : 0;
}

int platform_mkdir(const char *path) {
    return path != nullptr && mkdir(path, kDirectoryMode) == 0 ? 1 : 0;
}

int platform_make_dir(const char *path) {
    return platform_mkdir(path);
}

int platform_rmdir(const char *path) {
    return path != nullptr && rmdir(path) == 0 ? 1 : 0;
}
