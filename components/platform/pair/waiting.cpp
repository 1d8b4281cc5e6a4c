// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Waiting for processes and ending them.
#include <components/platform/zel_pair_connection.h>

#include <components/platform/base/descriptor.h>
#include <components/platform/environment.h>
#include <components/platform/pair/handle.h>
#include <components/platform/process_info.h>
#include <msg/base/errno_kept.h>

#include <cerrno>
#include <csignal>
#include <sys/wait.h>

namespace {

// Waits for the end of the process. A parent that ignores SIGCHLD gets ECHILD when its
// child has ended.
bool wait_to_the_end(int32_t pid) {
    if (platform_wait_child(pid, nullptr) == pid) {
        return true;
    }
    const zel::ErrnoKept kept;
    return kept.value == ECHILD && platform_process_exists(static_cast<unsigned long>(pid)) == 0;
}

} // namespace

int32_t platform_wait_nohang(int32_t pid, int32_t *exit_code, int32_t *signal) {
    int32_t ignored_exit_code;
    int32_t ignored_signal;
    int32_t &code = *(exit_code == nullptr ? &ignored_exit_code : exit_code);
    int32_t &term_signal = *(signal == nullptr ? &ignored_signal : signal);
    code = 0;
    term_signal = 0;
    int status;
    const int32_t result = waitpid(pid, &status, WNOHANG);
    // A result of 0 or -1 comes without a status.
    if (result != pid || result < 1) {
        return result;
    }
    if (WIFEXITED(status)) {
        code = WEXITSTATUS(status);
    }
    if (WIFSIGNALED(status)) {
        term_signal = WTERMSIG(status);
    }
    return result;
}

int32_t platform_wait_child(int32_t pid, int32_t *status) {
    for (;;) {
        const int32_t result = waitpid(pid, status, 0);
        if (result != -1) {
            return result;
        }
        platform_perror("waitpid: ");
        if (!zel::is_temporary(errno)) {
            return -1;
        }
        errno = 0;
    }
}

// DELIBERATE: there is no pause and no escalation. SIGKILL is sent only when SIGTERM
// cannot be sent; a companion that handles SIGTERM takes the time that it needs. Test:
// KillAndReap.ACompanionThatDelaysItsEndIsWaitedForAndNotKilled.
int zel::pair::kill_and_reap(int32_t pid, bool *ended) {
    *ended = false;
    // 0 and negative numbers name process groups, the caller's own among them.
    if (pid < 1) {
        return 0;
    }
    if (kill(pid, SIGTERM) != 0 && kill(pid, SIGKILL) != 0) {
        return 0;
    }
    *ended = wait_to_the_end(pid);
    return 1;
}

int platform_kill_and_reap(int32_t pid) {
    bool ended;
    return zel::pair::kill_and_reap(pid, &ended);
}
