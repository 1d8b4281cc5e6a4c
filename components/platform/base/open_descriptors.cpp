// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Going through the open descriptors of this process.
#include <components/platform/base/open_descriptors.h>

#include <components/platform/base/descriptor.h>

#include <array>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>

namespace zel {

namespace {

constexpr const char *kOpenDescriptors = "/proc/self/fd";
constexpr size_t kListSize = 1024;

using List = std::array<char, kListSize>;

void visit_listed(const List &list, size_t size, int list_fd, void (*visit)(int, int), int kept) {
    for (size_t at = 0; at < size;) {
        const auto *entry = reinterpret_cast<const struct dirent64 *>(&list[at]);
        const int fd = entry->d_name[0] == '.' ? list_fd : static_cast<int>(strtol(entry->d_name, nullptr, 10));
        if (fd != list_fd) {
            visit(fd, kept);
        }
        at += entry->d_reclen;
    }
}

} // namespace

bool visit_open_descriptors(void (*visit)(int fd, int kept), int kept) {
    const int list_fd = open(kOpenDescriptors, O_RDONLY | O_DIRECTORY);
    if (list_fd == -1) {
        return false;
    }
    alignas(struct dirent64) List list;
    ssize_t size = getdents64(list_fd, list.data(), list.size());
    while (size > 0) {
        visit_listed(list, static_cast<size_t>(size), list_fd, visit, kept);
        size = getdents64(list_fd, list.data(), list.size());
    }
    close_keeping_errno(list_fd);
    return size == 0;
}

} // namespace zel
