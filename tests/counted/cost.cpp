// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The cost of a piece of work: a child traces itself, and this process writes down the
// system calls between two marks.
#include "cost.h"

#include "call_name.h"
#include "meter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <malloc.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace zel::test {

namespace {

constexpr unsigned kSecondsAllowed = 60;
constexpr int kSystemCallStop = SIGTRAP | 0x80;

// A mark is a system call that does nothing, with arguments that nobody else passes.
constexpr unsigned long kMark = 0x5A454C;
enum MarkKind : unsigned long { kBegin = 1, kEnd = 2 };

// What the tracing process knows of the traced ones.
struct Trace {
    pid_t worker; // the process of the body; all others are its children
    bool counting;
    Cost cost;
};

void read_mark(Trace &trace, const __ptrace_syscall_info &info) {
    trace.counting = info.entry.args[1] == kBegin;
    trace.cost.allocations = static_cast<size_t>(info.entry.args[2]);
    trace.cost.releases = static_cast<size_t>(info.entry.args[3]);
    trace.cost.copied = static_cast<size_t>(info.entry.args[4]);
}

void note_entry(Trace &trace, pid_t pid, const __ptrace_syscall_info &info) {
    if (info.entry.nr == SYS_getppid && info.entry.args[0] == kMark) {
        read_mark(trace, info);
        return;
    }
    // A child may still be on its way when the scope ends.
    const bool of_child = pid != trace.worker;
    if (of_child || trace.counting) {
        Calls &calls = of_child ? trace.cost.calls_of_child : trace.cost.calls;
        calls.push_back(call_name(static_cast<long>(info.entry.nr), static_cast<long>(info.entry.args[0])));
    }
}

void note_call(Trace &trace, pid_t pid) {
    __ptrace_syscall_info info = {};
    if (ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof info, &info) > 0 && info.op == PTRACE_SYSCALL_INFO_ENTRY) {
        note_entry(trace, pid, info);
    }
}

// Lets a stopped process go on. A child of the worker is left alone once its program runs.
void go_on(Trace &trace, pid_t pid, int status) {
    const int signal = WSTOPSIG(status);
    if (signal == kSystemCallStop) {
        note_call(trace, pid);
    }
    if (status >> 8 == (SIGTRAP | PTRACE_EVENT_EXEC << 8)) {
        ptrace(PTRACE_DETACH, pid, 0L, 0L);
        return;
    }
    // The stops of the tracing itself are no signals to be handed on.
    const bool own = signal == kSystemCallStop || signal == SIGTRAP || signal == SIGSTOP;
    ptrace(PTRACE_SYSCALL, pid, 0L, own ? 0L : static_cast<long>(signal));
}

// Follows the worker and its children to the worker's end. Returns how it ended.
int follow(Trace &trace) {
    for (;;) {
        int status = 0;
        const pid_t pid = waitpid(-1, &status, __WALL);
        if (pid == -1) {
            return -1;
        }
        if (WIFSTOPPED(status)) {
            go_on(trace, pid, status);
        } else if (pid == trace.worker) {
            return status;
        }
    }
}

// Room in the heap of the C library, which then asks the system for none in the scope.
void make_room() {
    constexpr size_t kBlock = 100000; // below the size that has a mapping of its own
    constexpr int kTrimThreshold = 1 << 30;
    void *blocks[20];
    mallopt(M_TRIM_THRESHOLD, kTrimThreshold);
    for (void *&block : blocks) {
        block = malloc(kBlock);
    }
    std::for_each(std::begin(blocks), std::end(blocks), free);
}

// noexcept: an exception must not reach the test program, which would run its other tests
// in the child.
[[noreturn]] void work(const std::function<void()> &body) noexcept {
    alarm(kSecondsAllowed);
    require(ptrace(PTRACE_TRACEME, 0, 0L, 0L) == 0, "nobody may trace a process here");
    raise(SIGSTOP); // until the options are set
    make_room();
    body();
    fflush(stderr);
    _exit(0);
}

} // namespace

Counted::Counted() {
    syscall(SYS_getppid, kMark, kBegin, 0L, 0L, 0L);
    meter.on = true;
}

Counted::~Counted() {
    meter.on = false;
    syscall(SYS_getppid, kMark, kEnd, meter.allocations, meter.releases, meter.copied);
}

void require(bool condition, const char *what) {
    if (!condition) {
        perror(what);
        _exit(1);
    }
}

Cost cost_of(const std::function<void()> &body) {
    fflush(nullptr);
    const pid_t worker = fork();
    if (worker == 0) {
        work(body);
    }
    int status = 0;
    waitpid(worker, &status, __WALL);
    constexpr long kOptions = PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL | PTRACE_O_TRACEEXEC | PTRACE_O_TRACEFORK |
                              PTRACE_O_TRACEVFORK | PTRACE_O_TRACECLONE;
    ptrace(PTRACE_SETOPTIONS, worker, 0L, kOptions);
    ptrace(PTRACE_SYSCALL, worker, 0L, 0L);
    Trace trace = {.worker = worker, .counting = false, .cost = {}};
    const int end = follow(trace);
    EXPECT_TRUE(WIFEXITED(end) && WEXITSTATUS(end) == 0) << "the work ended by wait status " << end;
    return trace.cost;
}

} // namespace zel::test
