// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The parent's side of a start in shared memory: the child runs in the memory of its
// parent until it executes its program, and the parent waits for that.
#include <components/platform/pair_control.h>

#include <components/platform/pair/handle.h>
#include <components/platform/pair/spawn_plan.h>
#include <components/platform/pair/start.h>
#include <msg/base/errno_kept.h>

#include <cerrno>
#include <sched.h>
#include <sys/wait.h>

namespace {

using zel::pair::ExecReport;
using zel::pair::SocketPair;
using zel::pair::SpawnMemory;
using zel::pair::SpawnPlan;
using zel::pair::SpawnRequest;

constexpr PlatformPairSpawnOptions kUsual = {.size = sizeof(PlatformPairSpawnOptions),
                                             .stdio_fds = nullptr,
                                             .directory = nullptr,
                                             .environment = nullptr,
                                             .flags = 0};

// A record of another size is not read. Its size alone is kept, for which it is refused.
PlatformPairSpawnOptions complete(const PlatformPairSpawnOptions *options) {
    if (options == nullptr || options->size == sizeof *options) {
        return options == nullptr ? kUsual : *options;
    }
    PlatformPairSpawnOptions refused = kUsual;
    refused.size = options->size;
    return refused;
}

bool asks_for(const SpawnRequest &request, PlatformPairSpawnFlag flag) {
    return (request.options.flags & static_cast<uint32_t>(flag)) != 0;
}

// The child has set errno too.
int32_t clone_child(SpawnPlan &plan, const SpawnMemory &memory) {
    const int error = errno;
    const int32_t pid = clone(zel::pair::run_spawned_child, memory.stack_end, CLONE_VM | CLONE_VFORK | SIGCHLD, &plan);
    if (pid != -1) {
        errno = error;
    }
    return pid;
}

int32_t clone_with_retries(SpawnPlan &plan, const SpawnMemory &memory) {
    int32_t pid = clone_child(plan, memory);
    for (int retry = 0; retry < zel::pair::kStartRetries && pid == -1 && errno == EAGAIN; ++retry) {
        pid = clone_child(plan, memory);
    }
    return pid;
}

// A handler of the parent may reap every child. The end is there either way.
void reap(int32_t pid) {
    while (waitpid(pid, nullptr, 0) == -1 && errno == EINTR) {
    }
}

// Starts the child with all signals blocked: no handler of the parent runs in the child.
// Returns its number, or -1 with errno and the step that failed.
int32_t start_blocked(SpawnPlan &plan, const SpawnMemory &memory, const char **step) {
    const int32_t pid = clone_with_retries(plan, memory);
    if (pid == -1) {
        *step = zel::pair::kForkFailed;
        return -1;
    }
    const int error = zel::pair::read_exec_report(plan.report, pid);
    if (error == 0) {
        return pid;
    }
    reap(pid);
    *step = zel::pair::kExecFailed;
    errno = error;
    return -1;
}

int32_t start(SpawnPlan &plan, const SpawnMemory &memory, const char **step) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, &before);
    plan.mask = before;
    if (plan.default_signals) {
        sigemptyset(&plan.mask);
    }
    const int32_t pid = start_blocked(plan, memory, step);
    const zel::ErrnoKept kept;
    sigprocmask(SIG_SETMASK, &before, nullptr);
    return pid;
}

int32_t start_companion(const SpawnRequest &request, const zel::Standards &standards, int child_end, ExecReport *report,
                        const char **step) {
    SpawnPlan plan = {.standards = request.options.stdio_fds != nullptr ? &standards : nullptr,
                      .close_others = asks_for(request, PLATFORM_PAIR_SPAWN_CLOSE_OTHERS),
                      .child_end = child_end,
                      .blocking = !asks_for(request, PLATFORM_PAIR_SPAWN_NON_BLOCKING),
                      .directory = request.options.directory,
                      .default_signals = asks_for(request, PLATFORM_PAIR_SPAWN_DEFAULT_SIGNALS),
                      .mask = {},
                      .candidates = nullptr,
                      .argv = request.argv,
                      .shell_argv = nullptr,
                      .environment = nullptr,
                      .report = report};
    SpawnMemory memory;
    if (!zel::pair::build_plan(request, child_end, plan, memory)) {
        *step = zel::pair::kForkFailed;
        return -1;
    }
    zel::flush_output();
    const int32_t pid = start(plan, memory, step);
    release(memory);
    return pid;
}

// A program that cannot be executed is a failed start and no companion. Its error stays
// with the handle for platform_pair_exec_error.
PairHandle *keep_failed_start(PairHandle *ph, const char *step, ExecReport *report) {
    zel::pair::keep_failure(ph, step);
    if (step == zel::pair::kExecFailed) {
        zel::pair::keep_exec_error(report, ph->error_number);
    }
    return ph;
}

PairHandle *open_pair(PairHandle *ph, const SpawnRequest &request) {
    // Without a place for the report a word of this function serves. The child shares it,
    // unless an instrument as valgrind makes a copy of the memory.
    ExecReport own_report = 0;
    ExecReport *report = zel::pair::take_exec_report(ph);
    report = report != nullptr ? report : &own_report;
    const int refusal = check_request(request);
    if (refusal != 0) {
        errno = refusal;
        return keep_failed_start(ph, zel::pair::kExecFailed, report);
    }
    // Chosen before the sockets are created: they may take the number of an entry that is
    // not open.
    const int *const fds = request.options.stdio_fds;
    const zel::Standards standards = fds != nullptr ? zel::choose_standards(fds) : zel::Standards{};
    SocketPair ends;
    if (!zel::pair::create_sockets(ends)) {
        return keep_failed_start(ph, zel::pair::kSocketsFailed, report);
    }
    const char *step = nullptr;
    const int32_t pid = start_companion(request, standards, ends.child_end, report, &step);
    if (pid == -1) {
        close_both(ends);
        return keep_failed_start(ph, step, report);
    }
    return zel::pair::keep_companion(ph, pid, ends, asks_for(request, PLATFORM_PAIR_SPAWN_IGNORE_SIGPIPE));
}

} // namespace

PairHandle *platform_pair_spawn(const char *env_name, const char *file, char *const argv[],
                                const PlatformPairSpawnOptions *options) {
    const SpawnRequest request = {.env_name = env_name, .file = file, .argv = argv, .options = complete(options)};
    const int blocking = asks_for(request, PLATFORM_PAIR_SPAWN_NON_BLOCKING) ? 0 : 1;
    PairHandle *ph = zel::pair::create_handle(true, PLATFORM_PAIR_KIND_LOCAL, blocking, "platform_pair_spawn");
    return open_pair(ph, request);
}
