// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Replacing the content of a file.
#include <components/platform/file_services.h>

#include <components/platform/base/open_file.h>
#include <components/platform/file_services/successor.h>

#include <cerrno>
#include <unistd.h>

namespace {

bool sync_file(int fd) {
    int result;
    do {
        result = fsync(fd);
    } while (result == -1 && errno == EINTR);
    return result == 0;
}

// EINVAL: the file system knows no sync of directories.
bool sync_folder(int fd) {
    return sync_file(fd) || errno == EINVAL;
}

// The content and the permissions are on the disk before the name leads to them.
bool write_successor(zel::Successor &successor, const void *data, size_t length, uint32_t mode) {
    return zel::create_beside(successor) && zel::append(successor, data, length) && fchmod(successor.file, mode) == 0 &&
           sync_file(successor.file);
}

} // namespace

// The directory is opened first. If it cannot be synced, the old content still stands.
int platform_replace_file(const char *path, const void *data, size_t length, uint32_t mode) {
    zel::Successor successor;
    if (!zel::find_place(path, successor.place)) {
        return 0;
    }
    const zel::OpenFile folder(openat(successor.place.folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const bool replaced = folder.fd != -1 && write_successor(successor, data, length, mode) &&
                          zel::take_place(successor) && sync_folder(folder.fd);
    return replaced ? 1 : 0;
}
