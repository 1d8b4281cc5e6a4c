// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The options of a start: standard descriptors, directory, environment, mode, other descriptors.
#include "spawn_support.h"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace zel::test;

namespace {

PlatformPairSpawnOptions with_flags(uint32_t flags) {
    PlatformPairSpawnOptions options = usual();
    options.flags = flags;
    return options;
}

Report report_with(const PlatformPairSpawnOptions &options) {
    PairHandle *ph = spawn_companion("pair_reporter", &options);
    const Report report = read_report(ph);
    EXPECT_EQ(finish(ph), kServed);
    return report;
}

// The lines of the environment that a companion finds, for names that begin so.
std::string environment_of(const char *const *entries, const std::string &prefix) {
    PlatformPairSpawnOptions options = usual();
    options.environment = entries;
    return said_by_shell("env | grep '^" + prefix + "' | sort; :", options);
}

// A descriptor that programs inherit.
struct Inherited {
    Inherited() : fd(open("/dev/zero", O_RDONLY)) {}
    ~Inherited() { close(fd); }
    Inherited(const Inherited &) = delete;
    Inherited &operator=(const Inherited &) = delete;
    int fd;
};

std::string numbers_of(const Report &report) {
    std::string numbers;
    for (const auto &[fd, file] : report.descriptors) {
        numbers += (fd == report.end ? "end" : std::to_string(fd)) + " ";
    }
    return numbers;
}

} // namespace

TEST(PairSpawnOptions, ARecordOfZerosButForItsSizeAsksForTheUsual) {
    const PlatformPairSpawnOptions options = usual();
    PairHandle *ph = spawn_companion("pair_echo", &options);
    EXPECT_TRUE(echoes(ph, 5));
    EXPECT_EQ(finish(ph), kServed);
}

TEST(PairSpawnOptions, ARecordOfAnotherSizeIsRefused) {
    for (const size_t size : {size_t{0}, sizeof(size_t), sizeof(PlatformPairSpawnOptions) - 1,
                              sizeof(PlatformPairSpawnOptions) + 1, SIZE_MAX}) {
        PlatformPairSpawnOptions options = usual();
        options.size = size;
        expect_failed_start(spawn_companion("pair_echo", &options), EINVAL);
    }
}

TEST(PairSpawnOptions, OfARecordOfAnotherSizeNothingElseIsRead) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void *pages = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    mprotect(static_cast<char *>(pages) + page, page, PROT_NONE);
    auto *size = reinterpret_cast<size_t *>(static_cast<char *>(pages) + page) - 1;
    *size = sizeof *size;
    const auto *options = reinterpret_cast<const PlatformPairSpawnOptions *>(size);
    expect_failed_start(spawn_companion("pair_echo", options), EINVAL);
    munmap(pages, 2 * page);
}

TEST(PairSpawnOptions, AnUnknownFlagIsRefused) {
    for (const uint32_t flags : {16u, 0x80000000u, 17u}) {
        const PlatformPairSpawnOptions options = with_flags(flags);
        expect_failed_start(spawn_companion("pair_echo", &options), EINVAL);
    }
}

TEST(PairSpawnOptions, AnEntryWithoutAnEqualsSignIsRefused) {
    const char *const entries[] = {"ZEL_A=1", "ZEL_B", nullptr};
    PlatformPairSpawnOptions options = usual();
    options.environment = entries;
    expect_failed_start(spawn_companion("pair_echo", &options), EINVAL);
}

// ---- Standard descriptors -------------------------------------------------------------------------------------------

TEST(PairSpawnOptions, TheStandardDescriptorsAreThoseGiven) {
    const ScratchFolder folder;
    const int file = open((folder.path + "/file").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    const int zero = open("/dev/zero", O_RDONLY | O_CLOEXEC);
    const int fds[] = {zero, file, file};
    PlatformPairSpawnOptions options = usual();
    options.stdio_fds = fds;
    Report report = report_with(options);
    EXPECT_EQ(report.descriptors[0], "r /dev/zero");
    EXPECT_EQ(report.descriptors[1], "rw " + folder.path + "/file");
    EXPECT_EQ(report.descriptors[2], "rw " + folder.path + "/file");
    close(file);
    close(zero);
}

TEST(PairSpawnOptions, TheStandardDescriptorsMayChangePlaces) {
    const int fds[] = {1, 0, -1};
    PlatformPairSpawnOptions options = usual();
    options.stdio_fds = fds;
    Report report = report_with(options);
    EXPECT_TRUE(report.descriptors[0].ends_with(target_of(1))) << report.descriptors[0];
    EXPECT_TRUE(report.descriptors[1].ends_with(target_of(0))) << report.descriptors[1];
    EXPECT_TRUE(report.descriptors[2].ends_with(target_of(2))) << report.descriptors[2];
}

// ---- Directory ------------------------------------------------------------------------------------------------------

TEST(PairSpawnOptions, TheCompanionWorksInTheDirectory) {
    PlatformPairSpawnOptions options = usual();
    options.directory = "/usr";
    char before[4096];
    char after[4096];
    getcwd(before, sizeof before);
    EXPECT_EQ(said_by_shell("pwd", options), "/usr\n");
    EXPECT_STREQ(getcwd(after, sizeof after), before) << "the parent stays where it is";
}

TEST(PairSpawnOptions, ARelativePathStartsFromTheDirectory) {
    PlatformPairSpawnOptions options = usual();
    const std::string path = companion_path("pair_echo");
    const std::string folder = path.substr(0, path.rfind('/'));
    options.directory = folder.c_str();
    PairHandle *ph = spawn("./pair_echo", {"pair_echo"}, &options);
    EXPECT_TRUE(echoes(ph, 9));
    EXPECT_EQ(finish(ph), kServed);
}

TEST(PairSpawnOptions, ADirectoryThatIsNotThereIsAFailedStart) {
    PlatformPairSpawnOptions options = usual();
    options.directory = "/nowhere";
    expect_failed_start(spawn_companion("pair_echo", &options), ENOENT);
    options.directory = "/dev/null";
    expect_failed_start(spawn_companion("pair_echo", &options), ENOTDIR);
}

// ---- Environment ----------------------------------------------------------------------------------------------------

TEST(PairSpawnOptions, FurtherEntriesStandBesideTheParents) {
    const ScopedVariable kept("ZEL_X_KEPT", "parent");
    const char *const entries[] = {"ZEL_X_NEW=a b=c", "ZEL_X_EMPTY=", nullptr};
    EXPECT_EQ(environment_of(entries, "ZEL_X"), "ZEL_X_EMPTY=\nZEL_X_KEPT=parent\nZEL_X_NEW=a b=c\n");
    EXPECT_EQ(getenv("ZEL_X_NEW"), nullptr) << "the parent's environment stays";
}

TEST(PairSpawnOptions, AnEntryReplacesTheParentsAndTheLastWins) {
    const ScopedVariable replaced("ZEL_X_ONE", "parent");
    const ScopedVariable longer("ZEL_X_ONE_MORE", "stays");
    const char *const entries[] = {"ZEL_X_ONE=first", "ZEL_X_TWO=2", "ZEL_X_ONE=last", nullptr};
    EXPECT_EQ(environment_of(entries, "ZEL_X"), "ZEL_X_ONE=last\nZEL_X_ONE_MORE=stays\nZEL_X_TWO=2\n");
    EXPECT_STREQ(getenv("ZEL_X_ONE"), "parent");
}

TEST(PairSpawnOptions, ThePairsOwnVariableWinsOverAll) {
    const ScopedVariable parents(kPairVariable, "4711 7 pid-rtx_fd_l");
    const std::string name = kPairVariable;
    const std::string entry = name + "=1 2 pid-rtx_fd_l";
    const char *const entries[] = {entry.c_str(), nullptr};
    const std::string found = environment_of(entries, name);
    EXPECT_TRUE(found.starts_with(name + "=" + std::to_string(getpid()) + " ")) << found;
    EXPECT_EQ(std::count(found.begin(), found.end(), '\n'), 1) << found;
    EXPECT_STREQ(getenv(kPairVariable), "4711 7 pid-rtx_fd_l") << "the parent's own stays";
}

TEST(PairSpawnOptions, TheHybridVariableIsLeftOut) {
    const std::string name = std::string(kPairVariable) + "_HYBRID";
    const ScopedVariable parents(name, "1");
    const ScopedVariable longer(name + "S", "stays");
    const std::string entry = name + "=1";
    const char *const entries[] = {entry.c_str(), nullptr};
    EXPECT_EQ(environment_of(entries, name), name + "S=stays\n");
    EXPECT_EQ(environment_of(nullptr, name), name + "S=stays\n");
}

TEST(PairSpawnOptions, AParentWithoutAnEnvironmentStartsCompanions) {
    const Outcome outcome = run_in_child([] {
        clearenv();
        PairHandle *ph = spawn_companion("pair_echo");
        printf("%d", echoes(ph, 3) ? finish(ph) : -1);
    });
    EXPECT_EQ(outcome.out, "0");
}

// ---- Flags ----------------------------------------------------------------------------------------------------------

TEST(PairSpawnOptions, BothEndsBlockUnlessAskedOtherwise) {
    PlatformPairSpawnOptions options = usual();
    for (const bool blocking : {true, false}) {
        options.flags = blocking ? 0 : PLATFORM_PAIR_SPAWN_NON_BLOCKING;
        PairHandle *ph = spawn_companion("pair_reporter", &options);
        EXPECT_EQ(is_nonblocking(ph->rx_fd), !blocking);
        EXPECT_EQ(ph->blocking, blocking ? 1 : 0);
        hook::fcntl.real(ph->rx_fd, F_SETFL, 0);
        Report report = read_report(ph);
        EXPECT_TRUE(report.descriptors[report.end].starts_with(blocking ? "rw " : "rwn ")) << blocking;
        EXPECT_EQ(finish(ph), kServed);
    }
}

TEST(PairSpawnOptions, AnInheritedDescriptorReachesTheCompanion) {
    const Inherited inherited;
    EXPECT_EQ(report_with(usual()).descriptors[inherited.fd], "r /dev/zero");
}

TEST(PairSpawnOptions, AllOtherDescriptorsAreClosedWhereAsked) {
    const Inherited before;
    PlatformPairSpawnOptions options = with_flags(PLATFORM_PAIR_SPAWN_CLOSE_OTHERS);
    const int high = hook::fcntl.real(before.fd, F_DUPFD, 500);
    const std::string numbers = numbers_of(report_with(options));
    EXPECT_EQ(numbers, "0 1 2 end ");
    close(high);
}

TEST(PairSpawnOptions, AnOlderKernelClosesTheOthersOneByOne) {
    const Outcome outcome = run_in_child([] {
        forget_system_calls({SYS_close_range});
        const Inherited before;
        std::vector<int> many;
        for (int number = 0; number < 200; ++number) {
            many.push_back(hook::fcntl.real(before.fd, F_DUPFD, 100));
        }
        printf("%s", numbers_of(report_with(with_flags(PLATFORM_PAIR_SPAWN_CLOSE_OTHERS))).c_str());
    });
    EXPECT_EQ(outcome.out, "0 1 2 end ");
}

TEST(PairSpawnOptions, DescriptorsThatCannotBeClosedAreAFailedStart) {
    const Outcome outcome = run_in_child([] {
        forget_system_calls({SYS_close_range});
        const Interposed failing(hook::open, [](const char *path, int flags, mode_t mode) {
            errno = EMFILE;
            return std::string(path) == "/proc/self/fd" ? -1 : hook::open.real(path, flags, mode);
        });
        const PlatformPairSpawnOptions options = with_flags(PLATFORM_PAIR_SPAWN_CLOSE_OTHERS);
        PairHandle *ph = spawn_companion("pair_echo", &options);
        printf("%d %s", ph->error_number == EMFILE ? 1 : 0, ph->error_text);
    });
    EXPECT_EQ(outcome.out, "1 execvp failed");
}
