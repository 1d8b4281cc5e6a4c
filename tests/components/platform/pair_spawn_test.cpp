// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Starting a companion in shared memory: the usual start, and where the program is looked for.
#include "spawn_support.h"

#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace zel::test;

namespace {

// A shell script that says its arguments, with or without the line that names its shell.
void write_script(const std::string &path, const std::string &first_line) {
    write_file(path, first_line + "echo \"$0\" \"$@\"\n");
    chmod(path.c_str(), 0755);
}

} // namespace

TEST(PairSpawn, ACompanionIsStartedAndServes) {
    PairHandle *ph = spawn_companion("pair_echo");
    EXPECT_EQ(platform_pair_ok(ph), 1);
    EXPECT_TRUE(echoes(ph, 1234));
    EXPECT_EQ(finish(ph), kServed);
}

TEST(PairSpawn, TheHandleIsThatOfAParentsOpen) {
    PairHandle *ph = spawn_companion("pair_echo");
    EXPECT_GT(ph->companion_pid, 0);
    EXPECT_EQ(ph->parent, 1);
    EXPECT_EQ(ph->kind, PLATFORM_PAIR_KIND_LOCAL);
    EXPECT_EQ(ph->hybrid_environment, 0);
    EXPECT_EQ(ph->blocking, 1);
    EXPECT_GT(ph->rx_fd, 2);
    EXPECT_EQ(ph->tx_fd, ph->rx_fd);
    EXPECT_EQ(ph->child_exit_status, PLATFORM_PAIR_STATUS_UNKNOWN);
    EXPECT_EQ(ph->error_text, nullptr);
    EXPECT_EQ(platform_pair_valid(ph), 1);
    EXPECT_NE(hook::fcntl.real(ph->rx_fd, F_GETFD, 0) & FD_CLOEXEC, 0);
    EXPECT_EQ(finish(ph), kServed);
}

TEST(PairSpawn, TheCompanionFindsItsEndLikeThatOfAParentsOpen) {
    PairHandle *ph = spawn(companion_path("pair_reporter"), {"one", "two words", ""});
    const Report report = read_report(ph);
    EXPECT_EQ(report.arguments, (std::vector<std::string>{"one", "two words", ""}));
    EXPECT_EQ(report.variable, std::to_string(getpid()) + " " + std::to_string(report.end) + " pid-rtx_fd_l");
    EXPECT_EQ(finish(ph), kServed);
}

TEST(PairSpawn, TheStandardDescriptorsAreTheNullDevice) {
    PairHandle *ph = spawn_companion("pair_reporter");
    Report report = read_report(ph);
    EXPECT_EQ(report.descriptors[0], "r /dev/null");
    EXPECT_EQ(report.descriptors[1], "w /dev/null");
    EXPECT_EQ(report.descriptors[2], "w /dev/null");
    EXPECT_EQ(finish(ph), kServed);
}

TEST(PairSpawn, TheParentsEndsStayWithTheParent) {
    PairHandle *older = spawn_companion("pair_echo");
    PairHandle *ph = spawn_companion("pair_reporter");
    const std::string ends = target_of(older->rx_fd) + " " + target_of(ph->rx_fd);
    for (const auto &[fd, file] : read_report(ph).descriptors) {
        EXPECT_EQ(ends.find(file.substr(file.find(' ') + 1)), std::string::npos) << fd;
    }
    EXPECT_EQ(finish(ph), kServed);
    EXPECT_EQ(finish(older), kServed);
}

TEST(PairSpawn, AParentWithoutStandardDescriptorsStartsCompanions) {
    const Outcome outcome = run_in_child([] {
        close(0);
        close(1);
        PairHandle *ph = spawn_companion("pair_reporter");
        Report report = read_report(ph);
        fprintf(stderr, "%s, %s, %s", report.descriptors[0].c_str(), report.descriptors[1].c_str(),
                report.descriptors[2].c_str());
        finish(ph);
    });
    EXPECT_EQ(outcome.err, "r /dev/null, w /dev/null, w /dev/null");
}

TEST(PairSpawn, TheChildSharesTheMemoryOfItsParent) {
    pid_t child = 0;
    const Interposed noting(hook::chdir, [&child](const char *path) {
        child = getpid();
        return hook::chdir.real(path);
    });
    PlatformPairSpawnOptions options = usual();
    options.directory = "/";
    PairHandle *ph = spawn_companion("pair_echo", &options);
    EXPECT_EQ(child, ph->companion_pid) << "what the child wrote is here";
    EXPECT_EQ(finish(ph), kServed);
}

TEST(PairSpawn, AGuardPageStandsBelowTheStackOfTheChild) {
    std::string below;
    const Interposed looking(hook::clone, [&below](int (*body)(void *), void *stack, int flags, void *argument) {
        char line[512];
        FILE *maps = fopen("/proc/self/maps", "r");
        const auto top = reinterpret_cast<unsigned long>(stack);
        std::string before;
        while (fgets(line, sizeof line, maps) != nullptr) {
            unsigned long start = 0;
            unsigned long end = 0;
            char rights[8] = {};
            sscanf(line, "%lx-%lx %7s", &start, &end, rights);
            if (start < top && top <= end) {
                below = before;
            }
            before = rights;
        }
        fclose(maps);
        return hook::clone.real(body, stack, flags, argument);
    });
    EXPECT_EQ(finish(spawn_companion("pair_echo")), kServed);
    EXPECT_EQ(below, "---p");
}

TEST(PairSpawn, OutputIsFlushedBeforeAndNotWrittenTwice) {
    const Outcome outcome = run_in_child([] {
        printf("before, ");
        const int fds[] = {0, 1, 2};
        PlatformPairSpawnOptions options = usual();
        options.stdio_fds = fds;
        finish(spawn("sh", {"sh", "-c", "printf 'companion, '"}, &options));
        platform_pair_close(spawn("/nowhere", {"nowhere"}, &options));
        printf("after");
    });
    EXPECT_EQ(outcome.out, "before, companion, after");
}

TEST(PairSpawn, NoExitHandlerOfTheParentRunsInTheChild) {
    const Outcome outcome = run_in_child([] {
        atexit([] { printf("handler "); });
        const int fds[] = {0, 1, 2};
        PlatformPairSpawnOptions options = usual();
        options.stdio_fds = fds;
        expect_failed_start(spawn("/nowhere", {"nowhere"}, &options), ENOENT);
        printf("parent ");
        exit(0);
    });
    EXPECT_EQ(outcome.out, "parent handler ");
}

TEST(PairSpawn, ErrnoStaysWhateverTheChildMeets) {
    const ScopedVariable path("PATH", "/nowhere:" + companion_path(""));
    errno = EXDEV;
    PairHandle *ph = spawn("pair_echo", {"pair_echo"});
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(finish(ph), kServed);
}

// ---- Where the program is looked for --------------------------------------------------------------------------------

TEST(PairSpawn, AProgramThatCannotBeExecutedIsKnownAtOnce) {
    expect_failed_start(spawn("/nowhere/to/be/found", {"missing"}), ENOENT);
    expect_failed_start(spawn("no-such-program-anywhere", {"missing"}), ENOENT);
    expect_failed_start(spawn("", {"missing"}), ENOENT);
    expect_failed_start(spawn("/", {"folder"}), EACCES);
    expect_failed_start(spawn("/dev/null/x", {"below a file"}), ENOTDIR);
    expect_failed_start(spawn(std::string(300, 'x'), {"long"}), ENAMETOOLONG);
    expect_failed_start(spawn("/" + std::string(5000, 'x'), {"longer"}), ENAMETOOLONG);
}

TEST(PairSpawn, TheProgramIsSearchedAlongPath) {
    const ScratchFolder folder;
    write_script(folder.path + "/tell-who", "#!/bin/sh\n");
    const ScopedVariable path("PATH", "/nowhere:/dev/null:" + folder.path + ":/bin:/usr/bin");
    EXPECT_EQ(said_by("tell-who", {"tell-who", "a", "b c"}, usual()), folder.path + "/tell-who a b c\n");
}

TEST(PairSpawn, AnEmptyPartOfPathIsTheWorkingDirectory) {
    const ScratchFolder folder;
    write_script(folder.path + "/tell-who", "#!/bin/sh\n");
    PlatformPairSpawnOptions options = usual();
    options.directory = folder.path.c_str();
    for (const char *path : {"", ":/bin:/usr/bin", "/bin:", "/nowhere::/bin"}) {
        const ScopedVariable variable("PATH", path);
        EXPECT_EQ(said_by("tell-who", {"tell-who"}, options), "tell-who\n") << path;
    }
}

TEST(PairSpawn, WithoutPathTheSystemsFoldersAreSearched) {
    const Outcome outcome = run_in_child([] {
        unsetenv("PATH");
        printf("%s", said_by_shell("echo found", usual()).c_str());
    });
    EXPECT_EQ(outcome.out, "found\n");
}

TEST(PairSpawn, AFileThatMayNotBeExecutedCountsForMoreThanNone) {
    const ScratchFolder folder;
    write_file(folder.path + "/tell-who", "#!/bin/sh\n");
    chmod((folder.path + "/tell-who").c_str(), 0644);
    const ScopedVariable path("PATH", "/nowhere:" + folder.path + ":/usr");
    expect_failed_start(spawn("tell-who", {"tell-who"}), EACCES);
}

TEST(PairSpawn, AFileThatMayNotBeExecutedDoesNotEndTheSearch) {
    const ScratchFolder folder;
    write_file(folder.path + "/sh", "#!/bin/sh\n");
    chmod((folder.path + "/sh").c_str(), 0644);
    const ScopedVariable path("PATH", folder.path + ":/bin:/usr/bin");
    EXPECT_EQ(said_by_shell("echo found", usual()), "found\n");
}

TEST(PairSpawn, AnotherErrorEndsTheSearch) {
    const ScratchFolder folder;
    ASSERT_EQ(symlink("sh", (folder.path + "/sh").c_str()), 0);
    const ScopedVariable path("PATH", folder.path + ":/bin:/usr/bin");
    expect_failed_start(spawn("sh", {"sh"}), ELOOP);
}

TEST(PairSpawn, AScriptWithoutItsShellIsRunByTheShell) {
    const ScratchFolder folder;
    const std::string script = folder.path + "/script";
    write_script(script, "");
    EXPECT_EQ(said_by(script, {"name", "a", "b c"}, usual()), script + " a b c\n");
    EXPECT_EQ(said_by(script, {"name"}, usual()), script + "\n");
    EXPECT_EQ(said_by(script, {}, usual()), script + "\n") << "without any argument";
}

TEST(PairSpawn, AScriptOnThePathIsRunByTheShellToo) {
    const ScratchFolder folder;
    write_script(folder.path + "/script", "");
    const ScopedVariable path("PATH", "/nowhere:" + folder.path);
    EXPECT_EQ(said_by("script", {"name", "a"}, usual()), folder.path + "/script a\n");
}

TEST(PairSpawn, ManyArgumentsHaveNoLimitHere) {
    const std::vector<std::string> arguments(5000, "x");
    PairHandle *ph = spawn(companion_path("pair_reporter"), arguments);
    EXPECT_EQ(read_report(ph).arguments, arguments);
    EXPECT_EQ(finish(ph), kServed);
}

TEST(PairSpawn, ArgumentsThatTheKernelRefusesAreAFailedStart) {
    expect_failed_start(spawn(companion_path("pair_echo"), {std::string(1 << 20, 'x')}), E2BIG);
}
