// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Starting and reaping a companion that leaves at once, beside fork, exec and wait by hand.
#include "start.h"

#include "link.h"
#include "outside.h"
#include "rows.h"

#include <components/platform/pair_control.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace bench {

namespace {

// What the interface promises, by hand: a socket pair, the standard descriptors on /dev/null, the number of the end in
// the environment.
struct Ends {
    int parent;
    int child;
};

using Argv = std::array<const char *, 3>;

Argv argv_of_companion() {
    return {companion_path().c_str(), "exit", nullptr};
}

bool open_ends(Ends &ends) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
        return false;
    }
    ends = {.parent = fds[0], .child = fds[1]};
    fcntl(ends.child, F_SETFD, 0);
    return true;
}

void take_null_device() {
    const int null = open("/dev/null", O_RDWR);
    dup2(null, STDIN_FILENO);
    dup2(null, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
    close(null);
}

[[noreturn]] void become_companion(const char *const *argv, pid_t parent, const Ends &ends) {
    take_null_device();
    close(ends.parent);
    std::array<char, 128> variable;
    std::snprintf(variable.data(), variable.size(), "ZEL_BENCH_PAIR=%d %d pid-rtx_fd_l", parent, ends.child);
    putenv(variable.data());
    execvp(argv[0], const_cast<char *const *>(argv));
    _exit(1);
}

int status_of(pid_t pid) {
    int status = -1;
    waitpid(pid, &status, 0);
    return status;
}

int close_and_reap(const Ends &ends, pid_t pid) {
    close(ends.child);
    const int status = status_of(pid);
    close(ends.parent);
    return status;
}

// A child in shared memory cannot set it: the parent does, and its own environment has the variable from then on.
void put_variable(const Ends &ends) {
    std::array<char, 64> value;
    std::snprintf(value.data(), value.size(), "%d %d pid-rtx_fd_l", getpid(), ends.child);
    setenv("ZEL_BENCH_PAIR", value.data(), 1);
}

} // namespace

int start_by_library() {
    const char *program = companion_path().c_str();
    PairHandle *pair = platform_pair_parent_open_lp("ZEL_BENCH_PAIR", 1, 1, program, nullptr, program, "exit",
                                                    static_cast<char *>(nullptr));
    int32_t status = -1;
    platform_wait_child(platform_pair_companion_pid(pair), &status);
    platform_pair_close(pair);
    return status;
}

int start_by_spawn() {
    Argv argv = argv_of_companion();
    PairHandle *pair = platform_pair_spawn("ZEL_BENCH_PAIR", argv[0], const_cast<char *const *>(argv.data()), nullptr);
    int32_t status = -1;
    platform_wait_child(platform_pair_companion_pid(pair), &status);
    platform_pair_close(pair);
    return status;
}

int start_with_fork() {
    const Argv argv = argv_of_companion();
    Ends ends;
    if (!open_ends(ends)) {
        return -1;
    }
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        become_companion(argv.data(), parent, ends);
    }
    return close_and_reap(ends, pid);
}

int start_pair_with_vfork() {
    const Argv argv = argv_of_companion();
    Ends ends;
    if (!open_ends(ends)) {
        return -1;
    }
    put_variable(ends);
    const pid_t pid = vfork(); // NOLINT(clang-analyzer-security.insecureAPI.vfork): it is what is measured
    if (pid == 0) {
        take_null_device(); // NOLINT(clang-analyzer-unix.Vfork): system calls alone
        execv(argv[0], const_cast<char *const *>(argv.data()));
        _exit(1);
    }
    return close_and_reap(ends, pid);
}

int start_pair_with_posix_spawn() {
    const Argv argv = argv_of_companion();
    Ends ends;
    if (!open_ends(ends)) {
        return -1;
    }
    put_variable(ends);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDWR, 0);
    posix_spawn_file_actions_adddup2(&actions, STDIN_FILENO, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, STDIN_FILENO, STDERR_FILENO);
    pid_t pid = -1;
    posix_spawn(&pid, argv[0], &actions, nullptr, const_cast<char *const *>(argv.data()), environ);
    posix_spawn_file_actions_destroy(&actions);
    return close_and_reap(ends, pid);
}

int start_alone() {
    const Argv argv = argv_of_companion();
    const pid_t pid = fork();
    if (pid == 0) {
        execv(argv[0], const_cast<char *const *>(argv.data()));
        _exit(1);
    }
    return status_of(pid);
}

int start_with_vfork() {
    const char *program = companion_path().c_str();
    const pid_t pid = vfork(); // NOLINT(clang-analyzer-security.insecureAPI.vfork): it is what is measured
    if (pid == 0) {
        execl(program, program, "exit", static_cast<char *>(nullptr));
        _exit(1);
    }
    return status_of(pid);
}

Body starting(int (*start)()) {
    return [start](benchmark::State &state) {
        while (state.KeepRunning()) {
            if (start() != 0) {
                state.SkipWithError("the companion failed");
            }
        }
    };
}

void add_start_rows() {
    add_row({.name = "companion started and reaped", .clock = Clock::wall, .iterations = 50},
            with_peers("start '" + companion_path() + "'", Clock::wall,
                       {{"zel", starting(start_by_library)},
                        {"floor", starting(start_with_fork)},
                        {"fork and exec alone", starting(start_alone)},
                        {"vfork and exec alone", starting(start_with_vfork)}}));
    add_row({.name = "companion spawned and reaped", .clock = Clock::wall, .iterations = 50},
            {{"zel", starting(start_by_spawn)},
             {"floor", starting(start_pair_with_vfork)},
             {"posix_spawn", starting(start_pair_with_posix_spawn)},
             {"vfork and exec alone", starting(start_with_vfork)}});
}

} // namespace bench
