// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Waiting for a companion with a limit, and ending it whatever it does.
#include <components/platform/pair_control.h>

#include <components/platform/pair/handle.h>
#include <components/platform/pair/process_descriptor.h>
#include <msg/base/assertion.h>

#include <cerrno>
#include <csignal>

namespace {

using zel::Deadline;
using zel::pair::Change;
using zel::pair::kUnit;
using zel::pair::ProcessDescriptor;

// The results of the two calls.
constexpr int kEnded = 1;
constexpr int kNotEnded = 0;
constexpr int kFailed = -1;

// A killed process still has its memory taken down. One that waits for a dead device or
// for its debugger stays longer than this.
constexpr int32_t kKillMilliseconds = 10000;

// The companion was reaped by somebody else, or is no child of this process. In the first
// case its number may belong to another process by now.
int keep_unknown_end(const PairHandle *ph) {
    if (kill(ph->companion_pid, 0) == -1) {
        zel::pair::remember_end(ph);
    }
    errno = ECHILD;
    return kFailed;
}

// Tells whether the companion has ended, and reaps it then.
int try_to_reap(PairHandle *ph) {
    int32_t exit_code;
    int32_t signal;
    int32_t result = platform_wait_nohang(ph->companion_pid, &exit_code, &signal);
    while (result == -1 && errno == EINTR) {
        result = platform_wait_nohang(ph->companion_pid, &exit_code, &signal);
    }
    if (result == -1) {
        return errno == ECHILD ? keep_unknown_end(ph) : kFailed;
    }
    if (result == 0) {
        return kNotEnded;
    }
    ph->child_exit_status = exit_code;
    ph->child_term_signal = signal;
    return kEnded;
}

// Tells the same from what is known already, and asks the system only when it may.
int look_at_end(PairHandle *ph) {
    if (ph->parent == 0 || ph->companion_pid < 1) {
        errno = EINVAL;
        return kFailed;
    }
    if (ph->child_exit_status != PLATFORM_PAIR_STATUS_UNKNOWN) {
        return kEnded;
    }
    if (zel::pair::has_known_end(ph)) {
        errno = ECHILD;
        return kFailed;
    }
    return try_to_reap(ph);
}

// Under a debugger a process may have ended and not be there for its parent yet. Its
// descriptor would be ready all the time, so it is not asked again.
int wait_until(PairHandle *ph, const ProcessDescriptor &process, const Deadline &deadline) {
    int fd = process.fd;
    for (;;) {
        const int ended = try_to_reap(ph);
        if (ended != kNotEnded || zel::has_passed(deadline)) {
            return ended;
        }
        const Change change = zel::pair::wait_for_change(fd, deadline);
        if (change == Change::failed) {
            return kFailed;
        }
        fd = change == Change::ended ? -1 : fd;
    }
}

// A wait that fails is like one whose time is over, unless nobody is there any more.
bool needs_to_be_killed(int ended) {
    return ended == kNotEnded || (ended == kFailed && errno != ECHILD);
}

// Without the right to signal it, or somebody has reaped it meanwhile.
int keep_refused_signal(PairHandle *ph) {
    return errno == ESRCH ? look_at_end(ph) : kNotEnded;
}

int kill_and_wait(PairHandle *ph, const ProcessDescriptor &process) {
    if (!send_signal(process, SIGKILL)) {
        return keep_refused_signal(ph);
    }
    const int ended = wait_until(ph, process, zel::deadline_after(kKillMilliseconds));
    if (ended == kNotEnded) {
        errno = ETIMEDOUT;
    }
    return ended;
}

} // namespace

int platform_pair_wait(PairHandle *ph, int32_t milliseconds) {
    ZEL_ASSERT(platform_pair_valid(ph));
    const Deadline deadline = zel::deadline_after(milliseconds);
    const int ended = look_at_end(ph);
    if (ended != kNotEnded || milliseconds == 0) {
        return ended;
    }
    const ProcessDescriptor process(ph->companion_pid);
    return wait_until(ph, process, deadline);
}

// The order is: hold the process, see that it is not reaped, signal. Whoever reaps it in
// between leaves a descriptor that leads to nobody.
int platform_pair_stop(PairHandle *ph, int32_t milliseconds) {
    ZEL_ASSERT(platform_pair_valid(ph));
    const ProcessDescriptor process(ph->companion_pid);
    const int ended = look_at_end(ph);
    if (ended != kNotEnded) {
        return ended;
    }
    if (!send_signal(process, SIGTERM)) {
        return keep_refused_signal(ph);
    }
    send_signal(process, SIGCONT); // a stopped process would not see the other one
    const int graced = wait_until(ph, process, zel::deadline_after(milliseconds));
    return needs_to_be_killed(graced) ? kill_and_wait(ph, process) : graced;
}
