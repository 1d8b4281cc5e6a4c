// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A log under its name, and its older files beside it.
#include <msg/sinks/rotation.h>

#include <msg/base/errno_kept.h>
#include <msg/base/log_file.h>
#include <msg/base/text.h>

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zel::msg {

namespace {

constexpr int kNoDescriptor = -1;
constexpr mode_t kMode = 0666; // less the bits of the umask
constexpr size_t kDirectorySize = 4096;
constexpr int kAppend = O_WRONLY | O_APPEND | O_NOFOLLOW | O_CLOEXEC;

// A name with ".2147483647" behind it.
using OlderName = std::array<char, NAME_MAX + 12>;

OlderName older_name(const Log &log, int32_t number) {
    OlderName name;
    format_text(name, "%s.%d", log.name.data(), number);
    return name;
}

int refused(int fd, int error) {
    close(fd);
    errno = error;
    return kNoDescriptor;
}

// Opens a log that is there. O_NONBLOCK: opening a FIFO without a reader would wait.
int open_older(const Log &log) {
    const int fd = log_above_standard(openat(log.directory, log.name.data(), kAppend | O_NONBLOCK | O_NOCTTY));
    if (fd == kNoDescriptor) {
        return kNoDescriptor;
    }
    if (!is_own_file(fd)) {
        return refused(fd, EPERM);
    }
    return fcntl(fd, F_SETFL, O_APPEND) == 0 ? fd : refused(fd, errno); // O_NONBLOCK off
}

int open_under_name(const Log &log) {
    const int fd = openat(log.directory, log.name.data(), kAppend | O_CREAT | O_EXCL, kMode);
    return fd == kNoDescriptor && errno == EEXIST ? open_older(log) : log_above_standard(fd);
}

// Splits the path. Returns whether both parts have room.
bool split(const char *path, std::span<char> directory, std::span<char> name) {
    const char *slash = strrchr(path, '/');
    if (slash == nullptr) {
        return format_text(directory, ".") && format_text(name, "%s", path);
    }
    const int length = static_cast<int>(slash == path ? 1 : slash - path);
    return format_text(directory, "%.*s", length, path) && format_text(name, "%s", slash + 1);
}

bool is_under_name(const Log &log) {
    struct stat named;
    struct stat written;
    return fstatat(log.directory, log.name.data(), &named, AT_SYMLINK_NOFOLLOW) == 0 && fstat(log.fd, &written) == 0 &&
           named.st_dev == written.st_dev && named.st_ino == written.st_ino;
}

bool take_file_under_name(Log &log) {
    const int fd = open_under_name(log);
    if (fd == kNoDescriptor) {
        return false;
    }
    close(log.fd);
    log.fd = fd;
    return true;
}

// Returns the least number of an older file that is not there. When all are, that is the
// number of the oldest, which is dropped.
int32_t first_free_number(const Log &log) {
    struct stat ignored;
    int32_t number = 1;
    while (number < log.older_files &&
           (fstatat(log.directory, older_name(log, number).data(), &ignored, AT_SYMLINK_NOFOLLOW) == 0 ||
            errno != ENOENT)) {
        ++number;
    }
    return number;
}

bool rename_in_directory(const Log &log, const char *from, const char *to) {
    return renameat(log.directory, from, log.directory, to) == 0;
}

// Makes the log the youngest of the older files. The last of them moves first.
bool shift(const Log &log) {
    for (int32_t number = first_free_number(log); number > 1; --number) {
        if (!rename_in_directory(log, older_name(log, number - 1).data(), older_name(log, number).data())) {
            return false;
        }
    }
    return rename_in_directory(log, log.name.data(), older_name(log, 1).data());
}

// Emptying takes the place of a removal: when no new file can be opened, the lines still
// have one. Another process may have emptied the file before.
bool empty(const Log &log, int64_t full_size) {
    struct stat status;
    return fstat(log.fd, &status) == 0 && (status.st_size < full_size || ftruncate(log.fd, 0) == 0);
}

bool rotate_locked(Log &log, int64_t full_size) {
    if (!is_under_name(log)) {
        return take_file_under_name(log);
    }
    if (log.older_files == 0) {
        return empty(log, full_size);
    }
    return shift(log) && take_file_under_name(log);
}

bool set_lock(const Log &log, short type) {
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET; // all of the file
    return fcntl(log.fd, F_SETLK, &lock) == 0;
}

// Keeps other processes from renaming the same files meanwhile, a forked child too: the
// lock belongs to the process. A file system without locks does without.
bool lock(const Log &log) {
    return set_lock(log, F_WRLCK) || (errno != EACCES && errno != EAGAIN);
}

} // namespace

bool open_log(Log &log, const char *path, int32_t older_files) {
    log = {.directory = kNoDescriptor, .name = {}, .older_files = older_files, .fd = kNoDescriptor};
    std::array<char, kDirectorySize> directory;
    if (!split(path, directory, log.name)) {
        errno = ENAMETOOLONG;
        return false;
    }
    log.directory = log_above_standard(open(directory.data(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (log.directory == kNoDescriptor) {
        return false;
    }
    log.fd = open_under_name(log);
    if (log.fd != kNoDescriptor) {
        return true;
    }
    const ErrnoKept kept;
    close(log.directory);
    return false;
}

int close_log(Log &log) {
    close(log.directory);
    return close(log.fd);
}

bool rotate(Log &log, int64_t full_size) {
    if (!lock(log)) {
        return false;
    }
    const bool rotated = rotate_locked(log, full_size);
    set_lock(log, F_UNLCK);
    return rotated;
}

} // namespace zel::msg
