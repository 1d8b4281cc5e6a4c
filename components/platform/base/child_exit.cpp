// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Ends a forked child by exit without harm to the files that it shares with its parent.
#include <components/platform/base/child_start.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

namespace zel {

namespace {

constexpr const char *kNullDevice = "/dev/null";
constexpr const char *kOpenDescriptors = "/proc/self/fd";
constexpr int kNumbersTriedWithoutList = 65536;
constexpr size_t kListSize = 1024;

// Whether exit may move the position of the descriptor: a partly read stream may stand on
// it.
bool is_read_at_position(int fd) {
    const int mode = fcntl(fd, F_GETFL);
    return mode != -1 && (mode & O_ACCMODE) != O_WRONLY && lseek(fd, 0, SEEK_CUR) != -1;
}

// When every number is taken, the first open fails. The close frees one number, and the
// second open gets it.
void replace_by_null_device(int fd) {
    const int null_fd = open(kNullDevice, O_RDWR);
    if (null_fd == -1) {
        close(fd);
        open(kNullDevice, O_RDWR);
        return;
    }
    dup2(null_fd, fd);
    close(null_fd);
}

void replace_if_read_at_position(int fd) {
    if (is_read_at_position(fd)) {
        replace_by_null_device(fd);
    }
}

void replace_listed(const char *list, size_t size, int list_fd) {
    for (size_t at = 0; at < size;) {
        const auto *entry = reinterpret_cast<const struct dirent64 *>(list + at);
        const int fd = entry->d_name[0] == '.' ? list_fd : static_cast<int>(strtol(entry->d_name, nullptr, 10));
        if (fd != list_fd) {
            replace_if_read_at_position(fd);
        }
        at += entry->d_reclen;
    }
}

// Goes through the list of the open descriptors, without storage from the heap. Returns
// whether the list was read to its end.
bool replace_all_listed() {
    const int list_fd = open(kOpenDescriptors, O_RDONLY | O_DIRECTORY);
    if (list_fd == -1) {
        return false;
    }
    alignas(struct dirent64) std::array<char, kListSize> list;
    ssize_t size = getdents64(list_fd, list.data(), list.size());
    while (size > 0) {
        replace_listed(list.data(), static_cast<size_t>(size), list_fd);
        size = getdents64(list_fd, list.data(), list.size());
    }
    close(list_fd);
    return size == 0;
}

} // namespace

void exit_beside_parent(int status) {
    if (!replace_all_listed()) {
        for (int fd = 0; fd < kNumbersTriedWithoutList; ++fd) {
            replace_if_read_at_position(fd);
        }
    }
    exit(status);
}

} // namespace zel
