// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Between the start of a spawned child and its program. The child runs in the memory of
// its parent, which waits meanwhile: it makes system calls, and changes nothing but the
// plan, its report and errno.
#include <components/platform/pair/spawn_plan.h>

#include <components/platform/base/descriptor.h>
#include <components/platform/base/open_descriptors.h>

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

// A function that is left by the program, and so never returns, must leave no mark of a
// sanitizer on the stack behind it.
#define ZEL_NOT_INSTRUMENTED __attribute__((no_sanitize("address", "undefined")))

namespace zel::pair {

namespace {

constexpr const char *kNullDevice = "/dev/null";
constexpr int kCannotExecute = 127;

// ---- The standard descriptors ---------------------------------------------------------------------------------------

// A place that the parent had closed may get the device at once.
bool open_null_device(int place, int mode) {
    const int fd = open(kNullDevice, mode);
    if (fd == -1 || fd == place) {
        return fd == place;
    }
    const bool placed = dup2(fd, place) != -1;
    close_keeping_errno(fd);
    return placed;
}

bool redirect(const SpawnPlan &plan) {
    if (plan.standards != nullptr) {
        return redirect_standard(*plan.standards);
    }
    return open_null_device(STDIN_FILENO, O_RDONLY) && open_null_device(STDOUT_FILENO, O_WRONLY) &&
           dup2(STDOUT_FILENO, STDERR_FILENO) != -1;
}

// ---- All other descriptors ------------------------------------------------------------------------------------------

bool close_range(unsigned first, unsigned last) {
    return first > last || syscall(SYS_close_range, first, last, 0) == 0;
}

void close_unless_kept(int fd, int kept) {
    if (fd > STDERR_FILENO && fd != kept) {
        close(fd);
    }
}

// A kernel before 5.9 has no call that closes a range.
bool close_others(const SpawnPlan &plan) {
    const auto end = static_cast<unsigned>(plan.child_end);
    return !plan.close_others || (close_range(STDERR_FILENO + 1, end - 1) && close_range(end + 1, UINT_MAX)) ||
           visit_open_descriptors(close_unless_kept, plan.child_end);
}

// ---- Mode, directory, signals ---------------------------------------------------------------------------------------

void set_mode(const SpawnPlan &plan) {
    if (!plan.blocking) {
        set_blocking(plan.child_end, false);
    }
}

bool enter_directory(const SpawnPlan &plan) {
    return plan.directory == nullptr || chdir(plan.directory) == 0;
}

// The table of handlers is the child's own copy. A handler that ran here would run in the
// memory of the parent.
void reset_signals(const SpawnPlan &plan) {
    const struct sigaction to_default = {};
    for (int signal = 1; signal < NSIG; ++signal) {
        struct sigaction action = {};
        if (sigaction(signal, nullptr, &action) == -1 || action.sa_handler == SIG_DFL) {
            continue;
        }
        if (action.sa_handler != SIG_IGN || plan.default_signals) {
            sigaction(signal, &to_default, nullptr);
        }
    }
    sigprocmask(SIG_SETMASK, &plan.mask, nullptr);
}

// ---- The program ----------------------------------------------------------------------------------------------------

ZEL_NOT_INSTRUMENTED int execute(const char *path, const char *const *argv, const char *const *environment) {
    syscall(SYS_execve, path, argv, environment);
    return errno;
}

// A file without a format that the kernel knows is a script for the shell.
ZEL_NOT_INSTRUMENTED int execute_or_interpret(const SpawnPlan &plan, const char *path) {
    const int error = execute(path, plan.argv, plan.environment);
    if (error != ENOEXEC) {
        return error;
    }
    plan.shell_argv[1] = path;
    return execute(plan.shell_argv[0], plan.shell_argv, plan.environment);
}

// Whether the program may stand in a later directory of the path.
bool may_stand_elsewhere(int error) {
    return error == EACCES || error == ENOENT || error == ENOTDIR || error == ESTALE || error == ENODEV ||
           error == ETIMEDOUT;
}

// Tries the candidates in the order of execvp. Returns the error: a file that may not be
// executed counts for more than one that is not there.
ZEL_NOT_INSTRUMENTED int execute_program(const SpawnPlan &plan) {
    bool denied = false;
    int error = ENOENT;
    for (const char *const *path = plan.candidates; *path != nullptr; ++path) {
        error = execute_or_interpret(plan, *path);
        if (!may_stand_elsewhere(error)) {
            return error;
        }
        denied = denied || error == EACCES;
    }
    return denied ? EACCES : error;
}

bool prepare(const SpawnPlan &plan) {
    if (!redirect(plan) || !close_others(plan) || !enter_directory(plan)) {
        return false;
    }
    set_mode(plan);
    reset_signals(plan);
    return true;
}

} // namespace

ZEL_NOT_INSTRUMENTED int run_spawned_child(void *argument) {
    const auto &plan = *static_cast<const SpawnPlan *>(argument);
    write_exec_report(plan.report, prepare(plan) ? execute_program(plan) : errno);
    for (;;) {
        syscall(SYS_exit_group, kCannotExecute);
    }
}

} // namespace zel::pair
