// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Which memory can be read.
#include <malloc/internal/readable_memory.h>

#include <msg/base/errno_kept.h>

#include <array>
#include <cstdlib>
#include <fcntl.h>
#include <linux/futex.h>
#include <span>
#include <sys/syscall.h>

namespace zel::memory {

namespace {

// Reads the line of /proc/self/stat. The line is empty when the file cannot be read.
void read_status(std::span<char> line) {
    ssize_t length = 0;
    const int fd = open("/proc/self/stat", O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        length = read(fd, line.data(), line.size() - 1);
        close(fd);
    }
    line[length > 0 ? static_cast<size_t>(length) : 0] = '\0';
}

// The start of the heap: the 45th word after the program's name. The name stands in
// brackets and may hold brackets itself. Returns 0 when there is no such word.
uintptr_t heap_start_in(const char *line) {
    constexpr int kWord = 45;
    const char *rest = strrchr(line, ')');
    for (int word = 0; word < kWord && rest != nullptr; ++word) {
        rest = strchr(rest + 1, ' ');
    }
    return rest == nullptr ? 0 : strtoul(rest, nullptr, 10);
}

} // namespace

void find_heap_start() {
    const zel::ErrnoKept kept;
    std::array<char, 2048> line;
    read_status(line);
    const uintptr_t start = heap_start_in(line.data());
    const auto end = reinterpret_cast<uintptr_t>(sbrk(0));
    debug_heap.heap_start = start == 0 || start > end ? end : start;
}

// The futex operation wakes no thread and moves none. The kernel reads the word first,
// and fails with EFAULT when it cannot. It reads these four bytes alone: memory checkers
// accept every word that is mapped.
bool can_be_read(uintptr_t address) {
    const zel::ErrnoKept kept;
    return syscall(SYS_futex, address, FUTEX_CMP_REQUEUE_PRIVATE, 0, nullptr, address, 0) >= 0 || errno != EFAULT;
}

} // namespace zel::memory
