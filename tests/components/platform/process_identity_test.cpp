// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Process identity: real processes, and entries of /proc made up for the purpose.
#include <components/platform/process_identity.h>

#include <support/census.h>
#include <support/child.h>
#include <support/files.h>
#include <support/interpose.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace zel::test;

namespace {

// A child that has run the body and waits until its scope ends.
struct WaitingChild {
    explicit WaitingChild(const std::function<void()> &body = [] {}) {
        int ready[2];
        EXPECT_EQ(pipe(ready), 0);
        pid = fork();
        if (pid == 0) {
            close(ready[0]);
            body();
            close(ready[1]);
            for (;;) {
                pause();
            }
        }
        close(ready[1]);
        char byte = 0;
        EXPECT_EQ(read(ready[0], &byte, 1), 0);
        close(ready[0]);
    }
    ~WaitingChild() { reap(); }
    void reap() {
        if (pid > 0) {
            end();
            waitpid(pid, nullptr, 0);
            pid = -1;
        }
    }
    // Ends it, so that it waits for its parent.
    void end() const {
        kill(pid, SIGKILL);
        siginfo_t info;
        waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
    }
    WaitingChild(const WaitingChild &) = delete;
    WaitingChild &operator=(const WaitingChild &) = delete;
    pid_t pid;
};

PlatformProcess identify(pid_t pid) {
    PlatformProcess process = {};
    EXPECT_EQ(platform_process_identify(pid, &process), 1) << strerror(errno);
    return process;
}

// The error of a question about a process that fails; 0 for an answer.
int error_of(pid_t pid) {
    PlatformProcess process;
    memset(&process, '~', sizeof process);
    const PlatformProcess before = process;
    const int result = platform_process_identify(pid, &process);
    const int error = errno;
    EXPECT_EQ(memcmp(&process, &before, sizeof process) == 0, result == 0);
    return result == 0 ? error : 0;
}

// In its scope every entry that is read holds this text, which comes in pieces.
struct Entry {
    explicit Entry(std::string entry, size_t piece_size = 7)
        : text(std::move(entry)), reading(hook::read, [this, piece_size](int, void *buffer, size_t size) {
              const size_t length = std::min({text.size() - at, size, piece_size});
              memcpy(buffer, text.data() + at, length);
              at = length == 0 ? 0 : at + length;
              return static_cast<ssize_t>(length);
          }) {}
    std::string text;
    size_t at = 0;
    Interposed<ssize_t(int, void *, size_t)> reading;
};

std::string entry_with(const std::string &name, uint64_t start, uint64_t size, uint64_t pages) {
    std::string text = "7 (" + name + ") S";
    for (int field = 4; field <= 52; ++field) {
        text += ' ' + (field == 22   ? std::to_string(start)
                       : field == 23 ? std::to_string(size)
                       : field == 24 ? std::to_string(pages)
                                     : std::to_string(field == 4 ? 12 : -1));
    }
    return text + '\n';
}

// The field of /proc/PID/status of that name.
uint64_t status_field(pid_t pid, const std::string &name) {
    std::istringstream lines(read_file("/proc/" + std::to_string(pid) + "/status"));
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(name + ":")) {
            return std::stoull(line.substr(name.size() + 1));
        }
    }
    return 0;
}

} // namespace

// ---- What is told ---------------------------------------------------------------------------------------------------

TEST(ProcessIdentity, OfTheCallerIsItsOwn) {
    const PlatformProcess self = identify(0);
    EXPECT_EQ(self.pid, getpid());
    EXPECT_EQ(self.parent_pid, getppid());
    EXPECT_EQ(self.state, 'R');
    EXPECT_EQ(self.name + std::string("\n"), read_file("/proc/self/comm"));
    EXPECT_EQ(self.start_time, identify(getpid()).start_time);
    EXPECT_EQ(self.descriptors, static_cast<int32_t>(open_descriptors().size()));
}

TEST(ProcessIdentity, TellsTheSizesInBytes) {
    const WaitingChild child;
    const PlatformProcess process = identify(child.pid);
    EXPECT_EQ(process.virtual_size / 1024, status_field(child.pid, "VmSize"));
    const uint64_t resident = status_field(child.pid, "VmRSS") * 1024; // each counts in its own way
    EXPECT_LT(process.resident_size, resident * 2);
    EXPECT_GT(process.resident_size, resident / 2);
}

TEST(ProcessIdentity, OfAChildThatSleepsStopsAndEnds) {
    const WaitingChild child;
    EXPECT_EQ(identify(child.pid).parent_pid, getpid());
    kill(child.pid, SIGSTOP);
    siginfo_t info;
    waitid(P_PID, static_cast<id_t>(child.pid), &info, WSTOPPED | WNOWAIT);
    EXPECT_EQ(identify(child.pid).state, 'T');
    child.end();
    const PlatformProcess ended = identify(child.pid);
    EXPECT_EQ(ended.state, 'Z');
    EXPECT_EQ(ended.virtual_size, 0U);
}

TEST(ProcessIdentity, CountsTheDescriptorsOfAnother) {
    for (const int more : {0, 1, 400}) { // 400 do not fit into one reading of the folder
        const WaitingChild child([more] {
            for (int i = 0; i < more; ++i) {
                EXPECT_GE(open("/dev/null", O_RDONLY), 0);
            }
        });
        const std::filesystem::directory_iterator entries("/proc/" + std::to_string(child.pid) + "/fd");
        EXPECT_EQ(identify(child.pid).descriptors, std::distance(begin(entries), end(entries)));
        EXPECT_GT(identify(child.pid).descriptors, more);
    }
}

TEST(ProcessIdentity, ReadsEveryName) {
    for (const std::string name : {"plain", "", "a b c", ") S 1 2 3", "(((", ")))", "1) Z 9 9", "line\nfeed",
                                   "back\\slash", "\\n", "tab\there\\", "\xff\xfe"}) {
        const WaitingChild child([&name] { prctl(PR_SET_NAME, name.c_str()); });
        const PlatformProcess process = identify(child.pid);
        EXPECT_EQ(process.name, name);
        EXPECT_EQ(process.parent_pid, getpid()) << name;
        EXPECT_EQ(platform_process_is_same(&process), 1) << name;
    }
}

TEST(ProcessIdentity, HoldsNumbersOf64Bits) {
    const Entry entry(entry_with("name", UINT64_MAX, UINT64_MAX - 1, uint64_t{1} << 40));
    const PlatformProcess process = identify(0);
    EXPECT_EQ(process.start_time, UINT64_MAX);
    EXPECT_EQ(process.virtual_size, UINT64_MAX - 1);
    EXPECT_EQ(process.resident_size, (uint64_t{1} << 40) * static_cast<uint64_t>(sysconf(_SC_PAGESIZE)));
    EXPECT_EQ(process.parent_pid, 12);
    EXPECT_EQ(process.state, 'S');
}

TEST(ProcessIdentity, CutsANameThatIsTooLong) {
    const std::string longest(63, 'n');
    for (const size_t more : std::initializer_list<size_t>{0, 1, 1500}) {
        const Entry entry(entry_with(longest + std::string(more, 'n'), 1, 2, 3));
        EXPECT_EQ(identify(0).name, longest);
    }
}

TEST(ProcessIdentity, OfAnEntryThatIsNoneIsRefused) {
    for (const char *text :
         {"", "7", "7 (name", "7 name)", ")(", "7 (name)", "7 (name) ", "7 (name)S 1", "7 (name) S", "7 (name) S 1 2 3",
          "7 (name) S 1 2 3 4 x 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 22"}) {
        const Entry entry(text);
        EXPECT_EQ(error_of(0), EBADMSG) << text;
    }
    std::string without_blank = entry_with("name", 1, 2, 3);
    without_blank.erase(without_blank.find(')') + 1, 1);
    for (const std::string &text : {without_blank, std::string(100'000, '(')}) {
        const Entry entry(text);
        EXPECT_EQ(error_of(0), EBADMSG);
    }
}

// ---- The same process or another ------------------------------------------------------------------------------------

TEST(ProcessIdentity, IsTheSameWhileTheProcessLives) {
    WaitingChild child;
    const PlatformProcess process = identify(child.pid);
    EXPECT_EQ(platform_process_is_same(&process), 1);
    child.end();
    EXPECT_EQ(platform_process_is_same(&process), 0); // not reaped yet
    EXPECT_EQ(errno, ESRCH);
    child.reap();
    EXPECT_EQ(platform_process_is_same(&process), 0);
    EXPECT_EQ(errno, ESRCH);
}

TEST(ProcessIdentity, IsNotThatOfALaterProcessOfTheSameNumber) {
    PlatformProcess process = identify(0);
    EXPECT_EQ(platform_process_is_same(&process), 1);
    --process.start_time;
    EXPECT_EQ(platform_process_is_same(&process), 0);
    EXPECT_EQ(errno, ESRCH);
}

TEST(ProcessIdentity, OfARecordWithoutAProcessIsNobodys) {
    for (const int32_t pid : {0, -1, INT32_MIN}) {
        PlatformProcess process = identify(0);
        process.pid = pid;
        EXPECT_EQ(platform_process_is_same(&process), 0);
        EXPECT_EQ(errno, ESRCH);
    }
}

TEST(ProcessIdentity, IsUnknownWhenTheEntryCannotBeRead) {
    const PlatformProcess process = identify(0);
    const Interposed opening(hook::open, fail_always(hook::open, EMFILE, -1));
    EXPECT_EQ(platform_process_is_same(&process), 0);
    EXPECT_EQ(errno, EMFILE);
}

// ---- What fails -----------------------------------------------------------------------------------------------------

TEST(ProcessIdentity, OfAProcessThatIsNotThereIsRefused) {
    WaitingChild child;
    const pid_t gone = child.pid;
    child.reap();
    EXPECT_EQ(error_of(gone), ESRCH);
    EXPECT_EQ(error_of(INT32_MAX), ESRCH);
    EXPECT_EQ(error_of(-1), ESRCH);
    EXPECT_EQ(error_of(INT32_MIN), ESRCH);
}

TEST(ProcessIdentity, NoNumberBelowOneIsSignalled) {
    int signalled = 0;
    const Interposed sending(hook::kill, [&signalled](pid_t pid, int signal) {
        EXPECT_GT(pid, 0);
        EXPECT_EQ(signal, 0);
        ++signalled;
        return hook::kill.real(pid, 0);
    });
    for (const pid_t pid : {-1, INT32_MIN, 0, getpid()}) {
        error_of(pid);
    }
    EXPECT_EQ(signalled, 0);
    error_of(INT32_MAX);
    EXPECT_EQ(signalled, 1);
}

TEST(ProcessIdentity, TellsAHiddenProcessFromOneThatIsNotThere) {
    const Interposed hiding(hook::open, fail_always(hook::open, ENOENT, -1));
    EXPECT_EQ(error_of(0), ENOENT); // there, and not in /proc: there is no /proc
    const Interposed refusing(hook::kill, fail_always(hook::kill, EPERM, -1));
    EXPECT_EQ(error_of(0), EPERM);
    const Interposed missing(hook::kill, fail_always(hook::kill, ESRCH, -1));
    EXPECT_EQ(error_of(0), ESRCH);
}

TEST(ProcessIdentity, CountsNoDescriptorsWhereItMayNot) {
    const Outcome outcome = run_in_child([] {
        give_up_root();
        PlatformProcess first;
        const int result = platform_process_identify(1, &first);
        printf("%d %d", result, first.descriptors);
    });
    EXPECT_EQ(outcome.out, "1 -1");
}

TEST(ProcessIdentity, GoesOnAfterAnInterruption) {
    const Interposed reading(hook::read, [calls = 0](int fd, void *buffer, size_t size) mutable -> ssize_t {
        errno = EINTR;
        return calls++ % 2 == 0 ? -1 : hook::read.real(fd, buffer, std::min<size_t>(size, 11));
    });
    EXPECT_EQ(identify(0).parent_pid, getppid());
}

TEST(ProcessIdentity, LeavesNoDescriptorWhateverFails) {
    const auto before = open_descriptors();
    for (const int error : {EMFILE, EACCES, EPERM, ESRCH}) {
        for (int nth = 0; nth < 2; ++nth) { // the entry, then the folder of the descriptors
            const Interposed opening(hook::open, fail_nth(hook::open, nth, error, -1));
            PlatformProcess process = {};
            EXPECT_EQ(platform_process_identify(0, &process), nth);
            EXPECT_EQ(nth == 0 ? errno : process.descriptors, nth == 0 ? error : -1);
        }
        const Interposed reading(hook::read, fail_always(hook::read, error, -1));
        EXPECT_EQ(error_of(0), error);
    }
    for (const int nth : {0, 1}) {
        const Interposed listing(hook::getdents64, fail_nth(hook::getdents64, nth, EACCES, -1));
        EXPECT_EQ(identify(0).descriptors, -1);
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST(ProcessIdentity, NeedsNoMemory) {
    PlatformProcess process = {};
    int result = 0;
    {
        const Interposed exhausted(hook::malloc, fail_always(hook::malloc, ENOMEM, nullptr));
        result = platform_process_identify(0, &process) + platform_process_is_same(&process);
    }
    EXPECT_EQ(result, 2);
}
