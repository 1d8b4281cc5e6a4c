// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Status and access tests.
#include <components/platform/file_control.h>

#include <pwd.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

// Reads the status of the file that a path leads to, through links.
bool read_status(const char *path, struct stat *status) {
    return path != nullptr && stat(path, status) == 0;
}

// A product that the result cannot hold becomes INT64_MAX: one that wrapped could be a
// code, -1 or -2.
int64_t saturated_product(uint64_t size, uint64_t count) {
    constexpr auto kMost = uint64_t{INT64_MAX};
    return static_cast<int64_t>(size != 0 && count > kMost / size ? kMost : size * count);
}

// access goes by the real user and group of the process.
int has_access(const char *path, int mode) {
    return path != nullptr && access(path, mode) == 0 ? 1 : 0;
}

} // namespace

int platform_exists(const char *path) {
    struct stat status;
    return read_status(path, &status) ? 1 : 0;
}

int platform_file_exists(const char *path) {
    return platform_exists(path);
}

int platform_is_readable(const char *path) {
    return has_access(path, R_OK);
}

int platform_is_writable(const char *path) {
    return has_access(path, W_OK);
}

int platform_is_executable(const char *path) {
    return has_access(path, X_OK);
}

int platform_is_dir(const char *path) {
    struct stat status;
    return read_status(path, &status) && S_ISDIR(status.st_mode) ? 1 : 0;
}

int64_t platform_mtime(const char *path) {
    struct stat status;
    return read_status(path, &status) ? int64_t{status.st_mtime} : 0;
}

int64_t platform_file_size(const char *path) {
    struct stat status;
    return read_status(path, &status) ? int64_t{status.st_size} : -1;
}

// The name is the C library's and is not copied.
const char *platform_file_owner(const char *path) {
    struct stat status;
    if (!read_status(path, &status)) {
        return nullptr;
    }
    const struct passwd *entry = getpwuid(status.st_uid);
    return entry == nullptr ? nullptr : entry->pw_name;
}

int64_t platform_free_space(const char *path) {
    if (path == nullptr || *path == '\0') {
        return -1;
    }
    struct statvfs status;
    if (statvfs(path, &status) != 0) {
        return -2;
    }
    // f_bavail counts in units of f_frsize. f_bsize is the preferred size of a transfer
    // and may differ.
    return saturated_product(status.f_frsize, status.f_bavail);
}
