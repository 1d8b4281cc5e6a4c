// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// File stamps: whether a file has changed.
#include <components/platform/file_control.h>

#include <sys/stat.h>

namespace {

// The check word of an empty file. The stamp that is not valid has the check word 0.
constexpr uint32_t kCheckPattern = 0x404040;
constexpr unsigned kHighWordShift = 32;
static_assert(sizeof(FileStamp) == 11 * sizeof(uint32_t));

constexpr FileStamp kNullStamp = {}; // not valid: its check word does not match its size

// Numbers of 64 bits are compared by their low 32 bits alone, except the size.
constexpr uint32_t low_word(uint64_t value) {
    return static_cast<uint32_t>(value);
}

// DELIBERATE: the first word is the group and not the owner. Test:
// FileStamp.TheFirstWordIsTheGroupAndNotTheOwner.
FileStamp stamp_of(const struct stat &status) {
    const auto size = static_cast<uint64_t>(status.st_size);
    return {.group = status.st_gid,
            .change_time = low_word(static_cast<uint64_t>(status.st_ctime)),
            .modify_time = low_word(static_cast<uint64_t>(status.st_mtime)),
            .access_time = low_word(static_cast<uint64_t>(status.st_atime)),
            .device = low_word(status.st_dev),
            .inode = low_word(status.st_ino),
            .mode = status.st_mode,
            .size_low = low_word(size),
            .size_high = low_word(size >> kHighWordShift),
            .check = low_word(size) ^ kCheckPattern,
            .zero = 0};
}

// The parts of the flags of a mode test. Bits beyond them do not count.
constexpr uint32_t kKindMask = 3;
constexpr uint32_t kPermissionMask = 0x700;
static_assert(PLATFORM_MODE_ANY == 0 && PLATFORM_MODE_REGULAR == 1 && PLATFORM_MODE_DIR == 2 &&
              PLATFORM_MODE_SOCKET == kKindMask);
static_assert(PLATFORM_MODE_READ == 0x100 && PLATFORM_MODE_WRITE == 0x200 && PLATFORM_MODE_EXECUTE == 0x400);

// Tells whether a mode is of a kind of PlatformMode.
bool is_of_kind(uint32_t mode, uint32_t kind) {
    switch (kind) {
    case PLATFORM_MODE_REGULAR:
        return S_ISREG(mode);
    case PLATFORM_MODE_DIR:
        return S_ISDIR(mode);
    case PLATFORM_MODE_SOCKET:
        return S_ISSOCK(mode);
    default:
        return true;
    }
}

// The owner's permissions as flags of PlatformMode.
uint32_t owner_permissions(uint32_t mode) {
    const uint32_t read = (mode & S_IRUSR) != 0 ? PLATFORM_MODE_READ : 0;
    const uint32_t write = (mode & S_IWUSR) != 0 ? PLATFORM_MODE_WRITE : 0;
    const uint32_t execute = (mode & S_IXUSR) != 0 ? PLATFORM_MODE_EXECUTE : 0;
    return read | write | execute;
}

} // namespace

FileStamp platform_file_stamp(const char *path) {
    struct stat status;
    return path != nullptr && stat(path, &status) == 0 ? stamp_of(status) : kNullStamp;
}

FileStamp platform_fd_stamp(int fd) {
    struct stat status;
    return fstat(fd, &status) == 0 ? stamp_of(status) : kNullStamp;
}

FileStamp platform_stream_stamp(FILE *stream) {
    return stream == nullptr ? kNullStamp : platform_fd_stamp(fileno(stream));
}

int platform_stamp_valid(FileStamp stamp) {
    return stamp.zero == 0 && stamp.check == (stamp.size_low ^ kCheckPattern) ? 1 : 0;
}

// The access time and the check words are left out: reading a file is no change.
int platform_stamps_differ(FileStamp a, FileStamp b) {
    const bool same = a.group == b.group && a.change_time == b.change_time && a.modify_time == b.modify_time &&
                      a.device == b.device && a.inode == b.inode && a.mode == b.mode && a.size_high == b.size_high &&
                      a.size_low == b.size_low;
    return same ? 0 : 1;
}

int platform_file_changed(const char *path, FileStamp stamp) {
    return platform_stamps_differ(platform_file_stamp(path), stamp);
}

int platform_fd_changed(int fd, FileStamp stamp) {
    return platform_stamps_differ(platform_fd_stamp(fd), stamp);
}

int platform_stream_changed(FILE *stream, FileStamp stamp) {
    return platform_stamps_differ(platform_stream_stamp(stream), stamp);
}

int platform_mode_test(FileStamp stamp, uint32_t flags) {
    const uint32_t wanted = flags & kPermissionMask;
    return is_of_kind(stamp.mode, flags & kKindMask) && (owner_permissions(stamp.mode) & wanted) == wanted ? 1 : 0;
}
