// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Receiving messages: the message loop.
#include <components/platform/socket.h>

#include <components/platform/socket/line_table.h>
#include <components/platform/socket/receive_buffer.h>
#include <components/platform/socket/transfer.h>
#include <msg/base/assertion.h>
#include <msg/base/limits.h>
#include <msg/msg.h>

#include <array>

namespace {

using zel::socket::kUnit;
using zel::socket::LineTable;
using zel::socket::MessageScan;
using zel::socket::unparsed_length;

constexpr int32_t kDrainSize = 2048;

using ReceiveArea = std::array<char, zel::kReceiveSize>;

// Tests the asserted condition in lengths: a pointer beyond the storage would be
// undefined. It only subtracts: in the largest buffer a sum would not fit into 32 bits.
bool has_room(int32_t len) {
    return gMsgBuf != nullptr && len < gMsgBuf->len - (gMsgBuf->p2 - gMsgBuf->pBuf);
}

// The condition is a promised text.
void assert_room_for(int32_t len, const char *function) {
    if (!has_room(len)) {
        zel::assertion_failed("gMsgBuf->p2 + len - gMsgBuf->pBuf < gMsgBuf->len", kUnit, function);
    }
}

void append(int socket, const char *data, int32_t length) {
    memcpy(gMsgBuf->p2, data, static_cast<size_t>(length));
    zel::socket::add_received(socket, length);
}

// Continues the search for the first message. Returns its length, or 0 while it is not
// complete.
int32_t find_message(MessageScan &scan, LineTable &table) {
    for (;;) {
        const int32_t length = zel::socket::scan_message(scan, unparsed_length());
        if (length != zel::socket::kLineTableFull) {
            return length;
        }
        zel::socket::assert_line_limit(scan);
        grow_or_end(table);
        use_table(scan, table);
    }
}

// The state of the buffer before a wait. An idle function may reset, replace, fill or
// empty the buffer during the wait. Then the search starts again.
struct BufferMark {
    uint32_t changes;
    const char *p1;
    const char *p2;
    bool operator==(const BufferMark &) const = default;
};

BufferMark mark_buffer() {
    return {.changes = zel::socket::buffer_changes(), .p1 = gMsgBuf->p1, .p2 = gMsgBuf->p2};
}

bool is_untouched(const BufferMark &mark) {
    return gMsgBuf != nullptr && mark_buffer() == mark;
}

// Kept out of line: the receive area must not be on the stack while a handler or an idle
// function runs.
[[gnu::noinline]] bool receive_more(int socket, const char *function) {
    ReceiveArea received;
    const int count = zel::socket::receive_waiting(socket, received.data(), received.size());
    if (count < 0) {
        return false;
    }
    assert_room_for(count, function);
    append(socket, received.data(), count);
    return true;
}

// Hands over the message of that length at the start of the unparsed data.
int dispatch(int socket, PlatformMessageHandler handler, LineTable &table, int32_t length) {
    char **lines = table.entries();
    const MsgBuf *buffer = zel::socket::begin_message(length);
    const int result = handler(socket, lines[0], &lines[1]);
    zel::socket::end_message(buffer);
    return result;
}

// Hands over the first message in the buffer. Returns false when none is complete.
bool process_one(int socket, PlatformMessageHandler handler, const char *function) {
    LineTable table(function);
    MessageScan scan = zel::socket::start_scan(table);
    const int32_t length = find_message(scan, table);
    if (length == 0) {
        return false;
    }
    dispatch(socket, handler, table, length);
    return true;
}

// Kept out of line, for the same reason as receive_more.
[[gnu::noinline]] void drain(int socket) {
    std::array<char, kDrainSize> scratch;
    while (platform_select_recv(socket, scratch.data(), kDrainSize, 0, nullptr) >= 1) {
    }
}

} // namespace

void platform_message_loop(int socket, PlatformMessageHandler handler, PlatformIdle idle, int drain_first) {
    if (drain_first != 0) {
        drain(socket);
    }
    if (gMsgBuf == nullptr) {
        msg_warn("platform_message_loop has no buffer set!!!\n");
        return;
    }
    while (platform_get_one_message(socket, handler, idle, 1) != 0) {
    }
}

int platform_get_one_message(int socket, PlatformMessageHandler handler, PlatformIdle idle, int wait) {
    ZEL_ASSERT(gMsgBuf != nullptr);
    LineTable table(__func__);
    MessageScan scan = zel::socket::start_scan(table);
    for (;;) {
        const BufferMark searched = mark_buffer();
        const int32_t length = find_message(scan, table);
        if (length > 0) {
            return dispatch(socket, handler, table, length);
        }
        if (zel::socket::wait_for_input(socket, wait != 0, idle) < 0) {
            return 0;
        }
        const bool untouched = is_untouched(searched);
        if (!receive_more(socket, __func__)) {
            return 0;
        }
        if (!untouched) {
            scan = zel::socket::start_scan(table);
        }
    }
}

int platform_recv_messages(int socket) {
    ZEL_ASSERT(gMsgBuf != nullptr);
    ReceiveArea received;
    const auto count = static_cast<int>(recv(socket, received.data(), received.size(), 0));
    assert_room_for(count, __func__);
    if (count > 0) {
        append(socket, received.data(), count);
    }
    return count;
}

int platform_process_messages(int socket, PlatformMessageHandler handler) {
    ZEL_ASSERT(gMsgBuf != nullptr);
    // A handler may leave no buffer current.
    while (gMsgBuf != nullptr && process_one(socket, handler, __func__)) {
    }
    return 0;
}
