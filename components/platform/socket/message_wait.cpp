// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Receiving one message from a peer that is not trusted, within a time and a size.
#include <components/platform/message_lines.h>

#include <components/platform/base/deadline.h>
#include <components/platform/socket/line_table.h>
#include <components/platform/socket/receive_buffer.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <poll.h>

namespace {

using zel::Readiness;
using zel::socket::LineTable;
using zel::socket::MessageScan;

constexpr int kGoOn = PLATFORM_MESSAGE_HANDLED; // of a step: nothing stands against the next one

// The lines of one message: their starts, and with them room for what the handler gets.
// Room is found while the message is searched: when its end has been found it is cut into
// lines, and could not be kept for another call.
struct Lines {
    explicit Lines(const char *user) : starts(user) {}
    ~Lines() {
        const zel::ErrnoKept kept;
        free(on_heap);
    }
    Lines(const Lines &) = delete;
    Lines &operator=(const Lines &) = delete;
    PlatformLine *views() { return on_heap != nullptr ? on_heap : in_place.data(); }
    LineTable starts;
    PlatformLine *on_heap = nullptr;
    std::array<PlatformLine, zel::kLineTableSize> in_place; // not cleared: every message would pay for that
};

bool grow_lines(Lines &lines) {
    if (!zel::socket::grow(lines.starts)) {
        return false;
    }
    const size_t size = static_cast<size_t>(lines.starts.capacity) * sizeof(PlatformLine);
    auto *larger = static_cast<PlatformLine *>(malloc(size));
    free(lines.on_heap);
    lines.on_heap = larger;
    return larger != nullptr;
}

// Continues the search for the first message. length: 0 while it is not complete.
int find_message(MessageScan &scan, Lines &lines, int32_t *length) {
    for (;;) {
        *length = zel::socket::scan_message(scan, zel::socket::unparsed_length());
        if (*length != zel::socket::kLineTableFull) {
            return kGoOn;
        }
        if (is_at_line_limit(scan)) {
            return PLATFORM_MESSAGE_TOO_LONG;
        }
        if (!grow_lines(lines)) {
            errno = ENOMEM;
            return PLATFORM_MESSAGE_FAILED;
        }
        use_table(scan, lines.starts);
    }
}

// Each line ends in front of its CR LF; behind the last one stands the empty line.
PlatformMessage view(Lines &lines, const MessageScan &scan, int32_t length) {
    constexpr int32_t kLineEnd = 2;
    const char *const *starts = lines.starts.entries();
    const char *behind_last = scan.data + length - kLineEnd;
    PlatformLine *views = lines.views();
    for (int32_t line = 0; line < scan.lines; ++line) {
        const char *next = line + 1 < scan.lines ? starts[line + 1] : behind_last;
        views[line] = {.text = starts[line], .length = static_cast<size_t>(next - starts[line] - kLineEnd)};
    }
    return {.lines = views, .count = scan.lines};
}

// One byte stays free, as the loops of socket.h leave it.
int32_t room() {
    return static_cast<int32_t>(gMsgBuf->len - 1 - (gMsgBuf->p2 - gMsgBuf->pBuf));
}

// Room for more data. A handler that receives has the message at hand in front of the
// unparsed data; it gives way. The search starts again then.
bool make_room(MessageScan &scan, Lines &lines) {
    if (room() > 0) {
        return true;
    }
    if (gMsgBuf->p1 == gMsgBuf->pBuf) {
        return false;
    }
    zel::socket::move_rest_to_start();
    scan = zel::socket::start_scan(lines.starts);
    return room() > 0;
}

int judge_receive(int socket, ssize_t count) {
    if (count > 0) {
        zel::socket::add_received(socket, static_cast<int32_t>(count));
        return kGoOn;
    }
    if (count == 0 || errno == ECONNRESET) {
        return PLATFORM_MESSAGE_ENDED;
    }
    return zel::is_temporary(errno) ? kGoOn : PLATFORM_MESSAGE_FAILED;
}

int receive_more(int socket, const zel::Deadline &deadline) {
    struct pollfd entry = {.fd = socket, .events = POLLIN, .revents = 0};
    const Readiness readiness = zel::poll_until(deadline, {&entry, 1});
    if (readiness != Readiness::ready) {
        return readiness == Readiness::timeout ? PLATFORM_MESSAGE_TIMED_OUT : PLATFORM_MESSAGE_FAILED;
    }
    const size_t most = std::min(zel::kReceiveSize, static_cast<size_t>(room()));
    return judge_receive(socket, recv(socket, gMsgBuf->p2, most, MSG_DONTWAIT));
}

int check_arguments(int socket) {
    if (gMsgBuf != nullptr && socket >= 0) {
        return kGoOn;
    }
    errno = gMsgBuf == nullptr ? EINVAL : EBADF;
    return PLATFORM_MESSAGE_FAILED;
}

// Receives until a message is complete, and returns its length in length.
int receive_message(int socket, MessageScan &scan, Lines &lines, const zel::Deadline &deadline, int32_t *length) {
    for (;;) {
        int step = find_message(scan, lines, length);
        if (step != kGoOn || *length > 0) {
            return step;
        }
        step = make_room(scan, lines) ? receive_more(socket, deadline) : PLATFORM_MESSAGE_TOO_LONG;
        if (step != kGoOn) {
            return step;
        }
    }
}

} // namespace

int platform_message_wait(int socket, PlatformMessageFunction handler, void *user, int32_t milliseconds) {
    int step = check_arguments(socket);
    if (step != kGoOn) {
        return step;
    }
    Lines lines(__func__);
    MessageScan scan = zel::socket::start_scan(lines.starts);
    int32_t length;
    step = receive_message(socket, scan, lines, zel::deadline_after(milliseconds), &length);
    if (step != kGoOn) {
        return step;
    }
    const PlatformMessage message = view(lines, scan, length);
    const MsgBuf *buffer = zel::socket::begin_message(length);
    const int result = handler(socket, &message, user);
    zel::socket::end_message(buffer);
    return result != 0 ? PLATFORM_MESSAGE_HANDLED : PLATFORM_MESSAGE_STOPPED;
}
