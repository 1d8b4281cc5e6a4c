// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The status of a file in full width.
#include <components/platform/file_services.h>

#include <sys/stat.h>

static_assert(sizeof(PlatformFileStatus) == 64);
static_assert(sizeof(off_t) == sizeof(int64_t) && sizeof(time_t) == sizeof(int64_t));

namespace {

PlatformFileStatus status_of(const struct stat &status) {
    return {.size = status.st_size,
            .modify_seconds = status.st_mtim.tv_sec,
            .change_seconds = status.st_ctim.tv_sec,
            .device = status.st_dev,
            .inode = status.st_ino,
            .modify_nanoseconds = static_cast<uint32_t>(status.st_mtim.tv_nsec),
            .change_nanoseconds = static_cast<uint32_t>(status.st_ctim.tv_nsec),
            .mode = status.st_mode,
            .owner = status.st_uid,
            .group = status.st_gid,
            .links = static_cast<uint32_t>(status.st_nlink)};
}

} // namespace

int platform_file_status(const char *path, PlatformFileStatus *status) {
    struct stat found;
    if (stat(path == nullptr ? "" : path, &found) != 0) {
        return 0;
    }
    *status = status_of(found);
    return 1;
}

int platform_file_status_differs(const PlatformFileStatus *before, const PlatformFileStatus *after) {
    const bool same =
        before->device == after->device && before->inode == after->inode && before->size == after->size &&
        before->modify_seconds == after->modify_seconds && before->modify_nanoseconds == after->modify_nanoseconds &&
        before->change_seconds == after->change_seconds && before->change_nanoseconds == after->change_nanoseconds;
    return same ? 0 : 1;
}
