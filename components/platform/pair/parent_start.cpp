// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The parent's side of start-up: it creates the pair, forks and executes the companion.
#include <components/platform/zel_pair_connection.h>

#include <components/platform/base/child_start.h>
#include <components/platform/base/descriptor.h>
#include <components/platform/environment.h>
#include <components/platform/pair/handle.h>
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

constexpr int kForkRetries = 30;
constexpr int kMaxArguments = 256;

struct SocketPair {
    int parent_end;
    int child_end;
};

// The arguments of a start.
struct Start {
    const char *env_name;
    bool blocking;
    const char *file;
    const zel::Standards *standards; // null: the null device
    char *const *argv;
    std::array<char, 64> child_address; // the value of the variable
};

void close_both(const SocketPair &ends) {
    zel::close_keeping_errno(ends.parent_end);
    zel::close_keeping_errno(ends.child_end);
}

// A parent whose standard descriptors are closed gets its sockets in their places. There
// the redirection in the child would replace them.
bool move_above_standard(SocketPair &ends) {
    const int parent_end = zel::above_standard(ends.parent_end);
    if (parent_end == -1) {
        close_both(ends);
        return false;
    }
    ends.parent_end = parent_end;
    const int child_end = zel::above_standard(ends.child_end);
    if (child_end == -1) {
        close_both(ends);
        return false;
    }
    ends.child_end = child_end;
    return true;
}

// The parent's end is close-on-exec: a companion started later does not hold this pair
// open.
bool create_sockets(SocketPair &ends) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == -1) {
        return false;
    }
    ends = {.parent_end = fds[0], .child_end = fds[1]};
    if (!move_above_standard(ends)) {
        return false;
    }
    zel::set_close_on_exec(ends.parent_end);
    return true;
}

// EAGAIN means that a limit of processes is reached. The fork is tried again without a
// pause.
int32_t fork_with_retries() {
    int32_t pid = zel::fork_flushed();
    for (int retry = 0; retry < kForkRetries && pid == -1 && errno == EAGAIN; ++retry) {
        pid = zel::fork_flushed();
    }
    return pid;
}

// Formatted before the fork: a child takes a fault for each page of code that it uses.
void format_child_address(Start &start, int32_t parent_pid, int child_end) {
    zel::format_text(start.child_address, "%d %d pid-rtx_fd_l", parent_pid, child_end);
}

void keep_failure(PairHandle *ph, const char *step) {
    ph->error_number = errno;
    ph->error_text = step;
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

// DELIBERATE: a companion that cannot be executed leaves by exit(1), and its parent
// learns that status alone. Test:
// PairParentOpen.AProgramThatCannotBeExecutedIsAChildThatExitsWithOne.
//
// A companion whose standard descriptors cannot be put in place leaves in the same way.
[[noreturn]] void become_companion(PairHandle *ph, const Start &start, const SocketPair &ends) {
    const bool redirected = redirect(start);
    close(ends.parent_end);
    if (!redirected) {
        zel::exit_beside_parent(1);
    }
    if (!start.blocking) {
        zel::set_blocking(ends.child_end, false);
    }
    put_end_into_environment(start);
    execvp(start.file, start.argv);
    ph->error_text = "execvp failed";
    zel::exit_beside_parent(1);
}

// ---- In the parent --------------------------------------------------------------------------------------------------

PairHandle *keep_companion(PairHandle *ph, int32_t pid, const SocketPair &ends, bool ignore_sigpipe) {
    if (ignore_sigpipe) {
        zel::pair::ignore_signal(SIGPIPE);
    }
    close(ends.child_end);
    if (ph->blocking == 0) {
        zel::set_blocking(ends.parent_end, false);
    }
    ph->companion_pid = pid;
    ph->parent = 1;
    ph->error_number = 0;
    zel::pair::set_descriptor(ph, ends.parent_end);
    return ph;
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
                   .child_address = {}};
    SocketPair ends;
    if (!create_sockets(ends)) {
        keep_failure(ph, "socketpair create failed");
        return ph;
    }
    format_child_address(start, parent_pid, ends.child_end);
    const int32_t pid = fork_with_retries();
    if (pid == -1) {
        // DELIBERATE: the two socket ends stay open in the parent. Test:
        // PairStartFailure.AFailedForkLeavesBothSocketEndsOpen.
        keep_failure(ph, "fork failed");
        return ph;
    }
    if (pid == 0) {
        become_companion(ph, start, ends);
    }
    return keep_companion(ph, pid, ends, ignore_sigpipe != 0);
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
