// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The identity of a process, from the /proc file system.
#include <components/platform/process_identity.h>

#include <components/platform/base/open_file.h>
#include <msg/base/text.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

static_assert(sizeof(PlatformProcess) == 104);

namespace {

using ProcPath = std::array<char, sizeof "/proc/2147483647/stat">;
// The name, at most 64 bytes, and some fifty numbers.
using StatText = std::array<char, 2048>;

// The numbers of the entry that stand behind the state, in their order.
constexpr size_t kParent = 0;
constexpr size_t kStartTime = 18;
constexpr size_t kVirtualSize = 19;
constexpr size_t kResidentPages = 20;
using Numbers = std::array<uint64_t, kResidentPages + 1>;

bool fail(int error) {
    errno = error;
    return false;
}

int open_entry(int32_t pid, const char *entry, int flags) {
    ProcPath path;
    zel::format_text(path, "/proc/%d/%s", pid, entry);
    return open(path.data(), flags | O_RDONLY | O_CLOEXEC);
}

// ---- Reading ----------------------------------------------------------------------------------------------------

ssize_t read_on(int fd, std::span<char> room) {
    ssize_t count;
    do {
        count = read(fd, room.data(), room.size());
    } while (count == -1 && errno == EINTR);
    return count;
}

// Reads up to the end, or what fits. Returns the length, or -1 with errno.
ssize_t read_whole(int fd, std::span<char> room) {
    size_t length = 0;
    ssize_t count = 1;
    while (count > 0 && length < room.size()) {
        count = read_on(fd, room.subspan(length));
        length += count > 0 ? static_cast<size_t>(count) : 0;
    }
    return count < 0 ? -1 : static_cast<ssize_t>(length);
}

// Signal 0 sends nothing. A process that is hidden from the caller answers it with EPERM.
// One that takes it is missing because there is no /proc.
bool fail_for_missing(int32_t pid) {
    return kill(pid, 0) == 0 && fail(ENOENT);
}

// Reads the entry of the process, with a NUL behind it.
bool read_stat(int32_t pid, StatText &text) {
    const zel::OpenFile file(open_entry(pid, "stat", 0));
    if (file.fd == -1) {
        return errno == ENOENT && fail_for_missing(pid);
    }
    const ssize_t length = read_whole(file.fd, std::span(text).first(text.size() - 1));
    if (length == -1) {
        return false;
    }
    text[static_cast<size_t>(length)] = '\0';
    return true;
}

// ---- Taking apart -----------------------------------------------------------------------------------------------

bool parse_numbers(const char *text, Numbers &numbers) {
    for (uint64_t &number : numbers) {
        char *end = nullptr;
        number = strtoull(text, &end, 10);
        if (end == text) {
            return false;
        }
        text = end;
    }
    return true;
}

// The name stands in brackets and may hold brackets and blanks itself. Behind it there
// are no brackets. The NUL of the name is there already.
bool parse_stat(const char *text, PlatformProcess &process) {
    const char *begin = strchr(text, '(');
    const char *end = strrchr(text, ')');
    Numbers numbers;
    if (begin == nullptr || end == nullptr || end < begin || end[1] != ' ' || end[2] == '\0' ||
        !parse_numbers(end + 3, numbers)) {
        return fail(EBADMSG);
    }
    zel::copy_part(std::span(process.name).first(sizeof process.name - 1), {begin + 1, end});
    process.state = end[2];
    process.parent_pid = static_cast<int32_t>(numbers[kParent]);
    process.start_time = numbers[kStartTime];
    process.virtual_size = numbers[kVirtualSize];
    process.resident_size = numbers[kResidentPages] * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    return true;
}

// kill takes a negative number for a group of processes.
bool look_at(int32_t pid, PlatformProcess &process) {
    StatText text;
    process.pid = pid;
    return pid > 0 ? read_stat(pid, text) && parse_stat(text.data(), process) : fail(ESRCH);
}

bool has_ended(const PlatformProcess &process) {
    return process.state == 'Z' || process.state == 'X' || process.state == 'x';
}

// ---- Descriptors ------------------------------------------------------------------------------------------------

// Entries of a directory as the kernel writes them, one behind the other.
struct Entries {
    alignas(dirent) std::array<char, 4096> bytes;
};

// "." and ".." are no descriptors.
int32_t count_entries(const Entries &entries, size_t length) {
    int32_t count = 0;
    for (size_t at = 0; at < length;) {
        const auto *entry = reinterpret_cast<const dirent *>(entries.bytes.data() + at);
        count += entry->d_name[0] == '.' ? 0 : 1;
        at += entry->d_reclen;
    }
    return count;
}

// The descriptor by which those of the caller are counted is not one of them.
int32_t count_descriptors(int32_t pid) {
    const zel::OpenFile folder(open_entry(pid, "fd", O_DIRECTORY));
    Entries entries;
    int32_t count = pid == getpid() ? -1 : 0;
    ssize_t length = 0;
    do {
        length = folder.fd == -1 ? -1 : getdents64(folder.fd, entries.bytes.data(), entries.bytes.size());
        count += length > 0 ? count_entries(entries, static_cast<size_t>(length)) : 0;
    } while (length > 0);
    return length == 0 ? count : -1;
}

} // namespace

int platform_process_identify(int32_t pid, PlatformProcess *process) {
    PlatformProcess found = {};
    if (!look_at(pid == 0 ? getpid() : pid, found)) {
        return 0;
    }
    found.descriptors = count_descriptors(found.pid);
    *process = found;
    return 1;
}

int platform_process_is_same(const PlatformProcess *process) {
    PlatformProcess now = {};
    if (!look_at(process->pid, now)) {
        return 0;
    }
    return (now.start_time == process->start_time && !has_ended(now)) || fail(ESRCH) ? 1 : 0;
}
