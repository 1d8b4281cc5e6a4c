// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Starting and reaping a companion that leaves at once, beside fork, exec and wait by hand.
#include "start.h"

#include "link.h"
#include "outside.h"
#include "rows.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
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

[[noreturn]] void become_companion(const char *const *argv, pid_t parent, const Ends &ends) {
    const int null = open("/dev/null", O_RDWR);
    dup2(null, STDIN_FILENO);
    dup2(null, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
    close(null);
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

int start_with_fork() {
    const std::array<const char *, 3> argv = {companion_path().c_str(), "exit", nullptr};
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
        return -1;
    }
    const Ends ends = {.parent = fds[0], .child = fds[1]};
    fcntl(ends.child, F_SETFD, 0);
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        become_companion(argv.data(), parent, ends);
    }
    close(ends.child);
    const int status = status_of(pid);
    close(ends.parent);
    return status;
}

int start_alone() {
    const std::array<const char *, 3> argv = {companion_path().c_str(), "exit", nullptr};
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
}

} // namespace bench
