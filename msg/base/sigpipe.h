// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Writing where nobody may read.
#ifndef ZEL_MSG_BASE_SIGPIPE_H
#define ZEL_MSG_BASE_SIGPIPE_H

#include <msg/base/errno_kept.h>

#include <csignal>
#include <ctime>

namespace zel {

// Blocks SIGPIPE in its scope, and takes away one that was raised there. Its action stays
// the program's. errno is kept at the end.
struct SigpipeBlocked {
    SigpipeBlocked() {
        sigset_t pending;
        sigemptyset(&pending);
        sigpending(&pending);
        pending_before_ = sigismember(&pending, SIGPIPE) == 1;
        sigemptyset(&sigpipe_);
        sigaddset(&sigpipe_, SIGPIPE);
        sigprocmask(SIG_BLOCK, &sigpipe_, &mask_);
    }
    SigpipeBlocked(const SigpipeBlocked &) = delete;
    SigpipeBlocked &operator=(const SigpipeBlocked &) = delete;

    ~SigpipeBlocked() {
        const ErrnoKept kept;
        const struct timespec at_once = {};
        while (!pending_before_ && sigtimedwait(&sigpipe_, nullptr, &at_once) == -1 && errno == EINTR) {
        }
        sigprocmask(SIG_SETMASK, &mask_, nullptr);
    }

private:
    sigset_t sigpipe_;
    sigset_t mask_;
    bool pending_before_;
};

} // namespace zel

#endif
