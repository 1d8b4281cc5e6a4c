// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A copy that tells whether it is whole.
#include <components/platform/file_services.h>

#include <components/platform/base/open_file.h>
#include <components/platform/file_services/successor.h>
#include <msg/base/limits.h>

#include <array>
#include <cerrno>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/sendfile.h>
#include <unistd.h>

namespace {

struct Copy {
    int source;
    struct stat before; // the status of the source when the copy began
    zel::Successor target;
    int64_t copied;
    PlatformCopyProgress progress; // or null
    void *user;
};

bool fail(int error) {
    errno = error;
    return false;
}

// ---- From the source to the target ------------------------------------------------------------------------------

// A mover moves a part from where the source stands to where the target stands. It
// returns how many bytes it moved, 0 at the end, or -1 with errno.
using Mover = ssize_t (*)(const Copy &copy);

ssize_t move_by_file_range(const Copy &copy) {
    return copy_file_range(copy.source, nullptr, copy.target.file, nullptr, zel::kCopyPart, 0);
}

ssize_t move_by_sendfile(const Copy &copy) {
    return sendfile(copy.target.file, copy.source, nullptr, zel::kCopyPart);
}

ssize_t move_by_hand(const Copy &copy) {
    std::array<char, zel::kCopyBufferSize> part;
    const ssize_t count = read(copy.source, part.data(), part.size());
    if (count > 0 && !zel::append(copy.target, part.data(), static_cast<size_t>(count))) {
        return -1;
    }
    return count;
}

// From the fastest to the one that works everywhere. Each goes on where the one before
// has ended or failed. What cannot be read or written fails for the last one too, which
// says so. Only the last one knows the end: files of /proc end at once for the others.
constexpr Mover kMovers[] = {move_by_file_range, move_by_sendfile, move_by_hand};

bool count_part(Copy &copy, int64_t moved) {
    copy.copied += moved;
    const bool goes_on = copy.progress == nullptr || copy.progress(copy.copied, copy.before.st_size, copy.user) != 0;
    return goes_on || fail(ECANCELED);
}

// Moves parts until the mover ends or fails. Returns false when the program cancels.
bool move_by(Mover mover, Copy &copy, ssize_t &result) {
    for (;;) {
        result = mover(copy);
        if (result > 0 && !count_part(copy, result)) {
            return false;
        }
        if (result == 0 || (result < 0 && errno != EINTR)) {
            return true;
        }
    }
}

// A source that lost bytes may have lost some that are not in the target yet.
bool is_whole(const Copy &copy) {
    struct stat now;
    if (fstat(copy.source, &now) != 0) {
        return false;
    }
    return now.st_size >= copy.before.st_size || fail(EAGAIN);
}

bool move_all(Copy &copy) {
    ssize_t result = 0;
    for (const Mover mover : kMovers) {
        if (!move_by(mover, copy, result)) {
            return false;
        }
    }
    return result == 0 && is_whole(copy);
}

// Two files that share their blocks until one of them is written to: nothing is moved.
bool clone(const Copy &copy) {
    return copy.before.st_size > 0 && ioctl(copy.target.file, FICLONE, copy.source) == 0;
}

bool copy_content(Copy &copy) {
    return clone(copy) ? count_part(copy, copy.before.st_size) : move_all(copy);
}

// ---- The two files ----------------------------------------------------------------------------------------------

bool is_same_file(const struct stat &source, const zel::Place &target) {
    return target.is_taken && source.st_dev == target.status.st_dev && source.st_ino == target.status.st_ino;
}

bool look_at_source(Copy &copy) {
    return fstat(copy.source, &copy.before) == 0 && (S_ISREG(copy.before.st_mode) || fail(EINVAL));
}

bool find_target(Copy &copy, const char *to) {
    return zel::find_place(to, copy.target.place) && (!is_same_file(copy.before, copy.target.place) || fail(EINVAL));
}

// A program that runs with the rights of its owner or its group does so as a copy only if
// they are the same.
bool keep_mode(const Copy &copy) {
    struct stat status;
    if (fstat(copy.target.file, &status) != 0) {
        return false;
    }
    const mode_t other_user = status.st_uid == copy.before.st_uid ? 0 : S_ISUID;
    const mode_t other_group = status.st_gid == copy.before.st_gid ? 0 : S_ISGID;
    return fchmod(copy.target.file, copy.before.st_mode & ~(other_user | other_group) & ALLPERMS) == 0;
}

// O_NONBLOCK: a FIFO without a writer would be waited for before its kind is known.
int open_source(const char *path) {
    return open(path == nullptr ? "" : path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
}

} // namespace

int platform_copy_checked(const char *from, const char *to, PlatformCopyProgress progress, void *user) {
    const zel::OpenFile source(zel::take_above_standard(open_source(from)));
    if (source.fd == -1) {
        return 0;
    }
    Copy copy = {.source = source.fd, .before = {}, .target = {}, .copied = 0, .progress = progress, .user = user};
    const bool copied = look_at_source(copy) && find_target(copy, to) && zel::create_beside(copy.target) &&
                        copy_content(copy) && keep_mode(copy) && zel::take_place(copy.target);
    return copied ? 1 : 0;
}
