// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Process information: compared with other sources of the same, and with entries made up for the purpose.
#include <components/platform/process_info.h>

#include <msg/msg.h>
#include <support/child.h>
#include <support/files.h>
#include <support/interpose.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <sstream>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using namespace zel::test;

namespace {

struct Memory {
    uint64_t virtual_kb = 1;
    uint64_t resident_kb = 1;
    int result = -1;
};

Memory memory_of(int32_t pid) {
    Memory memory;
    memory.result = platform_process_memory(pid, &memory.virtual_kb, &memory.resident_kb);
    return memory;
}

// The same from the statm entry.
Memory statm_of(const std::string &process) {
    const auto page_kb = static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) / 1024;
    std::istringstream entry(read_file("/proc/" + process + "/statm"));
    Memory memory;
    entry >> memory.virtual_kb >> memory.resident_kb;
    memory.virtual_kb *= page_kb;
    memory.resident_kb *= page_kb;
    return memory;
}

// A child that waits until its scope ends.
struct WaitingChild {
    WaitingChild() {
        int ready[2];
        EXPECT_EQ(pipe(ready), 0);
        pid = fork();
        if (pid == 0) {
            close(ready[0]);
            EXPECT_EQ(write(ready[1], "!", 1), 1);
            for (;;) {
                pause();
            }
        }
        close(ready[1]);
        char byte = 0;
        EXPECT_EQ(read(ready[0], &byte, 1), 1);
        close(ready[0]);
    }
    ~WaitingChild() {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    WaitingChild(const WaitingChild &) = delete;
    WaitingChild &operator=(const WaitingChild &) = delete;
    pid_t pid;
};

// In its scope every line that is read is this one. Counts the reads and keeps the size of the buffer.
struct StatLine {
    explicit StatLine(std::string text) : line(std::move(text)) {}

    std::string line;
    int reads = 0;
    int size = 0;
    Interposed<char *(char *, int, FILE *)> fgets{hook::fgets, [this](char *buffer, int room, FILE *) {
                                                      ++reads;
                                                      size = room;
                                                      snprintf(buffer, static_cast<size_t>(room), "%s", line.c_str());
                                                      return buffer;
                                                  }};
};

// An entry with these two values, 0 in all other fields.
std::string entry_with(unsigned long virtual_bytes, unsigned long resident_pages) {
    std::string line = "7 (prog) S";
    for (int field = 4; field <= 34; ++field) {
        line += " " + std::to_string(field == 23 ? virtual_bytes : field == 24 ? resident_pages : 0);
    }
    return line + "\n";
}

uint64_t virtual_kb_of(unsigned long bytes) {
    const StatLine line(entry_with(bytes, 0));
    return memory_of(-1).virtual_kb;
}

uint64_t resident_kb_of(unsigned long pages, long page_size) {
    const StatLine line(entry_with(0, pages));
    const Interposed page(
        hook::sysconf, [page_size](int name) { return name == _SC_PAGESIZE ? page_size : hook::sysconf.real(name); });
    return memory_of(-1).resident_kb;
}

// The paths of the files that were opened for reading, each with a blank before it.
std::string opened_by(const std::function<void()> &work) {
    std::string paths;
    const Interposed opening(hook::fopen, [&paths](const char *path, const char *mode) {
        paths += (mode[0] == 'r' ? " " : " not for reading: ") + std::string(path);
        return hook::fopen.real(path, mode);
    });
    work();
    return paths;
}

// The line from which a process's memory is read, in this form.
std::string opened_for(pid_t pid) {
    const std::string number = std::to_string(pid);
    return " /proc/" + number + " /proc/" + number + "/stat";
}

// Asks for the memory of a process, with reports on standard error, and prints the result and what the values became.
Outcome report_memory(int32_t pid) {
    return run_in_child([pid] {
        msg_add_stream(MSG_DIAG, stderr);
        uint64_t virtual_kb = 11;
        uint64_t resident_kb = 22;
        const int result = platform_process_memory(pid, &virtual_kb, &resident_kb);
        printf("%d %llu %llu", result, static_cast<unsigned long long>(virtual_kb),
               static_cast<unsigned long long>(resident_kb));
    });
}

constexpr int32_t kNoProcess = INT32_MAX; // above the largest number that Linux gives

} // namespace

TEST(PlatformGetpid, IsTheNumberOfTheProcessItself) {
    EXPECT_EQ(platform_getpid(), getpid());
    const Outcome outcome = run_in_child([] { printf("%d", platform_getpid() == getpid()); });
    EXPECT_EQ(outcome.out, "1");
}

TEST(ProcessExists, RunningProcessesExist) {
    const WaitingChild child;
    EXPECT_EQ(platform_process_exists(static_cast<unsigned long>(getpid())), 1);
    EXPECT_EQ(platform_process_exists(static_cast<unsigned long>(child.pid)), 1);
}

TEST(ProcessExists, NumbersWithoutAProcessDoNotExist) {
    EXPECT_EQ(platform_process_exists(0), 0);
    EXPECT_EQ(platform_process_exists(kNoProcess), 0);
    EXPECT_EQ(platform_process_exists(ULONG_MAX), 0);
}

TEST(ProcessExists, AnEndedProcessExistsUntilItWasWaitedFor) {
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(0);
    }
    siginfo_t info = {};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(platform_process_exists(static_cast<unsigned long>(pid)), 1);
    waitpid(pid, nullptr, 0);
    EXPECT_EQ(platform_process_exists(static_cast<unsigned long>(pid)), 0);
}

TEST(ProcessExists, OpensTheEntryWithTheNumberUnsigned) {
    EXPECT_EQ(opened_by([] { platform_process_exists(12); }), " /proc/12");
    EXPECT_EQ(opened_by([] { platform_process_exists(ULONG_MAX); }), " /proc/" + std::to_string(ULONG_MAX));
}

TEST(ProcessExists, AnEntryThatCannotBeOpenedIsNoProcessAndNoReport) {
    const Outcome outcome = run_in_child([] {
        msg_add_stream(MSG_DIAG, stderr);
        const Interposed refusing(hook::fopen, fail_always(hook::fopen, EACCES, nullptr));
        printf("%d", platform_process_exists(static_cast<unsigned long>(getpid())));
    });
    EXPECT_EQ(outcome.out, "0");
    EXPECT_EQ(outcome.err, "");
}

// The kernel keeps the resident counter in parts, so that two readings of it may differ by some pages.
TEST(ProcessMemory, OfTheCallerIsWhatStatmSays) {
    constexpr uint64_t kSlack = 1024;
    memory_of(-1);
    const Memory before = statm_of("self");
    const Memory memory = memory_of(-1);
    const Memory after = statm_of("self");
    EXPECT_EQ(memory.result, 1);
    EXPECT_GE(memory.virtual_kb, before.virtual_kb);
    EXPECT_LE(memory.virtual_kb, after.virtual_kb);
    EXPECT_GE(memory.resident_kb + kSlack, before.resident_kb);
    EXPECT_LE(memory.resident_kb, after.resident_kb + kSlack);
}

TEST(ProcessMemory, OfAnotherProcessIsWhatStatmSays) {
    const WaitingChild child;
    const Memory expected = statm_of(std::to_string(child.pid));
    const Memory memory = memory_of(child.pid);
    EXPECT_EQ(memory.result, 1);
    EXPECT_EQ(memory.virtual_kb, expected.virtual_kb);
    EXPECT_GT(memory.resident_kb, 0U);
    EXPECT_LE(memory.resident_kb, memory.virtual_kb);
}

TEST(ProcessMemory, TheEntryIsOpenedThenItsStatFile) {
    const WaitingChild child;
    EXPECT_EQ(opened_by([&child] { memory_of(child.pid); }), opened_for(child.pid));
}

TEST(ProcessMemory, AnyNegativeNumberIsTheCaller) {
    for (const int32_t pid : {-1, -2, INT32_MIN}) {
        EXPECT_EQ(opened_by([pid] { memory_of(pid); }), opened_for(getpid())) << pid;
    }
}

TEST(ProcessMemory, AProcessThatDoesNotExistIsReported) {
    for (const int32_t pid : {0, kNoProcess}) {
        const Outcome outcome = report_memory(pid);
        EXPECT_EQ(outcome.err, "Can't open pinfo file: No such file or directory\n");
        EXPECT_EQ(outcome.out, "0 11 22");
    }
}

TEST(ProcessMemory, AStatFileThatCannotBeOpenedIsReported) {
    const Interposed refusing(hook::fopen, [](const char *path, const char *mode) -> FILE * {
        if (!std::string(path).ends_with("/stat")) {
            return hook::fopen.real(path, mode);
        }
        errno = EACCES;
        return nullptr;
    });
    const Outcome outcome = report_memory(-1);
    EXPECT_EQ(outcome.err, "Can't open pinfo stat file: Permission denied\n");
    EXPECT_EQ(outcome.out, "0 11 22");
}

TEST(ProcessMemory, AStatFileThatCannotBeReadIsReported) {
    const Interposed failing(hook::fgets, fail_always(hook::fgets, EIO, nullptr));
    const Outcome outcome = report_memory(-1);
    EXPECT_EQ(outcome.err, "Can't read pinfo stat file: Input/output error\n");
    EXPECT_EQ(outcome.out, "0 11 22");
}

// The listener of the test program looks at the descriptors afterwards.
TEST(ProcessMemory, AStatFileThatCannotBeReadIsClosed) {
    const Interposed failing(hook::fgets, fail_always(hook::fgets, EIO, nullptr));
    EXPECT_EQ(memory_of(-1).result, 0);
}

TEST(ProcessMemory, EitherResultMayBeNull) {
    const StatLine line(entry_with(10240, 3));
    uint64_t value = 1;
    EXPECT_EQ(platform_process_memory(-1, &value, nullptr), 1);
    EXPECT_EQ(value, 10U);
    const Interposed page(hook::sysconf, [](int) { return 4096L; });
    EXPECT_EQ(platform_process_memory(-1, nullptr, &value), 1);
    EXPECT_EQ(value, 12U);
}

TEST(ProcessMemory, WithBothResultsNullTheEntryIsStillRead) {
    const StatLine line(entry_with(0, 0));
    EXPECT_EQ(platform_process_memory(-1, nullptr, nullptr), 1);
    EXPECT_EQ(line.reads, 1);
    const Outcome missing = run_in_child([] {
        msg_add_stream(MSG_DIAG, stderr);
        printf("%d", platform_process_memory(kNoProcess, nullptr, nullptr));
    });
    EXPECT_EQ(missing.out, "0");
    EXPECT_EQ(missing.err, "Can't open pinfo file: No such file or directory\n");
}

TEST(ProcessMemory, TheLineIsReadIntoABufferOf1024) {
    const StatLine line(entry_with(0, 0));
    memory_of(-1);
    EXPECT_EQ(line.size, 1024);
}

// Every field has a value of its own.
TEST(ProcessMemory, TheFieldsAreThe23rdAndThe24th) {
    std::string text = "1048576 (prog) S";
    for (unsigned field = 4; field <= 34; ++field) {
        text += " " + std::to_string(field * 1048576UL);
    }
    const StatLine line(text + "\n");
    const Interposed page(hook::sysconf, [](int) { return 1024L; });
    const Memory memory = memory_of(-1);
    EXPECT_EQ(memory.virtual_kb, 23U * 1024);
    EXPECT_EQ(memory.resident_kb, 24U * 1048576);
}

TEST(ProcessMemory, NegativeNumbersAheadOfTheFieldsDoNotShiftThem) {
    const StatLine line("7 (prog) S 1 7 7 -1 -1 4194304 0 0 0 0 0 0 -3 -4 20 -19 1 0 99 2048 5 4294967295 1 1\n");
    const Interposed page(hook::sysconf, [](int) { return 4096L; });
    const Memory memory = memory_of(-1);
    EXPECT_EQ(memory.virtual_kb, 2U);
    EXPECT_EQ(memory.resident_kb, 20U);
}

TEST(ProcessMemory, TheVirtualSizeIsRoundedUpToWholeKibibytes) {
    const std::vector<std::pair<unsigned long, uint64_t>> cases = {
        {0, 0}, {1, 1}, {1023, 1}, {1024, 1}, {1025, 2}, {2048, 2}, {2049, 3}, {4294966272UL, 4194303}};
    for (const auto &[bytes, kibibytes] : cases) {
        EXPECT_EQ(virtual_kb_of(bytes), kibibytes) << bytes;
    }
    // In the width of the field: 32 bits on x86, where the last kibibyte wraps.
    const bool wraps = sizeof(unsigned long) == 4;
    EXPECT_EQ(virtual_kb_of(4294966273UL), wraps ? 0U : 4194304U);
    EXPECT_EQ(virtual_kb_of(4294967295UL), wraps ? 0U : 4194304U);
}

// A process of 64 bits may be asked about by one of 32.
TEST(ProcessMemory, AVirtualSizeBeyondTheFieldIsZero) {
    std::string entry = entry_with(1, 3);
    const std::string terabyte = " 1099511627776 ";
    entry.replace(entry.find(" 1 "), 3, terabyte);
    const StatLine line(entry);
    const Interposed page(hook::sysconf, [](int) { return 4096L; });
    const Memory memory = memory_of(-1);
    EXPECT_EQ(memory.result, 1);
    EXPECT_EQ(memory.virtual_kb, sizeof(unsigned long) == 4 ? 0U : 1073741824U);
    EXPECT_EQ(memory.resident_kb, 12U) << "the field behind it stands";
}

TEST(ProcessMemory, TheResidentSizeFollowsThePageSize) {
    EXPECT_EQ(resident_kb_of(0, 4096), 0U);
    EXPECT_EQ(resident_kb_of(25, 4096), 100U);
    EXPECT_EQ(resident_kb_of(25, 16384), 400U);
    EXPECT_EQ(resident_kb_of(25, 1024), 25U);
    EXPECT_EQ(resident_kb_of(3, 512), 1U) << "one and a half";
    EXPECT_EQ(resident_kb_of(4294967295UL, 4096), 17179869180U) << "more than 32 bits";
}

TEST(ProcessMemory, APageSizeOfOneCountsAsOneKibibyte) {
    EXPECT_EQ(resident_kb_of(4096, 1), 4096U);
    EXPECT_EQ(resident_kb_of(4096, 2), 8U) << "no other size is special";
}

TEST(ProcessMemory, ACommandWithABlankShiftsTheFields) {
    const Outcome outcome = run_in_child([] {
        msg_add_stream(MSG_DIAG, stderr);
        prctl(PR_SET_NAME, "a b");
        const Memory memory = memory_of(-1);
        printf("%d %d %d", memory.result, memory.virtual_kb == 0, memory.resident_kb == 0);
    });
    EXPECT_EQ(outcome.out, "1 1 1");
    EXPECT_EQ(outcome.err, "");
}

TEST(ProcessMemory, ALineThatIsNoEntryIsNotReported) {
    const StatLine line("nothing of the kind\n");
    const Outcome outcome = report_memory(-1);
    EXPECT_EQ(outcome.out, "1 0 0");
    EXPECT_EQ(outcome.err, "");
}
