// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A file that takes the place of another.
#include <components/platform/file_services/successor.h>

#include <components/platform/base/descriptor.h>
#include <components/platform/file_services/unique_name.h>
#include <msg/base/errno_kept.h>
#include <msg/base/text.h>

#include <cstdio>
#include <unistd.h>

namespace zel {

namespace {

constexpr std::string_view kNameStart = ".zel-";
constexpr mode_t kOwnerAlone = 0600;

ssize_t write_part(int fd, const char *data, size_t length) {
    ssize_t written;
    do {
        written = write(fd, data, length);
    } while (written == -1 && errno == EINTR);
    return written;
}

} // namespace

Successor::~Successor() {
    const ErrnoKept kept;
    if (file != -1) {
        close(file);
    }
    if (is_beside) {
        unlinkat(place.folder, name.data(), 0);
    }
}

bool create_beside(Successor &successor) {
    copy_part(successor.name, kNameStart);
    const std::span random = std::span(successor.name).first(successor.name.size() - 1).subspan(kNameStart.size());
    const int created = make_unique(random, [&successor] {
        constexpr int kNew = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
        return openat(successor.place.folder, successor.name.data(), kNew, kOwnerAlone);
    });
    successor.is_beside = created != -1;
    successor.file = take_above_standard(created);
    return successor.file != -1;
}

bool append(const Successor &successor, const void *data, size_t length) {
    const char *rest = static_cast<const char *>(data);
    while (length > 0) {
        const ssize_t written = write_part(successor.file, rest, length);
        if (written <= 0) { // 0: a file that takes nothing would be written to for ever
            errno = written == 0 ? EIO : errno;
            return false;
        }
        rest += written;
        length -= static_cast<size_t>(written);
    }
    return true;
}

// Some file systems tell of a write that failed when the file is closed.
bool take_place(Successor &successor) {
    const int closed = close(successor.file);
    successor.file = -1;
    const Place &place = successor.place;
    if (closed != 0 || renameat(place.folder, successor.name.data(), place.folder, place.name.data()) != 0) {
        return false;
    }
    successor.is_beside = false;
    return true;
}

} // namespace zel
