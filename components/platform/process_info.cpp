// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Process information from the /proc file system.
#include <components/platform/process_info.h>

#include <components/platform/environment.h>
#include <msg/base/errno_kept.h>
#include <msg/base/text.h>

#include <array>
#include <unistd.h>

namespace {

using ProcPath = std::array<char, 64>;
using StatLine = std::array<char, 1024>;

constexpr unsigned kKibibyteShift = 10;
constexpr unsigned long kKibibyteRest = 1023;

bool can_open(const char *path) {
    FILE *file = fopen(path, "re");
    if (file == nullptr) {
        return false;
    }
    fclose(file);
    return true;
}

void close_keeping_errno(FILE *file) {
    const zel::ErrnoKept kept;
    fclose(file);
}

// DELIBERATE: the texts of the three reports are fixed, "pinfo" included. Tests:
// ProcessMemory.AProcessThatDoesNotExistIsReported,
// ProcessMemory.AStatFileThatCannotBeOpenedIsReported,
// ProcessMemory.AStatFileThatCannotBeReadIsReported.
bool read_stat_line(int32_t pid, StatLine &line) {
    ProcPath path;
    zel::format_text(path, "/proc/%d", pid);
    if (!can_open(path.data())) {
        platform_perror("Can't open pinfo file");
        return false;
    }
    zel::format_text(path, "/proc/%d/stat", pid);
    FILE *file = fopen(path.data(), "re");
    if (file == nullptr) {
        platform_perror("Can't open pinfo stat file");
        return false;
    }
    const bool read = fgets(line.data(), static_cast<int>(line.size()), file) != nullptr;
    close_keeping_errno(file);
    if (!read) {
        platform_perror("Can't read pinfo stat file");
    }
    return read;
}

struct MemoryFields {
    unsigned long virtual_bytes;
    unsigned long resident_pages;
};

// DELIBERATE: a blank in the command shifts the fields after it: the command is read as
// one word. Test: ProcessMemory.ACommandWithABlankShiftsTheFields.
MemoryFields parse_stat_line(const char *line) {
    MemoryFields fields = {};
    // The number, the command, the state; 19 numbers up to the start time; the virtual
    // size; the resident pages.
    sscanf(line, "%*d %*s %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*d %*d %*d %*d %*d %*d %*u %*u %*d %lu %lu",
           &fields.virtual_bytes, &fields.resident_pages);
    return fields;
}

// DELIBERATE: the sum is in the width of the field, and on 32-bit x86 it wraps in the
// last kibibyte. Test: ProcessMemory.TheVirtualSizeIsRoundedUpToWholeKibibytes.
uint64_t virtual_kibibytes(unsigned long bytes) {
    return (bytes + kKibibyteRest) >> kKibibyteShift;
}

// DELIBERATE: a page size of 1 counts as one kibibyte. Test:
// ProcessMemory.APageSizeOfOneCountsAsOneKibibyte.
uint64_t resident_kibibytes(unsigned long pages) {
    constexpr long double kKibibyte = 1024.0L;
    const long page_size = sysconf(_SC_PAGESIZE);
    const long double factor = page_size == 1 ? 1.0L : static_cast<long double>(page_size) / kKibibyte;
    return static_cast<uint64_t>(static_cast<long double>(pages) * factor);
}

} // namespace

int32_t platform_getpid() {
    return getpid();
}

int platform_process_exists(unsigned long pid) {
    ProcPath path;
    zel::format_text(path, "/proc/%lu", pid);
    return can_open(path.data()) ? 1 : 0;
}

int platform_process_memory(int32_t pid, uint64_t *virtual_kb, uint64_t *resident_kb) {
    StatLine line;
    if (!read_stat_line(pid < 0 ? platform_getpid() : pid, line)) {
        return 0;
    }
    const MemoryFields fields = parse_stat_line(line.data());
    if (virtual_kb != nullptr) {
        *virtual_kb = virtual_kibibytes(fields.virtual_bytes);
    }
    if (resident_kb != nullptr) {
        *resident_kb = resident_kibibytes(fields.resident_pages);
    }
    return 1;
}
