// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The idioms of descriptors.
#include <components/platform/base/descriptor.h>

#include <msg/base/errno_kept.h>

#include <array>
#include <fcntl.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zel {

namespace {

constexpr int kStandardCount = 3;

// A file, known by its device and inode. Both are 0 for no file.
struct File {
    dev_t device;
    ino_t inode;
    bool operator==(const File &) const = default;
};

// The files that set_close_on_exec has marked on standard descriptors.
struct State {
    std::array<File, kStandardCount> marked;
};

constinit State state = {};

File file_of(int fd) {
    struct stat status = {};
    return fstat(fd, &status) == 0 ? File{.device = status.st_dev, .inode = status.st_ino} : File{};
}

bool is_standard(int fd) {
    return fd >= 0 && fd < kStandardCount;
}

Readiness readiness_of(int result) {
    if (result < 0) {
        return Readiness::failed;
    }
    return result == 0 ? Readiness::timeout : Readiness::ready;
}

Readiness wait_with_select(int fd, long seconds, long microseconds) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    struct timeval timeout = {.tv_sec = seconds, .tv_usec = microseconds};
    return readiness_of(select(fd + 1, &readable, nullptr, nullptr, &timeout));
}

// For a descriptor at or above FD_SETSIZE, which no descriptor set holds. The time-out of
// ppoll has the range of select's. That of poll is an int of milliseconds.
Readiness wait_with_poll(int fd, long seconds, long microseconds) {
    struct pollfd entry = {.fd = fd, .events = POLLIN, .revents = 0};
    const struct timespec timeout = {.tv_sec = seconds, .tv_nsec = microseconds * 1000};
    const int result = ppoll(&entry, 1, &timeout, nullptr);
    if (result > 0 && (entry.revents & POLLNVAL) != 0) {
        errno = EBADF;
        return Readiness::failed;
    }
    return readiness_of(result);
}

} // namespace

int set_blocking(int fd, bool blocking) {
    const int flags = fcntl(fd, F_GETFL);
    if (flags == -1) {
        return -1;
    }
    return fcntl(fd, F_SETFL, blocking ? flags & ~O_NONBLOCK : flags | O_NONBLOCK);
}

void set_close_on_exec(int fd) {
    const ErrnoKept kept;
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    if (is_standard(fd)) {
        state.marked[static_cast<size_t>(fd)] = file_of(fd);
    }
}

void clear_own_close_on_exec(int fd) {
    const File marked = is_standard(fd) ? state.marked[static_cast<size_t>(fd)] : File{};
    if (marked != File{} && marked == file_of(fd)) {
        fcntl(fd, F_SETFD, 0);
    }
}

void close_keeping_errno(int fd) {
    const ErrnoKept kept;
    close(fd);
}

int dup_above_standard(int fd) {
    return fcntl(fd, F_DUPFD, STDERR_FILENO + 1);
}

int above_standard(int fd) {
    if (fd > STDERR_FILENO) {
        return fd;
    }
    const int moved = dup_above_standard(fd);
    if (moved != -1) {
        close_keeping_errno(fd);
    }
    return moved;
}

int take_above_standard(int fd) {
    if (fd == -1 || fd > STDERR_FILENO) {
        return fd;
    }
    const int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close_keeping_errno(fd);
    return moved;
}

Readiness wait_readable(int fd, long seconds, long microseconds) {
    if (fd < 0) {
        errno = EBADF;
        return Readiness::failed;
    }
    const auto wait = fd < FD_SETSIZE ? wait_with_select : wait_with_poll;
    return wait(fd, seconds, microseconds);
}

bool is_temporary(int error) {
    return error == EINTR || error == EAGAIN;
}

} // namespace zel
