// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The steps that the parent's two ways of starting a companion share.
#include <components/platform/pair/start.h>

#include <components/platform/base/descriptor.h>
#include <components/platform/pair/handle.h>
#include <msg/base/text.h>

#include <cerrno>
#include <csignal>
#include <sys/socket.h>
#include <unistd.h>

namespace zel::pair {

namespace {

// A parent whose standard descriptors are closed gets its sockets in their places. There
// the redirection in the child would replace them.
bool move_above_standard(SocketPair &ends) {
    const int parent_end = above_standard(ends.parent_end);
    if (parent_end == -1) {
        close_both(ends);
        return false;
    }
    ends.parent_end = parent_end;
    const int child_end = above_standard(ends.child_end);
    if (child_end == -1) {
        close_both(ends);
        return false;
    }
    ends.child_end = child_end;
    return true;
}

} // namespace

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
    set_close_on_exec(ends.parent_end);
    return true;
}

void close_both(const SocketPair &ends) {
    close_keeping_errno(ends.parent_end);
    close_keeping_errno(ends.child_end);
}

void format_address(std::span<char> value, int32_t parent_pid, int child_end) {
    format_text(value, "%d %d pid-rtx_fd_l", parent_pid, child_end);
}

void keep_failure(PairHandle *ph, const char *step) {
    ph->error_number = errno;
    ph->error_text = step;
}

PairHandle *keep_companion(PairHandle *ph, int32_t pid, const SocketPair &ends, bool ignore_sigpipe) {
    if (ignore_sigpipe) {
        ignore_signal(SIGPIPE);
    }
    close(ends.child_end);
    if (ph->blocking == 0) {
        set_blocking(ends.parent_end, false);
    }
    ph->companion_pid = pid;
    ph->parent = 1;
    ph->error_number = 0;
    set_descriptor(ph, ends.parent_end);
    return ph;
}

} // namespace zel::pair
