// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The pair handle: its life, its transfers, its fields.
#include <components/platform/zel_pair_connection.h>

#include <components/platform/base/allocation.h>
#include <components/platform/base/descriptor.h>
#include <components/platform/base/read_ahead.h>
#include <components/platform/pair/exec_error.h>
#include <components/platform/pair/handle.h>
#include <components/platform/process_info.h>
#include <components/platform/socket.h>
#include <msg/base/assertion.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <unistd.h>

namespace zel::pair {

static_assert(sizeof(PairHandle) == 10 * sizeof(int32_t) + 2 * sizeof(void *));
static_assert(offsetof(PairHandle, companion_pid) == 0 && offsetof(PairHandle, error_number) == 36);
static_assert(offsetof(PairHandle, error_text) == 40);
static_assert(offsetof(PairHandle, self) == 40 + sizeof(void *));

PairHandle *create_handle(bool parent, int32_t kind, int blocking, const char *function) {
    auto *ph = static_cast<PairHandle *>(allocate_or_end(sizeof(PairHandle), function));
    *ph = {.companion_pid = 0,
           .parent = parent ? 1 : 0,
           .kind = kind,
           .hybrid_environment = kind == PLATFORM_PAIR_KIND_HYBRID ? 1 : 0,
           .blocking = blocking,
           .rx_fd = kNoDescriptor,
           .tx_fd = kNoDescriptor,
           .child_exit_status = PLATFORM_PAIR_STATUS_UNKNOWN,
           .child_term_signal = 0,
           .error_number = 0,
           .error_text = nullptr,
           .self = ph};
    return ph;
}

void set_descriptor(PairHandle *ph, int fd) {
    ph->rx_fd = fd;
    ph->tx_fd = fd;
}

void ignore_signal(int signal) {
    struct sigaction action = {};
    action.sa_handler = SIG_IGN;
    sigaction(signal, &action, nullptr);
}

} // namespace zel::pair

namespace {

using zel::pair::kUnit;

// Stores the error of a transfer. EAGAIN is never stored.
void keep_error(PairHandle *ph) {
    if (errno != EAGAIN) {
        ph->error_number = errno;
    }
}

void refuse_length(PairHandle *ph) {
    errno = EINVAL;
    keep_error(ph);
}

int companion_exists(const PairHandle *ph) {
    return platform_process_exists(static_cast<unsigned long>(ph->companion_pid));
}

int child_alive(PairHandle *ph) {
    if (ph->kind == PLATFORM_PAIR_KIND_HYBRID && ph->companion_pid == 0) {
        return 1;
    }
    if (companion_exists(ph) == 0) {
        return 0;
    }
    int32_t exit_code;
    int32_t signal;
    if (platform_wait_nohang(ph->companion_pid, &exit_code, &signal) != ph->companion_pid) {
        return 1;
    }
    ph->child_exit_status = exit_code;
    ph->child_term_signal = signal;
    return 0;
}

int kill_companion(const PairHandle *ph) {
    if (zel::pair::has_known_end(ph)) {
        return 0;
    }
    bool ended;
    const int result = zel::pair::kill_and_reap(ph->companion_pid, &ended);
    if (ended) {
        zel::pair::remember_end(ph);
    }
    return result;
}

// Clears self through a volatile access: a compiler drops a plain store to a record that
// is released next.
void invalidate(PairHandle *ph) {
    PairHandle *volatile *const self = &ph->self;
    *self = nullptr;
}

} // namespace

int platform_pair_valid(const PairHandle *ph) {
    return ph != nullptr && ph->self == ph ? 1 : 0;
}

// DELIBERATE: the send has no MSG_NOSIGNAL. A program that does not ignore SIGPIPE ends
// with its peer. Test: PairSend.AClosedPeerIsASignalUnlessTheParentIgnoresIt.
// DELIBERATE: 0 bytes sent are a failure; 0 bytes received are the end of the stream.
// Test: PairSend.ZeroBytesCountAsAFailure.
int32_t platform_pair_send(PairHandle *ph, const void *buffer, int32_t length) {
    ZEL_ASSERT(platform_pair_valid(ph));
    if (length < 0) {
        refuse_length(ph);
        return 0;
    }
    const ssize_t count = send(ph->tx_fd, buffer, static_cast<size_t>(length), 0);
    if (count <= 0) {
        keep_error(ph);
        return 0;
    }
    return static_cast<int32_t>(count);
}

int32_t platform_pair_recv(PairHandle *ph, void *buffer, int32_t length) {
    ZEL_ASSERT(platform_pair_valid(ph));
    if (length < 0) {
        refuse_length(ph);
        return 0;
    }
    const ssize_t count = recv(ph->rx_fd, buffer, static_cast<size_t>(length), 0);
    if (count < 0) {
        keep_error(ph);
        return 0;
    }
    return static_cast<int32_t>(count);
}

// DELIBERATE: for a hybrid companion its parent always counts as alive. Test:
// PairCompanionAlive.AHybridCompanionAlwaysFindsItsParentAlive.
int platform_pair_companion_alive(PairHandle *ph) {
    ZEL_ASSERT(platform_pair_valid(ph));
    if (ph->parent != 0) {
        return child_alive(ph);
    }
    return ph->kind == PLATFORM_PAIR_KIND_HYBRID ? 1 : companion_exists(ph);
}

int platform_pair_kill_child(PairHandle *ph) {
    ZEL_ASSERT(platform_pair_valid(ph));
    return ph->parent != 0 ? kill_companion(ph) : 0;
}

// DELIBERATE: both descriptor fields are closed, though they hold one number. The second
// close fails, and errno is kept. Test:
// PairClose.BothFieldsAreClosedThoughTheyHoldOneNumber.
int platform_pair_close(PairHandle *ph) {
    ZEL_ASSERT(platform_pair_valid(ph));
    zel::forget_read_ahead_of(ph->rx_fd);
    if (ph->kind == PLATFORM_PAIR_KIND_HYBRID) {
        platform_socket_close(ph->rx_fd);
    } else {
        close(ph->rx_fd);
        zel::close_keeping_errno(ph->tx_fd);
    }
    invalidate(ph);
    zel::pair::forget_ends(ph);
    zel::pair::give_back_exec_report(ph);
    free(ph);
    return 1;
}

int32_t platform_pair_errno(const PairHandle *ph) {
    ZEL_ASSERT(platform_pair_valid(ph));
    return ph->error_number;
}

// DELIBERATE: the assertion of a damaged handle names platform_pair_errno. Test:
// PairFields.AnOkQuestionOnADamagedHandleNamesErrno.
int32_t platform_pair_ok(const PairHandle *ph) {
    return platform_pair_errno(ph) == 0 ? 1 : 0;
}

const char *platform_pair_errstr(const PairHandle *ph) {
    ZEL_ASSERT(platform_pair_valid(ph));
    return strerror(ph->error_number);
}

int32_t platform_pair_parent(const PairHandle *ph) {
    ZEL_ASSERT(platform_pair_valid(ph));
    return ph->parent;
}

int32_t platform_pair_child(const PairHandle *ph) {
    ZEL_ASSERT(platform_pair_valid(ph));
    return ph->parent == 0 ? 1 : 0;
}

int32_t platform_pair_rx_fd(const PairHandle *ph) {
    ZEL_ASSERT(platform_pair_valid(ph));
    return ph->rx_fd;
}

int32_t platform_pair_tx_fd(const PairHandle *ph) {
    ZEL_ASSERT(platform_pair_valid(ph));
    return ph->tx_fd;
}

int32_t platform_pair_companion_pid(const PairHandle *ph) {
    ZEL_ASSERT(platform_pair_valid(ph));
    return ph->companion_pid;
}

int32_t platform_pair_child_exit_status(const PairHandle *ph) {
    ZEL_ASSERT(platform_pair_valid(ph));
    return ph->child_exit_status;
}

int32_t platform_pair_child_term_signal(const PairHandle *ph) {
    ZEL_ASSERT(platform_pair_valid(ph));
    return ph->child_term_signal;
}

int32_t platform_pair_hybrid_environment(const PairHandle *ph) {
    ZEL_ASSERT(platform_pair_valid(ph));
    return ph->hybrid_environment;
}
