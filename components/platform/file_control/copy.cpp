// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Copying one file.
#include <components/platform/file_control.h>

#include <components/platform/base/open_file.h>

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr mode_t kCreationMode = 0666;
using Chunk = std::array<char, 8192>;

bool is_same_file(const struct stat &source, const struct stat &target) {
    return S_ISREG(source.st_mode) && source.st_dev == target.st_dev && source.st_ino == target.st_ino;
}

// Empties the target. Devices and pipes are left alone. Returns false when it cannot be
// emptied, or is the source. Open files are compared: another process may exchange a name
// before it is opened.
bool make_ready(int source, int target) {
    struct stat from;
    struct stat to;
    const bool known = fstat(source, &from) == 0;
    if (fstat(target, &to) != 0 || (known && is_same_file(from, to))) {
        return false;
    }
    return !S_ISREG(to.st_mode) || ftruncate(target, 0) == 0;
}

// A read that a signal interrupts is repeated.
ssize_t read_chunk(int fd, Chunk &chunk) {
    ssize_t count;
    do {
        count = read(fd, chunk.data(), chunk.size());
    } while (count == -1 && errno == EINTR);
    return count;
}

// A write that a signal interrupts is repeated; one that is cut short is not.
void write_chunk(int fd, const Chunk &chunk, size_t length) {
    ssize_t count;
    do {
        count = write(fd, chunk.data(), length);
    } while (count == -1 && errno == EINTR);
}

} // namespace

// DELIBERATE: a short write and a failed read do not show in the result. Tests:
// CopyFile.AFullDiskDoesNotShowInTheResult, CopyFile.AReadThatFailsEndsTheCopy.
int platform_copy_file(const char *from, const char *to) {
    if (from == nullptr || to == nullptr) {
        return 0;
    }
    const zel::OpenFile source(open(from, O_RDONLY | O_CLOEXEC));
    if (source.fd == -1) {
        return 0;
    }
    const zel::OpenFile target(open(to, O_WRONLY | O_CREAT | O_CLOEXEC, kCreationMode));
    if (target.fd == -1 || !make_ready(source.fd, target.fd)) {
        return 0;
    }
    Chunk chunk;
    for (ssize_t count = read_chunk(source.fd, chunk); count > 0; count = read_chunk(source.fd, chunk)) {
        write_chunk(target.fd, chunk, static_cast<size_t>(count));
    }
    return 1;
}
