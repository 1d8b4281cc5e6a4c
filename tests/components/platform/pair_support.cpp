// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The support of the tests of the pair.
#include "pair_support.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sstream>
#include <sys/mman.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

// Leaks on purpose are not listed on the standard error that tests compare. Weak: a test program may define its own.
extern "C" __attribute__((weak)) const char *__lsan_default_options();
extern "C" __attribute__((weak)) const char *__lsan_default_options() {
    return "print_suppressions=0";
}

namespace zel::test {

namespace {

void put_variable(const std::string &name, const std::optional<std::string> &value) {
    if (value) {
        setenv(name.c_str(), value->c_str(), 1);
    } else {
        unsetenv(name.c_str());
    }
}

PairHandle *start_program(const std::string &path, const Start &how) {
    std::vector<std::string> arguments = how.arguments;
    arguments.insert(arguments.begin(), how.companion);
    std::vector<char *> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string &argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    return platform_pair_parent_open_vp(kPairVariable, how.ignore_sigpipe, how.blocking, path.c_str(), how.stdio_fds,
                                        argv.data());
}

std::string read_to_end(PairHandle *ph) {
    std::string text;
    char piece[4096];
    for (;;) {
        const int32_t count = platform_pair_recv(ph, piece, sizeof piece);
        if (count == 0) {
            return text;
        }
        text.append(piece, static_cast<size_t>(count));
    }
}

void read_line_of_report(Report &report, const std::string &line) {
    const size_t blank = line.find(' ');
    const std::string word = line.substr(0, blank);
    const std::string rest = line.substr(blank + 1);
    if (word == "arg") {
        report.arguments.push_back(rest);
    } else if (word == "env") {
        report.variable = rest;
    } else if (word == "end") {
        report.end = std::stoi(rest);
    } else {
        report.descriptors[std::stoi(rest)] = rest.substr(rest.find(' ') + 1);
    }
}

} // namespace

ScopedVariable::ScopedVariable(const std::string &name, const std::optional<std::string> &value) : name_(name) {
    const char *before = getenv(name.c_str());
    if (before != nullptr) {
        before_ = before;
    }
    put_variable(name_, value);
}

ScopedVariable::~ScopedVariable() {
    put_variable(name_, before_);
}

PairHandle *start(const Start &how) {
    return start_program(companion_path(how.companion), how);
}

PairHandle *start_missing(const int *stdio_fds) {
    return start_program("/nowhere/to/be/found", {.companion = "missing", .stdio_fds = stdio_fds});
}

PairHandle *start_without_sockets() {
    const Interposed failing(hook::socketpair, fail_always(hook::socketpair, EMFILE, -1));
    return start();
}

PairHandle sample_record(int32_t parent) {
    return {.companion_pid = 4711,
            .parent = parent,
            .kind = 12,
            .hybrid_environment = 13,
            .blocking = 14,
            .rx_fd = 15,
            .tx_fd = 16,
            .child_exit_status = 256,
            .child_term_signal = 9,
            .error_number = ENOENT,
            .error_text = nullptr,
            .self = nullptr};
}

size_t close_added_since(const std::set<int> &before) {
    size_t added = 0;
    for (const int fd : open_descriptors()) {
        if (before.count(fd) == 0) {
            ++added;
            hook::close.real(fd);
        }
    }
    return added;
}

void wait_until_ended(pid_t pid) {
    siginfo_t info = {};
    while (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) == -1 && errno == EINTR) {
    }
}

int reap(pid_t pid) {
    int status = 0;
    while (hook::waitpid.real(pid, &status, 0) == -1) {
        if (errno != EINTR) {
            ADD_FAILURE() << "no child to wait for: " << strerror(errno);
            return INT32_MIN;
        }
    }
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

int finish(PairHandle *ph) {
    const pid_t pid = platform_pair_companion_pid(ph);
    platform_pair_close(ph);
    return reap(pid);
}

bool echoes(PairHandle *ph, int32_t value) {
    int32_t answer = ~value;
    return send_value(ph, value) && receive_value(ph, &answer) && answer == value;
}

LocalPair::LocalPair() : ph(nullptr), peer(-1) {
    int ends[2];
    EXPECT_EQ(hook::socketpair.real(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const ScopedVariable variable(kPairVariable,
                                  std::to_string(getpid()) + " " + std::to_string(ends[0]) + " pid-rtx_fd");
    ph = platform_pair_child_open(kPairVariable, 0, 1);
    peer = ends[1];
}

LocalPair::~LocalPair() {
    close_peer();
    if (ph != nullptr) {
        platform_pair_close(ph);
    }
}

void LocalPair::close_peer() {
    if (peer != -1) {
        hook::close.real(peer);
    }
    peer = -1;
}

Report read_report(PairHandle *ph) {
    Report report;
    std::istringstream text(read_to_end(ph));
    for (std::string line; std::getline(text, line);) {
        read_line_of_report(report, line);
    }
    return report;
}

std::string target_of(int fd) {
    char target[4096];
    const ssize_t length = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target, sizeof target);
    return {target, length < 0 ? 0 : static_cast<size_t>(length)};
}

void add_mode(int fd, int flags) {
    hook::fcntl.real(fd, F_SETFL, hook::fcntl.real(fd, F_GETFL, 0) | flags);
}

bool is_nonblocking(int fd) {
    return (hook::fcntl.real(fd, F_GETFL, 0) & O_NONBLOCK) != 0;
}

void start_timer_signals(void (*handler)(int), suseconds_t microseconds) {
    struct sigaction action = {};
    action.sa_handler = handler;
    sigaction(SIGALRM, &action, nullptr);
    const itimerval interval = {.it_interval = {0, microseconds}, .it_value = {0, microseconds}};
    setitimer(ITIMER_REAL, &interval, nullptr);
}

// ---- Steps ----------------------------------------------------------------------------------------------------------

struct StepLog::Shared {
    size_t used;
    char text[60000];
};

StepLog::StepLog() : shared_(nullptr), owner_(getpid()) {
    void *memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    EXPECT_NE(memory, MAP_FAILED);
    shared_ = static_cast<Shared *>(memory);
}

StepLog::~StepLog() {
    munmap(shared_, sizeof(Shared));
}

void StepLog::add(const std::string &line) {
    const std::string entry = (getpid() == owner_ ? "p" : "c") + line + "\n";
    if (shared_->used + entry.size() <= sizeof shared_->text) {
        memcpy(shared_->text + shared_->used, entry.data(), entry.size());
        shared_->used += entry.size();
    }
}

std::vector<std::string> StepLog::of_parent() const {
    return lines_marked('p');
}

std::vector<std::string> StepLog::of_child() const {
    return lines_marked('c');
}

std::vector<std::string> StepLog::lines_marked(char mark) const {
    std::vector<std::string> lines;
    std::istringstream text(std::string(shared_->text, shared_->used));
    for (std::string line; std::getline(text, line);) {
        if (line[0] == mark) {
            lines.push_back(line.substr(1));
        }
    }
    return lines;
}

std::string RecordedOpen::name_of(int fd) const {
    const auto found = names_.find(fd);
    return found == names_.end() ? std::to_string(fd) : found->second;
}

int RecordedOpen::on_socketpair(int family, int type, int protocol, int *ends) {
    const bool as_stated = family == AF_UNIX && type == SOCK_STREAM && protocol == 0;
    log_.add(as_stated ? "socketpair" : "another socketpair");
    const int result = hook::socketpair.real(family, type, protocol, ends);
    names_[ends[0]] = "end0";
    names_[ends[1]] = "end1";
    return result;
}

int RecordedOpen::on_fcntl(int fd, int command, long argument) {
    const std::string name = name_of(fd);
    switch (command) {
    case F_GETFL:
        log_.add("get mode of " + name);
        break;
    case F_SETFL:
        log_.add(((argument & O_NONBLOCK) != 0 ? "do not block " : "block ") + name);
        break;
    case F_SETFD:
        log_.add((argument == FD_CLOEXEC ? "close on exec " : "keep on exec ") + name);
        break;
    default:
        log_.add("fcntl " + std::to_string(command) + " " + name);
    }
    return hook::fcntl.real(fd, command, argument);
}

FILE *RecordedOpen::on_fopen(const char *path, const char *mode) {
    log_.add(std::string("open ") + path + " " + mode);
    FILE *stream = hook::fopen.real(path, mode);
    names_[fileno(stream)] = std::string("null-") + mode;
    return stream;
}

int RecordedOpen::on_execvp(const char *file, char *const *argv) {
    const char *value = getenv(kPairVariable);
    log_.add(std::string("execute ") + file + " with " + (value == nullptr ? "nothing" : value));
    return hook::execvp.real(file, argv);
}

} // namespace zel::test
