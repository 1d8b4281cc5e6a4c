// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Expanding and matching patterns, copying a file, starting a child for a command.
#include <components/platform/file_control.h>

#include <components/platform/zel_pair_connection.h>
#include <malloc/zel_malloc.h>
#include <msg/msg.h>
#include <support/child.h>
#include <support/files.h>
#include <support/interpose.h>

#include <cstdlib>
#include <fcntl.h>
#include <glob.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using namespace zel::test;

namespace {

struct Files : testing::Test {
    std::string path(const std::string &name) const { return folder.path + "/" + name; }
    ScratchFolder folder;
};

using Glob = Files;
using CopyFile = Files;
using Spawn = Files;

// The names that a pattern expands to, or the one word "nothing".
std::vector<std::string> expand(const std::string &dir, const char *pattern) {
    PlatformFileList list = {};
    if (platform_glob(dir.c_str(), pattern, &list) == 0) {
        return {"nothing"};
    }
    std::vector<std::string> names(list.paths, list.paths + list.count);
    platform_glob_free(&list);
    return names;
}

int32_t wait_for(int32_t pid) {
    int32_t status = -1;
    EXPECT_EQ(platform_wait_child(pid, &status), pid);
    return status;
}

int exit_code(int32_t pid) {
    const int32_t status = wait_for(pid);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace

TEST_F(Glob, APatternExpandsToThePathsThatMatchInOrder) {
    for (const char *name : {"b.txt", "a.txt", "c.dat", ".hidden"}) {
        write_file(path(name), "");
    }
    using Names = std::vector<std::string>;
    EXPECT_EQ(expand(folder.path, "*.txt"), (Names{path("a.txt"), path("b.txt")}));
    EXPECT_EQ(expand(folder.path, "?.dat"), (Names{path("c.dat")}));
    EXPECT_EQ(expand(folder.path, "*"), (Names{path("a.txt"), path("b.txt"), path("c.dat")}));
}

TEST_F(Glob, WithoutAPatternAllIsMeant) {
    write_file(path("a"), "");
    const std::vector<std::string> all = {path("a")};
    EXPECT_EQ(expand(folder.path, nullptr), all);
    EXPECT_EQ(expand(folder.path, ""), all);
}

TEST_F(Glob, ADirectoryThatEndsInASlashGetsNoSecondOne) {
    write_file(path("a"), "");
    EXPECT_EQ(expand(folder.path + "/", nullptr), (std::vector<std::string>{path("a")}));
    EXPECT_EQ(expand(folder.path + "//", nullptr), (std::vector<std::string>{folder.path + "//a"}));
}

TEST_F(Glob, WhatMatchesNothingLeavesTheListUntouched) {
    char *paths[] = {nullptr};
    PlatformFileList list = {.count = 7, .paths = paths, .glob_record = paths};
    EXPECT_EQ(platform_glob(folder.path.c_str(), "*.none", &list), 0);
    EXPECT_EQ(list.count, 7U);
    EXPECT_EQ(list.paths, paths);
    EXPECT_EQ(list.glob_record, paths);
}

TEST_F(Glob, NoListAndNoDirectoryAreRefusedWithoutAnAllocation) {
    PlatformFileList list = {};
    const unsigned long before = zel_malloc_total_requested();
    EXPECT_EQ(platform_glob(folder.path.c_str(), "*", nullptr), 0);
    EXPECT_EQ(platform_glob(nullptr, "*", &list), 0);
    EXPECT_EQ(platform_glob("", "*", &list), 0);
    EXPECT_EQ(zel_malloc_total_requested(), before);
}

TEST_F(Glob, TheRecordIsTheOneThingThatStaysAllocated) {
    write_file(path("a"), "");
    int blocks = 0;
    const Interposed allocating(hook::malloc, [&blocks](size_t size) {
        ++blocks;
        return hook::malloc.real(size);
    });
    const Interposed releasing(hook::free, [&blocks](void *pointer) {
        blocks -= pointer != nullptr ? 1 : 0;
        hook::free.real(pointer);
    });
    PlatformFileList list = {};
    EXPECT_EQ(platform_glob(folder.path.c_str(), "*.none", &list), 0);
    EXPECT_EQ(blocks, 0);
    EXPECT_EQ(platform_glob(folder.path.c_str(), nullptr, &list), 1);
    EXPECT_EQ(blocks, 1);
    platform_glob_free(&list);
    EXPECT_EQ(blocks, 0);
}

TEST_F(Glob, TheRecordIsAskedForUnderItsOwnName) {
    const Outcome outcome = run_in_child([this] {
        zel_malloc_set_failure_handler([](unsigned long, const char *message) -> void * {
            printf("%s", message);
            fflush(nullptr);
            _exit(0);
        });
        const Interposed failing(hook::malloc, [](size_t size) -> void * {
            if (size == sizeof(glob_t)) {
                errno = ENOMEM;
                return nullptr;
            }
            return hook::malloc.real(size);
        });
        PlatformFileList list = {};
        platform_glob(folder.path.c_str(), nullptr, &list);
    });
    EXPECT_EQ(outcome.out, "components/platform/file_control:808 (via zel_malloc): Not enough memory to allocate " +
                               std::to_string(sizeof(glob_t)) + " bytes for glob_t.");
}

TEST_F(Glob, ReleasingNothingDoesNothing) {
    platform_glob_free(nullptr);
    PlatformFileList list = {};
    platform_glob_free(&list);
    EXPECT_EQ(list.glob_record, nullptr);
}

TEST_F(Glob, AListMayBeReleasedTwice) {
    write_file(path("a"), "");
    PlatformFileList list = {};
    ASSERT_EQ(platform_glob(folder.path.c_str(), nullptr, &list), 1);
    platform_glob_free(&list);
    platform_glob_free(&list);
    EXPECT_EQ(list.count, 0U);
}

TEST(Match, NamesMatchShellPatterns) {
    EXPECT_EQ(platform_match("name.txt", "*.txt"), 1);
    EXPECT_EQ(platform_match("name.txt", "*.dat"), 0);
    EXPECT_EQ(platform_match("a", "[a-c]"), 1);
    EXPECT_EQ(platform_match(".hidden", "*"), 1) << "without flags a leading dot is a character like any other";
    EXPECT_EQ(platform_match("a/b", "*"), 1) << "and so is a slash";
}

TEST(Match, WithoutAPatternAllMatchesButANullName) {
    EXPECT_EQ(platform_match("anything", nullptr), 1);
    EXPECT_EQ(platform_match("", ""), 1);
    EXPECT_EQ(platform_match(nullptr, "*"), 0);
    EXPECT_EQ(platform_match(nullptr, nullptr), 0);
}

TEST_F(CopyFile, TheBytesAreTheSame) {
    for (const size_t size : {size_t{0}, size_t{1}, size_t{8191}, size_t{8192}, size_t{8193}, size_t{100000}}) {
        std::string text(size, '\0');
        for (size_t place = 0; place < size; ++place) {
            text[place] = static_cast<char>(place * 7);
        }
        write_file(path("from"), text);
        EXPECT_EQ(platform_copy_file(path("from").c_str(), path("to").c_str()), 1);
        EXPECT_EQ(read_file(path("to")), text) << size;
    }
}

TEST_F(CopyFile, TheTargetIsCreatedWithWhatTheMaskLeavesAndTruncated) {
    write_file(path("from"), "short");
    const mode_t before = umask(027);
    EXPECT_EQ(platform_copy_file(path("from").c_str(), path("new").c_str()), 1);
    umask(before);
    EXPECT_EQ(platform_file_stamp(path("new").c_str()).mode & 07777, 0640U);
    write_file(path("old"), "a much longer text");
    EXPECT_EQ(platform_copy_file(path("from").c_str(), path("old").c_str()), 1);
    EXPECT_EQ(read_file(path("old")), "short");
}

TEST_F(CopyFile, WhatCannotBeOpenedIsAFailureThatLeavesNothingOpen) {
    write_file(path("from"), "text");
    EXPECT_EQ(platform_copy_file(path("missing").c_str(), path("to").c_str()), 0);
    EXPECT_EQ(platform_exists(path("to").c_str()), 0) << "a target is not made for a source that is missing";
    EXPECT_EQ(platform_copy_file(path("from").c_str(), path("no/such/place").c_str()), 0);
}

TEST_F(CopyFile, AFileIsNotCopiedOntoItself) {
    write_file(path("from"), "text");
    ASSERT_EQ(symlink("from", path("link").c_str()), 0);
    ASSERT_EQ(link(path("from").c_str(), path("second name").c_str()), 0);
    for (const char *to : {"from", "link", "second name"}) {
        EXPECT_EQ(platform_copy_file(path("from").c_str(), path(to).c_str()), 0) << to;
        EXPECT_EQ(read_file(path("from")), "text") << to;
    }
}

TEST_F(CopyFile, AReadThatFailsEndsTheCopy) {
    // A folder can be opened for reading and not read.
    EXPECT_EQ(platform_copy_file(folder.path.c_str(), path("to").c_str()), 1);
    EXPECT_EQ(read_file(path("to")), "");
}

TEST_F(CopyFile, AFullDiskDoesNotShowInTheResult) {
    write_file(path("from"), "text");
    EXPECT_EQ(platform_copy_file(path("from").c_str(), "/dev/full"), 1);
}

TEST_F(CopyFile, InterruptionsLoseNothing) {
    write_file(path("from"), std::string(50000, 'x'));
    int calls = 0;
    const Interposed reading(hook::read, [&calls](int fd, void *buffer, size_t size) -> ssize_t {
        if (calls++ % 2 == 0) {
            errno = EINTR;
            return -1;
        }
        return hook::read.real(fd, buffer, size);
    });
    EXPECT_EQ(platform_copy_file(path("from").c_str(), path("to").c_str()), 1);
    EXPECT_EQ(platform_file_size(path("to").c_str()), 50000);
}

TEST_F(CopyFile, ChunksHaveAtMost8192Bytes) {
    write_file(path("from"), std::string(20000, 'x'));
    std::vector<size_t> sizes;
    const Interposed reading(hook::read, [&sizes](int fd, void *buffer, size_t size) {
        sizes.push_back(size);
        return hook::read.real(fd, buffer, size);
    });
    EXPECT_EQ(platform_copy_file(path("from").c_str(), path("to").c_str()), 1);
    EXPECT_EQ(sizes, (std::vector<size_t>{8192, 8192, 8192, 8192}));
}

TEST_F(Spawn, AProgramIsFoundAlongThePathAndGetsItsArguments) {
    const char *const argv[] = {"sh", "-c", "exit $(($1 + $2))", "sh", "40", "2", nullptr};
    EXPECT_EQ(exit_code(platform_spawn("sh", const_cast<char *const *>(argv), nullptr)), 42);
    EXPECT_EQ(exit_code(platform_spawnl("sh", "sh", "-c", "exit 7", nullptr)), 7);
    EXPECT_EQ(exit_code(platform_spawnl_quiet("sh", "sh", "-c", "exit 8", nullptr)), 8);
}

TEST_F(Spawn, AProgramThatCannotBeExecutedIsAChildThatEndsWith127AndRunsNoExitHandlers) {
    const Outcome outcome = run_in_child([] {
        atexit([] { dprintf(1, "handler in %s\n", getenv("WHO")); });
        setenv("WHO", "parent", 1);
        msg_print_raw("buffered once");
        const int32_t pid = platform_spawnl("/no/such/program", "x", nullptr);
        int32_t status = 0;
        platform_wait_child(pid, &status);
        fflush(nullptr);
        dprintf(1, " %d\n", WEXITSTATUS(status));
    });
    EXPECT_EQ(outcome.out, "buffered once 127\nhandler in parent\n");
}

TEST_F(Spawn, AForkThatFailsIsMinusOne) {
    const Interposed failing(hook::fork, fail_always(hook::fork, EAGAIN, -1));
    EXPECT_EQ(platform_spawnl("true", "true", nullptr), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(Spawn, TheDescriptorsBecomeTheStandardOnes) {
    write_file(path("in"), "input\n");
    const int in = open(path("in").c_str(), O_RDONLY | O_CLOEXEC);
    const int out = open(path("out").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    const int err = open(path("err").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    const char *const argv[] = {"sh", "-c", "cat; echo problem >&2", nullptr};
    const int fds[3] = {in, out, err};
    EXPECT_EQ(exit_code(platform_spawn("sh", const_cast<char *const *>(argv), fds)), 0);
    for (const int fd : fds) {
        EXPECT_EQ(close(fd), 0) << "the parent's own stay open";
    }
    EXPECT_EQ(read_file(path("out")), "input\n");
    EXPECT_EQ(read_file(path("err")), "problem\n");
}

TEST_F(Spawn, ANegativeEntryIsTheParentsOwn) {
    const Outcome outcome = run_in_child([this] {
        const int out = open(path("out").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
        const char *const argv[] = {"sh", "-c", "echo to the file; echo to the parent >&2", nullptr};
        const int fds[3] = {-1, out, -1};
        wait_for(platform_spawn("sh", const_cast<char *const *>(argv), fds));
    });
    EXPECT_EQ(outcome.err, "to the parent\n");
    EXPECT_EQ(read_file(path("out")), "to the file\n");
}

TEST_F(Spawn, OneDescriptorMayServeOutputAndErrors) {
    const int out = open(path("out").c_str(), O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0644);
    const char *const argv[] = {"sh", "-c", "echo one; echo two >&2; ls -l /proc/$$/fd/ | grep -c '/out$'; exit 0",
                                nullptr};
    const int fds[3] = {-1, out, out};
    EXPECT_EQ(exit_code(platform_spawn("sh", const_cast<char *const *>(argv), fds)), 0);
    close(out);
    EXPECT_EQ(read_file(path("out")), "one\ntwo\n2\n") << "two descriptors are open on it, and no third";
}

TEST_F(Spawn, WithoutRedirectionTheChildSharesTheParentsOutput) {
    const Outcome outcome = run_in_child([] { wait_for(platform_spawnl("echo", "echo", "hello", nullptr)); });
    EXPECT_EQ(outcome.out, "hello\n");
}

TEST_F(Spawn, AQuietChildReadsAndWritesTheNullDevice) {
    const Outcome outcome = run_in_child([] {
        const int32_t pid = platform_spawnl_quiet("sh", "sh", "-c",
                                                  "echo out; echo err >&2; read line; test -z \"$line\" && "
                                                  "test \"$(readlink /proc/self/fd/0)\" = /dev/null",
                                                  nullptr);
        int32_t status = 0;
        platform_wait_child(pid, &status);
        printf("%d", status);
    });
    EXPECT_EQ(outcome.out, "0");
    EXPECT_EQ(outcome.err, "");
}

TEST_F(Spawn, TheQuietFormGivesItsReferenceBack) {
    EXPECT_EQ(exit_code(platform_spawnl_quiet("true", "true", nullptr)), 0);
    const int fd = platform_null_fd_open();
    EXPECT_EQ(exit_code(platform_spawnl_quiet("true", "true", nullptr)), 0);
    EXPECT_NE(fcntl(fd, F_GETFD), -1) << "another holder keeps it open";
    platform_null_fd_close(fd);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

TEST_F(Spawn, ManyArgumentsAreTaken) {
    const Outcome outcome = run_in_child([] {
#define TEN "x", "x", "x", "x", "x", "x", "x", "x", "x", "x"
#define HUNDRED TEN, TEN, TEN, TEN, TEN, TEN, TEN, TEN, TEN, TEN
        wait_for(platform_spawnl("sh", "sh", "-c", "echo $#", "sh", HUNDRED, HUNDRED, HUNDRED, HUNDRED, nullptr));
    });
    EXPECT_EQ(outcome.out, "400\n");
}

TEST_F(CopyFile, DevicesHaveNothingToLose) {
    EXPECT_EQ(platform_copy_file("/dev/null", "/dev/null"), 1);
}

TEST_F(Spawn, AQuietChildIsNotStartedWithoutTheNullDevice) {
    const Interposed failing(hook::fopen, fail_always(hook::fopen, EMFILE, nullptr));
    EXPECT_EQ(platform_spawnl_quiet("true", "true", nullptr), -1);
}

TEST_F(Spawn, StandardDescriptorsMayBeSwappedAndTheInputKept) {
    const Outcome outcome = run_in_child([] {
        const char *const argv[] = {"sh", "-c", "echo out; echo err >&2", nullptr};
        const int fds[3] = {-1, 2, 1};
        wait_for(platform_spawn("sh", const_cast<char *const *>(argv), fds));
    });
    EXPECT_EQ(outcome.out, "err\n");
    EXPECT_EQ(outcome.err, "out\n");
}
