// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Opening a log file. A file that is there is checked before it is changed.
#include <msg/base/log_file.h>

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <stdio_ext.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zel {

namespace {

constexpr int kNoDescriptor = -1;
constexpr mode_t kMode = 0666; // less the bits of the umask

struct LogStream {
    FILE *stream; // or null
    pid_t owner;  // the process that opened it
};

// The two streams opened last, the latest first. No more are written: the start-up
// diagnostics file is opened once, and a diagnostic log takes the place of the one
// before.
struct State {
    std::array<LogStream, 2> opened;
};

constinit State state = {};

// Text that cannot be written is discarded. A stream of another process is left alone: a
// forked child inherits the buffer, but the text in it is the parent's.
void write_out(const LogStream &log) {
    if (log.stream == nullptr || log.owner != getpid()) {
        return;
    }
    if (fflush(log.stream) != 0) {
        __fpurge(log.stream);
    }
}

void write_out_earlier_streams() {
    for (const LogStream &log : state.opened) {
        write_out(log);
    }
}

// Opens and empties a log that is there. O_NONBLOCK: opening a FIFO without a reader
// would wait.
int open_older(const char *path) {
    const int fd = log_above_standard(open(path, O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
    if (fd == kNoDescriptor) {
        return kNoDescriptor;
    }
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    if (!is_own_file(fd)) {
        close(fd);
        return kNoDescriptor;
    }
    write_out_earlier_streams();
    if (ftruncate(fd, 0) != 0 || fcntl(fd, F_SETFL, 0) != 0) { // 0: O_NONBLOCK off
        close(fd);
        return kNoDescriptor;
    }
    return fd;
}

int open_empty(const char *path) {
    const int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kMode);
    return fd == kNoDescriptor && errno == EEXIST ? open_older(path) : log_above_standard(fd);
}

// Writes the earlier streams out first: the older one leaves the record.
void remember(FILE *stream) {
    write_out_earlier_streams();
    state.opened = {LogStream{.stream = stream, .owner = getpid()}, state.opened.front()};
}

} // namespace

int log_above_standard(int fd) {
    if (fd > STDERR_FILENO || fd == kNoDescriptor) {
        return fd;
    }
    const int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(fd);
    return moved;
}

bool is_own_file(int fd) {
    struct stat status;
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == geteuid() && status.st_nlink == 1;
}

FILE *open_log_file(const char *path) {
    const int fd = open_empty(path);
    FILE *stream = fd == kNoDescriptor ? nullptr : fdopen(fd, "w");
    if (stream != nullptr) {
        remember(stream);
    } else if (fd != kNoDescriptor) {
        close(fd);
    }
    return stream;
}

} // namespace zel
