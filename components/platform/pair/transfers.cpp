// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Whole transfers with a deadline, in either direction or in both at once.
#include <components/platform/pair_control.h>

#include <components/platform/base/deadline.h>
#include <components/platform/base/descriptor.h>
#include <components/platform/base/read_ahead.h>
#include <components/platform/pair/handle.h>
#include <components/platform/socket.h>
#include <msg/base/assertion.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <poll.h>

namespace {

using zel::Readiness;
using zel::pair::kUnit;

// A transfer under way. A direction with nothing left is whole.
struct Transfer {
    const char *out;
    int32_t out_left;
    char *in;
    int32_t in_left;
    zel::Deadline deadline;
    bool polls; // the descriptor does not block by itself
};

// What is to be done next, as flags.
constexpr unsigned kSend = 1;
constexpr unsigned kReceive = 2;

unsigned directions_left(const Transfer &transfer) {
    return (transfer.out_left > 0 ? kSend : 0) | (transfer.in_left > 0 ? kReceive : 0);
}

// Without a deadline, and with one direction left, a blocking call needs no poll before.
bool may_block(const Transfer &transfer) {
    return transfer.deadline.milliseconds < 0 && directions_left(transfer) != (kSend | kReceive) && !transfer.polls;
}

// ---- What a message loop has read ahead -----------------------------------------------------------------------------

// Takes bytes from the start of the unparsed data. A buffer whose data began at the start
// of its storage keeps it so. In another one the texts of a message that is being handled
// stand before the data, and nothing moves.
int32_t take_from(MsgBuf &buffer, char *target, int32_t length) {
    const auto taken = std::min(length, static_cast<int32_t>(buffer.p2 - buffer.p1));
    memcpy(target, buffer.p1, static_cast<size_t>(taken));
    if (buffer.p1 != buffer.pBuf) {
        buffer.p1 += taken;
        return taken;
    }
    const int32_t rest = static_cast<int32_t>(buffer.p2 - buffer.p1) - taken;
    memmove(buffer.pBuf, buffer.pBuf + taken, static_cast<size_t>(rest));
    buffer.p2 = buffer.pBuf + rest;
    return taken;
}

void take_read_ahead(int fd, Transfer &transfer) {
    MsgBuf *buffer = transfer.in_left > 0 ? zel::next_read_ahead(fd, nullptr) : nullptr;
    for (; buffer != nullptr; buffer = zel::next_read_ahead(fd, buffer)) {
        const int32_t taken = take_from(*buffer, transfer.in, transfer.in_left);
        transfer.in += taken;
        transfer.in_left -= taken;
        platform_msgbuf_set(gMsgBuf); // a loop in whose idle function this is done searches anew
    }
}

// ---- The steps ------------------------------------------------------------------------------------------------------

// What a call that moved nothing means. The peer that is gone resets the connection when it
// has left data unread.
int judge_failure(Transfer &transfer) {
    if (errno == EAGAIN) {
        transfer.polls = transfer.polls || may_block(transfer);
        return PLATFORM_PAIR_DONE;
    }
    if (errno == EINTR) {
        return PLATFORM_PAIR_DONE;
    }
    return errno == EPIPE || errno == ECONNRESET ? PLATFORM_PAIR_ENDED : PLATFORM_PAIR_FAILED;
}

int send_some(int fd, Transfer &transfer) {
    const int flags = MSG_NOSIGNAL | (may_block(transfer) ? 0 : MSG_DONTWAIT);
    const ssize_t count = send(fd, transfer.out, static_cast<size_t>(transfer.out_left), flags);
    if (count < 0) {
        return judge_failure(transfer);
    }
    transfer.out += count;
    transfer.out_left -= static_cast<int32_t>(count);
    return PLATFORM_PAIR_DONE;
}

int receive_some(int fd, Transfer &transfer) {
    const int flags = may_block(transfer) ? MSG_WAITALL : MSG_DONTWAIT;
    const ssize_t count = recv(fd, transfer.in, static_cast<size_t>(transfer.in_left), flags);
    if (count < 0) {
        return judge_failure(transfer);
    }
    transfer.in += count;
    transfer.in_left -= static_cast<int32_t>(count);
    return count == 0 ? PLATFORM_PAIR_ENDED : PLATFORM_PAIR_DONE;
}

int move_some(const PairHandle *ph, Transfer &transfer, unsigned directions) {
    const int sent = (directions & kSend) != 0 ? send_some(ph->tx_fd, transfer) : PLATFORM_PAIR_DONE;
    if (sent != PLATFORM_PAIR_DONE || (directions & kReceive) == 0) {
        return sent;
    }
    return receive_some(ph->rx_fd, transfer);
}

// Waits for the directions that are left. A descriptor that has failed or ended is ready:
// the next call tells which.
int wait_for(const PairHandle *ph, const Transfer &transfer, unsigned *directions) {
    *directions = directions_left(transfer);
    if (may_block(transfer)) {
        return PLATFORM_PAIR_DONE;
    }
    std::array<struct pollfd, 2> entries = {{
        {.fd = transfer.out_left > 0 ? ph->tx_fd : -1, .events = POLLOUT, .revents = 0},
        {.fd = transfer.in_left > 0 ? ph->rx_fd : -1, .events = POLLIN, .revents = 0},
    }};
    const Readiness readiness = zel::poll_until(transfer.deadline, entries);
    *directions = (entries[0].revents != 0 ? kSend : 0) | (entries[1].revents != 0 ? kReceive : 0);
    if (readiness == Readiness::ready) {
        return PLATFORM_PAIR_DONE;
    }
    return readiness == Readiness::timeout ? PLATFORM_PAIR_TIMED_OUT : PLATFORM_PAIR_FAILED;
}

// The answer cannot be there before the question: sending comes first, and then a wait.
int move_all(const PairHandle *ph, Transfer &transfer) {
    unsigned directions = transfer.out_left > 0 ? kSend : kReceive;
    while (directions_left(transfer) != 0) {
        int result = move_some(ph, transfer, directions);
        if (result == PLATFORM_PAIR_DONE && directions_left(transfer) != 0) {
            result = wait_for(ph, transfer, &directions);
        }
        if (result != PLATFORM_PAIR_DONE) {
            return result;
        }
    }
    return PLATFORM_PAIR_DONE;
}

bool is_open(const PairHandle *ph, const Transfer &transfer) {
    return (transfer.out_left == 0 || ph->tx_fd >= 0) && (transfer.in_left == 0 || ph->rx_fd >= 0);
}

int carry_out(PairHandle *ph, Transfer &transfer) {
    int result = PLATFORM_PAIR_FAILED;
    if (transfer.out_left < 0 || transfer.in_left < 0) {
        errno = EINVAL;
    } else if (!is_open(ph, transfer)) {
        errno = EBADF;
    } else {
        take_read_ahead(ph->rx_fd, transfer);
        result = move_all(ph, transfer);
    }
    if (result == PLATFORM_PAIR_FAILED) {
        ph->error_number = errno;
    }
    return result;
}

void tell_moved(int32_t *moved, int32_t length, int32_t left) {
    if (moved != nullptr) {
        *moved = length - left;
    }
}

} // namespace

int platform_pair_send_all(PairHandle *ph, const void *buffer, int32_t length, int32_t milliseconds, int32_t *moved) {
    ZEL_ASSERT(platform_pair_valid(ph));
    Transfer transfer = {.out = static_cast<const char *>(buffer),
                         .out_left = length,
                         .in = nullptr,
                         .in_left = 0,
                         .deadline = zel::deadline_after(milliseconds),
                         .polls = false};
    const int result = carry_out(ph, transfer);
    tell_moved(moved, length, transfer.out_left);
    return result;
}

int platform_pair_recv_all(PairHandle *ph, void *buffer, int32_t length, int32_t milliseconds, int32_t *moved) {
    ZEL_ASSERT(platform_pair_valid(ph));
    Transfer transfer = {.out = nullptr,
                         .out_left = 0,
                         .in = static_cast<char *>(buffer),
                         .in_left = length,
                         .deadline = zel::deadline_after(milliseconds),
                         .polls = false};
    const int result = carry_out(ph, transfer);
    tell_moved(moved, length, transfer.in_left);
    return result;
}

int platform_pair_exchange(PairHandle *ph, const void *out, int32_t out_length, void *in, int32_t in_length,
                           int32_t milliseconds) {
    ZEL_ASSERT(platform_pair_valid(ph));
    Transfer transfer = {.out = static_cast<const char *>(out),
                         .out_left = out_length,
                         .in = static_cast<char *>(in),
                         .in_left = in_length,
                         .deadline = zel::deadline_after(milliseconds),
                         .polls = false};
    return carry_out(ph, transfer);
}
