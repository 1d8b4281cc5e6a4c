// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The support of the tests of platform_pair_spawn and of the calls around it.
#include "spawn_support.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace zel::test {

PlatformPairSpawnOptions usual() {
    PlatformPairSpawnOptions options = {};
    options.size = sizeof options;
    return options;
}

PairHandle *spawn(const std::string &file, std::vector<std::string> arguments,
                  const PlatformPairSpawnOptions *options) {
    std::vector<char *> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string &argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    return platform_pair_spawn(kPairVariable, file.c_str(), argv.data(), options);
}

PairHandle *spawn_companion(const std::string &name, const PlatformPairSpawnOptions *options) {
    return spawn(companion_path(name), {name}, options);
}

std::string said_by(const std::string &file, std::vector<std::string> arguments, PlatformPairSpawnOptions options,
                    int status) {
    int out[2];
    EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
    const int fds[] = {0, out[1], 2};
    options.stdio_fds = fds;
    PairHandle *ph = spawn(file, std::move(arguments), &options);
    EXPECT_EQ(ph->error_number, 0) << platform_pair_describe(ph, nullptr);
    close(out[1]);
    std::string text;
    char piece[4096];
    for (ssize_t count = read(out[0], piece, sizeof piece); count > 0; count = read(out[0], piece, sizeof piece)) {
        text.append(piece, static_cast<size_t>(count));
    }
    close(out[0]);
    EXPECT_EQ(finish(ph), status);
    return text;
}

std::string said_by_shell(const std::string &script, const PlatformPairSpawnOptions &options) {
    return said_by("sh", {"sh", "-c", script}, options);
}

void expect_failed_start(PairHandle *ph, int error, const char *text) {
    EXPECT_EQ(ph->error_number, error);
    EXPECT_STREQ(ph->error_text, text);
    EXPECT_EQ(ph->companion_pid, 0);
    EXPECT_EQ(ph->parent, 1);
    EXPECT_EQ(ph->rx_fd, -1);
    EXPECT_EQ(ph->tx_fd, -1);
    EXPECT_EQ(ph->child_exit_status, 256);
    EXPECT_FALSE(has_children());
    platform_pair_close(ph);
}

void forget_system_calls(const std::vector<long> &numbers) {
    std::vector<sock_filter> filter = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
    for (const long number : numbers) {
        filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(number), 0, 1));
        filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS));
    }
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    const sock_fprog program = {.len = static_cast<unsigned short>(filter.size()), .filter = filter.data()};
    EXPECT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    EXPECT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program), 0);
}

int64_t milliseconds_now() {
    timespec now = {};
    hook::clock_gettime.real(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

} // namespace zel::test
