// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The parent's side of start-up: it creates the pair, forks and executes the companion.
#include <components/platform/zel_pair_connection.h>

#include <components/platform/base/child_start.h>
#include <components/platform/base/descriptor.h>
#include <components/platform/environment.h>
#include <components/platform/pair/exec_error.h>
#include <components/platform/pair/handle.h>
#include <components/platform/pair/start.h>
#include <components/platform/process_info.h>
#include <msg/base/assertion.h>
#include <msg/base/text.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using zel::pair::kUnit;
using zel::pair::SocketPair;

constexpr int kMaxArguments = 256;

// The arguments of a start.
struct Start {
    const char *env_name;
    bool blocking;
    const char *file;
    const zel::Standards *standards; // null: the null device
    char *const *argv;
    std::array<char, 64> child_address; // the value of the variable
    zel::pair::ExecReport *exec_report; // where the child leaves the reason; may be null
};

// EAGAIN means that a limit of processes is reached. The fork is tried again without a
// pause.
int32_t fork_with_retries() {
    int32_t pid = zel::fork_flushed();
    for (int retry = 0; retry < zel::pair::kStartRetries && pid == -1 && errno == EAGAIN; ++retry) {
        pid = zel::fork_flushed();
    }
    return pid;
}

// ---- Between fork and exec ------------------------------------------------------------------------------------------

// Without memory the variable keeps its older value. That may name the end of another
// pair, so the variable is removed.
void put_end_into_environment(const Start &start) {
    const char *value = start.child_address.data();
    platform_setenv(start.env_name, value);
    const char *held = platform_getenv(start.env_name);
    if (held != nullptr && strcmp(held, value) != 0) {
        unsetenv(start.env_name);
    }
}

bool redirect(const Start &start) {
    return start.standards != nullptr ? zel::redirect_standard(*start.standards) : zel::redirect_standard_to_null();
}

// DELIBERATE: a companion that cannot be executed leaves by exit(1), and its parent's
// handle stays healthy. Test:
// PairParentOpen.AProgramThatCannotBeExecutedIsAChildThatExitsWithOne.
//
// The reason is left where platform_pair_exec_error finds it. A companion whose standard
// descriptors cannot be put in place leaves in the same way.
[[noreturn]] void become_companion(PairHandle *ph, const Start &start, const SocketPair &ends) {
    const bool redirected = redirect(start);
    close(ends.parent_end);
    if (!redirected) {
        zel::pair::write_exec_report(start.exec_report, errno);
        zel::exit_beside_parent(1);
    }
    if (!start.blocking) {
        zel::set_blocking(ends.child_end, false);
    }
    put_end_into_environment(start);
    execvp(start.file, start.argv);
    zel::pair::write_exec_report(start.exec_report, errno);
    ph->error_text = zel::pair::kExecFailed;
    zel::exit_beside_parent(1);
}

} // namespace

PairHandle *platform_pair_parent_open_vp(const char *env_name, int ignore_sigpipe, int blocking, const char *file,
                                         const int *stdio_fds, char *const argv[]) {
    PairHandle *ph = zel::pair::create_handle(true, PLATFORM_PAIR_KIND_LOCAL, blocking, "platform_pair_parent_open_vp");
    // Chosen before the sockets are created: they may take the number of an entry that is
    // not open.
    const zel::Standards standards = stdio_fds != nullptr ? zel::choose_standards(stdio_fds) : zel::Standards{};
    const int32_t parent_pid = platform_getpid();
    Start start = {.env_name = env_name,
                   .blocking = blocking != 0,
                   .file = file,
                   .standards = stdio_fds != nullptr ? &standards : nullptr,
                   .argv = argv,
                   .child_address = {},
                   .exec_report = nullptr};
    SocketPair ends;
    if (!zel::pair::create_sockets(ends)) {
        zel::pair::keep_failure(ph, zel::pair::kSocketsFailed);
        return ph;
    }
    // Formatted before the fork: a child takes a fault for each page of code that it uses.
    zel::pair::format_address(start.child_address, parent_pid, ends.child_end);
    start.exec_report = zel::pair::take_exec_report(ph);
    const int32_t pid = fork_with_retries();
    if (pid == -1) {
        // DELIBERATE: the two socket ends stay open in the parent. Test:
        // PairStartFailure.AFailedForkLeavesBothSocketEndsOpen.
        zel::pair::keep_failure(ph, zel::pair::kForkFailed);
        return ph;
    }
    if (pid == 0) {
        become_companion(ph, start, ends);
    }
    return zel::pair::keep_companion(ph, pid, ends, ignore_sigpipe != 0);
}

PairHandle *platform_pair_parent_open_lp(const char *env_name, int ignore_sigpipe, int blocking, const char *file,
                                         const int *stdio_fds, const char *arg0, ...) {
    std::array<char *, kMaxArguments + 1> argv;
    size_t idx = 0;
    va_list args;
    va_start(args, arg0);
    for (const char *arg = arg0; arg != nullptr; arg = va_arg(args, const char *)) {
        ZEL_ASSERT(idx < 256); // a promised text
        argv[idx++] = const_cast<char *>(arg);
    }
    va_end(args);
    argv[idx] = nullptr;
    return platform_pair_parent_open_vp(env_name, ignore_sigpipe, blocking, file, stdio_fds, argv.data());
}
