// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Starting a child for a command.
#include <components/platform/file_control.h>

#include "file_support.h"
#include <components/platform/socket.h>
#include <components/platform/zel_pair_connection.h>
#include <malloc/zel_malloc.h>
#include <msg/msg.h>
#include <support/child.h>
#include <support/files.h>
#include <support/interpose.h>

#include <array>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace zel::test;

// So many arguments of a list.
#define TEN "x", "x", "x", "x", "x", "x", "x", "x", "x", "x"
#define HUNDRED TEN, TEN, TEN, TEN, TEN, TEN, TEN, TEN, TEN, TEN

namespace {

struct Spawn : Files {
    // A new file to write to. A child that keeps the descriptor beside its standard ones shows it.
    int create(const std::string &name) const { return open(path(name).c_str(), O_CREAT | O_RDWR | O_APPEND, 0644); }
};

char *const *arguments(const char *const argv[]) {
    return const_cast<char *const *>(argv);
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

// Runs a shell command with these standard descriptors.
int run_with(const std::array<int, 3> &fds, const char *command) {
    const char *const argv[] = {"sh", "-c", command, nullptr};
    return exit_code(platform_spawn("sh", arguments(argv), fds.data()));
}

// Lists on standard error which of a shell's descriptors up to 9 lead to a file of that name.
const char *const kListDescriptors = "for fd in 0 1 2 3 4 5 6 7 8 9; do "
                                     "case $(readlink /proc/$$/fd/$fd) in */out) printf $fd >&2;; esac; done";

} // namespace

TEST_F(Spawn, AProgramIsFoundAlongThePathAndGetsItsArguments) {
    const char *const argv[] = {"sh", "-c", "exit $(($1 + $2))", "sh", "40", "2", nullptr};
    EXPECT_EQ(exit_code(platform_spawn("sh", arguments(argv), nullptr)), 42);
    EXPECT_EQ(exit_code(platform_spawnl("sh", "sh", "-c", "exit 7", nullptr)), 7);
    EXPECT_EQ(exit_code(platform_spawnl_quiet("sh", "sh", "-c", "exit 8", nullptr)), 8);
}

TEST_F(Spawn, AProgramThatCannotBeExecutedEndsWith127WithoutExitHandlers) {
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

TEST_F(Spawn, TheDescriptorsBecomeTheStandardOnes) {
    write_file(path("in"), "input\n");
    const int in = open(path("in").c_str(), O_RDONLY | O_CLOEXEC);
    const int out = open(path("out").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    const int err = open(path("err").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    const char *const argv[] = {"sh", "-c", "cat; echo problem >&2", nullptr};
    const int fds[3] = {in, out, err};
    EXPECT_EQ(exit_code(platform_spawn("sh", arguments(argv), fds)), 0);
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
        wait_for(platform_spawn("sh", arguments(argv), fds));
    });
    EXPECT_EQ(outcome.err, "to the parent\n");
    EXPECT_EQ(read_file(path("out")), "to the file\n");
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
        wait_for(platform_spawnl("sh", "sh", "-c", "echo $#", "sh", HUNDRED, HUNDRED, HUNDRED, HUNDRED, nullptr));
    });
    EXPECT_EQ(outcome.out, "400\n");
}

TEST_F(Spawn, TheResultIsTheChildsNumberInTheParentAlone) {
    const Outcome outcome = run_in_child([] {
        const int32_t pid = platform_spawnl("sh", "sh", "-c", "echo $$", nullptr);
        wait_for(pid);
        dprintf(1, "%d\n", pid);
    });
    const size_t half = outcome.out.size() / 2;
    EXPECT_EQ(outcome.out.substr(0, half), outcome.out.substr(half));
    EXPECT_GT(atoi(outcome.out.c_str()), 1);
}

TEST_F(Spawn, TheFirstArgumentIsTheNameThatTheProgramSees) {
    const Outcome outcome = run_in_child([] {
        const char *const argv[] = {"one name", "-c", "echo $0", nullptr};
        wait_for(platform_spawn("sh", arguments(argv), nullptr));
        wait_for(platform_spawnl("sh", "another name", "-c", "echo $0", nullptr));
    });
    EXPECT_EQ(outcome.out, "one name\nanother name\n");
}

TEST_F(Spawn, TheSearchPathIsThatOfTheEnvironment) {
    write_file(path("of-our-own"), "#!/bin/sh\nexit 5\n");
    ASSERT_EQ(chmod(path("of-our-own").c_str(), 0755), 0);
    const Outcome outcome = run_in_child([this] {
        setenv("PATH", folder.path.c_str(), 1);
        printf("%d", exit_code(platform_spawnl("of-our-own", "x", nullptr)));
        printf("%d", exit_code(platform_spawnl_quiet("of-our-own", "x", nullptr)));
    });
    EXPECT_EQ(outcome.out, "55");
}

TEST_F(Spawn, WhateverCannotBeExecutedEndsWith127InEachForm) {
    write_file(path("text"), "#!/bin/sh\nexit 5\n");
    ASSERT_EQ(chmod(path("text").c_str(), 0644), 0);
    for (const std::string &file : {path("text"), folder.path, path("missing"), std::string("no-such-program"),
                                    path("text") + "/below", std::string()}) {
        const char *const argv[] = {"x", nullptr};
        EXPECT_EQ(exit_code(platform_spawn(file.c_str(), arguments(argv), nullptr)), 127) << file;
        EXPECT_EQ(exit_code(platform_spawnl(file.c_str(), "x", nullptr)), 127) << file;
        EXPECT_EQ(exit_code(platform_spawnl_quiet(file.c_str(), "x", nullptr)), 127) << file;
    }
}

TEST_F(Spawn, AForkThatFailsIsMinusOneInEachForm) {
    const Interposed failing(hook::fork, fail_always(hook::fork, EAGAIN, -1));
    const char *const argv[] = {"true", nullptr};
    EXPECT_EQ(platform_spawn("true", arguments(argv), nullptr), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(platform_spawnl("true", "true", nullptr), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(platform_spawnl_quiet("true", "true", nullptr), -1);
}

TEST_F(Spawn, WhatTheParentHasBufferedComesBeforeWhatTheChildWrites) {
    const Outcome outcome = run_in_child([] {
        printf("one ");
        const char *const argv[] = {"echo", "two", nullptr};
        wait_for(platform_spawn("echo", arguments(argv), nullptr));
        printf("three ");
        wait_for(platform_spawnl("echo", "echo", "four", nullptr));
    });
    EXPECT_EQ(outcome.out, "one two\nthree four\n");
}

TEST_F(Spawn, WithoutRedirectionAllThreeStandardDescriptorsAreTheParents) {
    write_file(path("in"), "input\n");
    const Outcome outcome = run_in_child([this] {
        dup2(open(path("in").c_str(), O_RDONLY), 0);
        const char *const argv[] = {"sh", "-c", "cat; echo problem >&2", nullptr};
        wait_for(platform_spawn("sh", arguments(argv), nullptr));
    });
    EXPECT_EQ(outcome.out, "input\n");
    EXPECT_EQ(outcome.err, "problem\n");
}

TEST_F(Spawn, NegativeEntriesAloneChangeNothing) {
    const Outcome outcome = run_in_child([] {
        wait_for(platform_spawnl("sh", "sh", "-c", "cd /proc/$$/fd; echo *", nullptr));
        run_with({-1, -2, -2147483647 - 1}, "cd /proc/$$/fd; echo *; echo problem >&2");
    });
    const size_t half = outcome.out.size() / 2;
    EXPECT_TRUE(outcome.out.starts_with("0 1 ")) << outcome.out;
    EXPECT_EQ(outcome.out.substr(0, half), outcome.out.substr(half));
    EXPECT_EQ(outcome.err, "problem\n");
}

TEST_F(Spawn, EachEntryMayBeNegativeByItself) {
    write_file(path("in"), "input\n");
    const Outcome outcome = run_in_child([this] {
        const int in = open(path("in").c_str(), O_RDONLY);
        const int err = create("err");
        run_with({in, -1, err}, "cat; echo problem >&2");
    });
    EXPECT_EQ(outcome.out, "input\n");
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(read_file(path("err")), "problem\n");
}

TEST_F(Spawn, EachEntryIsClosedInTheChildAfterItsLastUse) {
    using Fds = std::array<int, 3>;
    const Outcome outcome = run_in_child([this] {
        const int out = create("out");
        for (const Fds &fds : {Fds{out, -1, -1}, Fds{-1, out, -1}, Fds{out, out, -1}}) {
            run_with(fds, kListDescriptors);
            dprintf(2, " ");
        }
        run_with({out, -1, out}, kListDescriptors);
    });
    EXPECT_EQ(outcome.err, "0 1 01 ");
    EXPECT_EQ(read_file(path("out")), "02") << "the last one's errors go to the file";
}

TEST_F(Spawn, OneDescriptorMayServeOutputAndErrorsOrAllThree) {
    const Outcome outcome = run_in_child([this] {
        const int out = create("out");
        run_with({-1, out, out}, kListDescriptors);
        run_with({out, out, out}, kListDescriptors);
    });
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(read_file(path("out")), "12012");
}

TEST_F(Spawn, StandardDescriptorsMayChangePlaces) {
    const Outcome outcome = run_in_child([] {
        run_with({-1, 2, 1}, "echo out; echo err >&2");
        run_with({-1, 1, 1}, "echo both; echo both >&2");
        run_with({0, 2, -1}, "echo to the errors");
    });
    EXPECT_EQ(outcome.out, "err\nboth\nboth\n");
    EXPECT_EQ(outcome.err, "out\nto the errors\n");
}

TEST_F(Spawn, DescriptorZeroIsAnEntryLikeAnyOther) {
    const Outcome outcome = run_in_child([this] {
        dup2(create("out"), 0);
        run_with({-1, 0, 0}, "echo one; echo two >&2; echo three >&0");
    });
    EXPECT_EQ(outcome.out + outcome.err, "");
    EXPECT_EQ(read_file(path("out")), "one\ntwo\nthree\n");
}

TEST_F(Spawn, AnEntryThatIsNotOpenLeavesTheParentsOwn) {
    const Outcome outcome = run_in_child([] {
        run_with({999, 999, 998}, "cat; echo out; echo err >&2");
        run_with({-1, 2, 999}, "echo moved; echo kept >&2");
    });
    EXPECT_EQ(outcome.out, "out\n");
    EXPECT_EQ(outcome.err, "err\nmoved\nkept\n");
}

TEST_F(Spawn, ACopyThatTakesAClosedEntrysNumberIsNotTheEntry) {
    const Outcome outcome = run_in_child([] {
        const int closed = dup(0);
        close(closed);
        run_with({closed, 2, 1}, "readlink /proc/$$/fd/0; echo out >&2");
        run_with({2, closed, 0}, "readlink /proc/$$/fd/2; readlink /proc/$$/fd/1 | cut -c1-4");
    });
    EXPECT_EQ(outcome.err, "/dev/null\n");
    EXPECT_EQ(outcome.out, "out\n/dev/null\n/tmp\n");
}

TEST_F(Spawn, AnEntryThatFindsNoRoomForItsCopyEndsTheChild) {
    const Interposed failing(hook::fcntl, [](int fd, int command, long argument) {
        if (command == F_DUPFD) {
            errno = EMFILE;
            return -1;
        }
        return hook::fcntl.real(fd, command, argument);
    });
    EXPECT_EQ(run_with({-1, 2, 1}, "exit 0"), 127);
}

TEST_F(Spawn, AnEntryThatCannotBePutInItsPlaceEndsTheChild) {
    const int out = create("out");
    const Interposed failing(hook::dup2, fail_always(hook::dup2, EBADF, -1));
    EXPECT_EQ(run_with({-1, out, -1}, "exit 0"), 127);
    close(out);
}

TEST_F(Spawn, ASocketOfTheLibrarysThatStandsInItsPlaceIsInherited) {
    const Outcome outcome = run_in_child([] {
        close(0);
        const int fd = platform_server_socket_open(20000, 30000, nullptr);
        run_with({0, 1, 2}, "expr $(readlink /proc/$$/fd/0) : '\\(socket\\)'");
        run_with({-1, 1, 2}, "expr $(readlink /proc/$$/fd/0) : '\\(socket\\)'");
        dprintf(1, "%d %d\n", fd, fcntl(0, F_GETFD) == FD_CLOEXEC);
    });
    EXPECT_EQ(outcome.out, "socket\nsocket\n0 1\n") << "the parent's keeps its flag";
}

TEST_F(Spawn, WhatTheProgramItselfKeepsFromItsChildrenStaysSo) {
    const Outcome outcome = run_in_child([] {
        close(0);
        const int fd = platform_server_socket_open(20000, 30000, nullptr);
        platform_socket_close(fd);
        open("/dev/zero", O_RDONLY | O_CLOEXEC);
        run_with({0, 1, 2}, "readlink /proc/$$/fd/0 || echo closed");
    });
    EXPECT_EQ(outcome.out, "closed\n");
}

TEST_F(Spawn, AQuietChildHasTheNullDeviceThreeTimesAndNothingBeside) {
    const Outcome outcome = run_in_child([this] {
        dup2(create("input"), 0);
        const char *const command = "for fd in 0 1 2 3 4 5 6 7 8 9; do "
                                    "case $(readlink /proc/$$/fd/$fd) in /dev/null) found=$found$fd;; esac; done; "
                                    "test $found = 012";
        printf("%d", exit_code(platform_spawnl_quiet("sh", "sh", "-c", command, nullptr)));
    });
    EXPECT_EQ(outcome.out, "0");
}

TEST_F(Spawn, AQuietChildIsNotStartedWithoutTheNullDevice) {
    int32_t pid = 0;
    const int forks = forks_during([&pid] {
        const Interposed failing(hook::fopen, fail_always(hook::fopen, EMFILE, nullptr));
        pid = platform_spawnl_quiet("true", "true", nullptr);
    });
    EXPECT_EQ(pid, -1);
    EXPECT_EQ(forks, 0);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(exit_code(platform_spawnl_quiet("true", "true", nullptr)), 0) << "and the next one is";
}

TEST_F(Spawn, SpawningKeepsNoStorageAndAsksTheMemoryLibraryForNone) {
    const unsigned long before = zel_malloc_total_requested();
    EXPECT_EQ(blocks_left_by([] { wait_for(platform_spawnl("true", "true", "x", nullptr)); }), 0);
    EXPECT_EQ(blocks_left_by([] { wait_for(platform_spawnl_quiet("true", "true", "x", nullptr)); }), 0);
    EXPECT_EQ(zel_malloc_total_requested(), before);
}

TEST_F(Spawn, WithoutMemoryForTheArgumentsTheProcessEnds) {
    constexpr size_t kSize = 13 * sizeof(char *);
    const Outcome outcome = run_in_child([] {
        const Interposed failing(
            hook::malloc, [](size_t size) -> void * { return size == kSize ? nullptr : hook::malloc.real(size); });
        platform_spawnl("true", "true", "x", TEN, nullptr);
    });
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err,
              "Error: platform_spawnl: Not enough memory to allocate " + std::to_string(kSize) + " bytes.\n");
}
