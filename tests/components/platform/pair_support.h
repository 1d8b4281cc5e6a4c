// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The support of the tests of the pair: starting companions, ending them, and the steps around a fork.
#ifndef ZEL_TESTS_COMPONENTS_PLATFORM_PAIR_SUPPORT_H
#define ZEL_TESTS_COMPONENTS_PLATFORM_PAIR_SUPPORT_H

#include <companions/pair_values.h>
#include <components/platform/zel_pair_connection.h>
#include <support/census.h>
#include <support/child.h>
#include <support/files.h>
#include <support/interpose.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace zel::test {

// A variable of this process for the scope of a test; no value unsets it.
class ScopedVariable {
public:
    ScopedVariable(const std::string &name, const std::optional<std::string> &value);
    ~ScopedVariable();
    ScopedVariable(const ScopedVariable &) = delete;
    ScopedVariable &operator=(const ScopedVariable &) = delete;

private:
    std::string name_;
    std::optional<std::string> before_;
};

// How a companion is started, by platform_pair_parent_open_vp.
struct Start {
    std::string companion = "pair_echo";
    std::vector<std::string> arguments = {}; // after the name
    int ignore_sigpipe = 0;
    int blocking = 1;
    const int *stdio_fds = nullptr;
};

PairHandle *start(const Start &how = {});

// A companion that cannot be executed.
PairHandle *start_missing(const int *stdio_fds = nullptr);

// A handle whose sockets could not be created: nothing is open, and there is no companion.
PairHandle *start_without_sockets();

// A record with a different value in each field and no error text. It is not valid until it points at itself.
PairHandle sample_record(int32_t parent);

// A replacement that counts its calls and does nothing else.
template <typename Result, typename... Arguments>
std::function<Result(Arguments...)> count_calls(Hook<Result(Arguments...)> & /*hook*/, int &calls,
                                                std::type_identity_t<Result> result) {
    return [&calls, result](Arguments...) -> Result {
        ++calls;
        return result;
    };
}

// Closes what is open now and was not before. Returns how many descriptors that were.
size_t close_added_since(const std::set<int> &before);

// Waits until the child has ended, without reaping it.
void wait_until_ended(pid_t pid);

// Reaps the child. Returns its exit status, or -N after signal N.
int reap(pid_t pid);

// Closes the handle and reaps its companion, like reap.
int finish(PairHandle *ph);

// Whether one value goes there and back.
bool echoes(PairHandle *ph, int32_t value);

// A handle on one end of a pair of sockets, whose other end the test holds. Both ends are closed where the
// scope ends, unless a handle closed them.
struct LocalPair {
    LocalPair();
    ~LocalPair();
    LocalPair(const LocalPair &) = delete;
    LocalPair &operator=(const LocalPair &) = delete;

    void close_peer();

    PairHandle *ph; // a companion's handle, blocking, that stands on one of them
    int peer;       // the other one
};

// The report of a pair_reporter.
struct Report {
    std::vector<std::string> arguments;
    std::string variable;
    int end = -1;
    std::map<int, std::string> descriptors; // "MODE TARGET"
};

// Reads the report to the end of the stream.
Report read_report(PairHandle *ph);

// The file that a descriptor of this process leads to.
std::string target_of(int fd);

// Adds the flags to a descriptor's mode.
void add_mode(int fd, int flags);
bool is_nonblocking(int fd);

// From now on a signal interrupts, again and again, what this process waits for. For a process of its own: nothing ends
// the signals, and no alarm ends the process any more.
void start_timer_signals(void (*handler)(int), suseconds_t microseconds);

// Lines that this process and its forked children add to one list, in the order of time.
class StepLog {
public:
    StepLog();
    ~StepLog();
    StepLog(const StepLog &) = delete;
    StepLog &operator=(const StepLog &) = delete;

    void add(const std::string &line);
    std::vector<std::string> of_parent() const; // lines of the process that made the log
    std::vector<std::string> of_child() const;  // lines of all others

private:
    std::vector<std::string> lines_marked(char mark) const;

    struct Shared;
    Shared *shared_;
    pid_t owner_;
};

// Writes down the system calls of an open, on both sides of the fork. The ends of the pair are called end0 and end1,
// the streams on the null device null-r and null-w.
class RecordedOpen {
public:
    RecordedOpen() = default;
    std::vector<std::string> parent_steps() const { return log_.of_parent(); }
    std::vector<std::string> child_steps() const { return log_.of_child(); }

private:
    std::string name_of(int fd) const;
    int on_socketpair(int family, int type, int protocol, int *ends);
    int on_fcntl(int fd, int command, long argument);
    FILE *on_fopen(const char *path, const char *mode);
    int on_execvp(const char *file, char *const *argv);

    StepLog log_;
    std::map<int, std::string> names_;
    Interposed<int(int, int, int, int *)> socketpair_{
        hook::socketpair,
        [this](int family, int type, int protocol, int *ends) { return on_socketpair(family, type, protocol, ends); }};
    Interposed<int(int, int, long)> fcntl_{
        hook::fcntl, [this](int fd, int command, long argument) { return on_fcntl(fd, command, argument); }};
    Interposed<FILE *(const char *, const char *)> fopen_{
        hook::fopen, [this](const char *path, const char *mode) { return on_fopen(path, mode); }};
    Interposed<int(const char *, char *const *)> execvp_{
        hook::execvp, [this](const char *file, char *const *argv) { return on_execvp(file, argv); }};
    Interposed<pid_t()> fork_{hook::fork, [this] {
                                  log_.add("fork");
                                  return hook::fork.real();
                              }};
    Interposed<int(FILE *)> fflush_{hook::fflush, [this](FILE *stream) {
                                        log_.add(stream == nullptr ? "flush all" : "flush one");
                                        return hook::fflush.real(stream);
                                    }};
    Interposed<int(int)> close_{hook::close, [this](int fd) {
                                    log_.add("close " + name_of(fd));
                                    return hook::close.real(fd);
                                }};
    Interposed<int(int, int)> dup2_{hook::dup2, [this](int from, int to) {
                                        log_.add("dup2 " + name_of(from) + " " + name_of(to));
                                        return hook::dup2.real(from, to);
                                    }};
    Interposed<int(int, const struct sigaction *, struct sigaction *)> sigaction_{
        hook::sigaction, [this](int signal, const struct sigaction *action, struct sigaction *before) {
            log_.add((action->sa_handler == SIG_IGN ? "ignore " : "handle ") + std::to_string(signal));
            return hook::sigaction.real(signal, action, before);
        }};
};

} // namespace zel::test

#endif
