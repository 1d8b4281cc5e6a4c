// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Running code in a process of its own.
#include <support/child.h>

#include <support/files.h>

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace zel::test {

namespace {

constexpr unsigned kSecondsAllowed = 60;

// A file without a name. Unlike a pipe it takes any amount of output.
int open_scratch() {
    // mkostemp replaces the six X by a name that is free.
    char name[] = "/tmp/zel-test-XXXXXX";
    const int fd = mkostemp(name, O_CLOEXEC);
    unlink(name);
    return fd;
}

std::string read_from_start(int fd) {
    std::string text;
    char piece[4096];
    lseek(fd, 0, SEEK_SET);
    for (ssize_t count = read(fd, piece, sizeof piece); count > 0; count = read(fd, piece, sizeof piece)) {
        text.append(piece, static_cast<size_t>(count));
    }
    close(fd);
    return text;
}

// noexcept: an exception must not reach the test program, which would run its other tests
// in the child.
[[noreturn]] void run_body(const std::function<void()> &body, int out, int err) noexcept {
    alarm(kSecondsAllowed);
    const int in = open("/dev/null", O_RDONLY);
    dup2(in, STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    for (const int fd : {in, out, err}) {
        close(fd);
    }
    body();
    exit(0);
}

} // namespace

Outcome run_in_child(const std::function<void()> &body) {
    fflush(nullptr);
    const int out = open_scratch();
    const int err = open_scratch();
    const pid_t pid = fork();
    if (pid == 0) {
        run_body(body, out, err);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) == -1 && errno == EINTR) {
    }
    Outcome outcome;
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    outcome.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    outcome.out = read_from_start(out);
    outcome.err = read_from_start(err);
    return outcome;
}

Outcome run_program(const std::vector<std::string> &arguments) {
    return run_in_child([&arguments] {
        std::vector<char *> argv;
        argv.reserve(arguments.size() + 1);
        for (const std::string &argument : arguments) {
            argv.push_back(const_cast<char *>(argument.c_str()));
        }
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        _exit(127);
    });
}

void give_up_root() {
    constexpr unsigned kNobody = 65534;
    if (geteuid() == 0 && (setgid(kNobody) != 0 || setuid(kNobody) != 0)) {
        abort();
    }
}

} // namespace zel::test
