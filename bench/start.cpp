// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Starting and reaping a companion that leaves at once, beside fork, execv and waitpid.
#include "link.h"
#include "rows.h"
#include "table.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace bench {

namespace {

void zel_start(benchmark::State &state) {
    const char *program = companion_path().c_str();
    while (state.KeepRunning()) {
        PairHandle *pair = platform_pair_parent_open_lp("ZEL_BENCH_PAIR", 1, 1, program, nullptr, program, "exit",
                                                        static_cast<char *>(nullptr));
        int32_t status = -1;
        platform_wait_child(platform_pair_companion_pid(pair), &status);
        platform_pair_close(pair);
        if (status != 0) {
            state.SkipWithError("the companion failed");
        }
    }
}

void bare_start(benchmark::State &state) {
    const std::vector<const char *> argv = {companion_path().c_str(), "exit", nullptr};
    while (state.KeepRunning()) {
        int status = -1;
        waitpid(start_by_hand(argv), &status, 0);
        if (status != 0) {
            state.SkipWithError("the companion failed");
        }
    }
}

// ---- Everything that the library's start promises to do, by hand
// ------------------------------------------------------

void stand_on_null_streams() {
    FILE *input = std::fopen("/dev/null", "r");
    FILE *output = std::fopen("/dev/null", "w");
    dup2(fileno(input), STDIN_FILENO);
    dup2(fileno(output), STDOUT_FILENO);
    dup2(fileno(output), STDERR_FILENO);
    std::fclose(input);
    std::fclose(output);
}

[[noreturn]] void become_companion(const char *const *argv, pid_t parent, const int *ends) {
    stand_on_null_streams();
    close(ends[0]);
    std::array<char, 128> variable;
    std::snprintf(variable.data(), variable.size(), "ZEL_BENCH_PAIR=%d %d pid-rtx_fd_l", parent, ends[1]);
    putenv(variable.data());
    execvp(argv[0], const_cast<char *const *>(argv));
    std::exit(1);
}

// Returns the wait status, or -1.
int run_with_same_steps(const char *const *argv) {
    const pid_t parent = getpid();
    int ends[2];
    int status = -1;
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) {
        return status;
    }
    fcntl(ends[0], F_SETFD, FD_CLOEXEC);
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        become_companion(argv, parent, ends);
    }
    close(ends[1]);
    waitpid(pid, &status, 0);
    close(ends[0]);
    return status;
}

void start_with_same_steps(benchmark::State &state) {
    const std::array<const char *, 3> argv = {companion_path().c_str(), "exit", nullptr};
    while (state.KeepRunning()) {
        if (run_with_same_steps(argv.data()) != 0) {
            state.SkipWithError("the companion failed");
        }
    }
}

} // namespace

void add_start_rows() {
    add_row("companion, started and reaped", Clock::wall, 60,
            {{"zel", zel_start}, {"floor", bare_start}, {"floor, same steps", start_with_same_steps}});
}

} // namespace bench
