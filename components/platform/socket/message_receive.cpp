// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Receiving messages: the receive buffer and the message loop.
#include <components/platform/socket.h>

#include <components/platform/base/allocation.h>
#include <components/platform/socket/message_scan.h>
#include <components/platform/socket/transfer.h>
#include <msg/base/assertion.h>
#include <msg/base/errno_kept.h>
#include <msg/base/limits.h>
#include <msg/msg.h>

#include <algorithm>
#include <array>
#include <cstdlib>

constinit MsgBuf *gMsgBuf = nullptr;

namespace {

using zel::socket::kUnit;
using zel::socket::MessageScan;

constexpr int32_t kDrainSize = 2048;

using ReceiveArea = std::array<char, zel::kReceiveSize>;

// Counts how often a buffer was emptied or replaced, or its data moved. The pointers of
// the buffer do not show that: other data of the same length may stand in it.
constinit uint32_t buffer_changes = 0;

int32_t unparsed_length() {
    return static_cast<int32_t>(gMsgBuf->p2 - gMsgBuf->p1);
}

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

void append(const char *data, int32_t length) {
    memcpy(gMsgBuf->p2, data, static_cast<size_t>(length));
    gMsgBuf->p2 += length;
}

void move_rest_to_start() {
    const int32_t length = unparsed_length();
    memmove(gMsgBuf->pBuf, gMsgBuf->p1, static_cast<size_t>(length));
    gMsgBuf->p1 = gMsgBuf->pBuf;
    gMsgBuf->p2 = gMsgBuf->pBuf + length;
    ++buffer_changes;
}

// The starts of the lines of one message. A small table stands in place, a larger one on
// the heap. Handlers that receive are nested as deep as the peer decides: each level
// takes little stack. A handler that leaves by longjmp leaks the table on the heap.
struct LineTable {
    explicit LineTable(const char *user) : function(user) {}
    ~LineTable() {
        const zel::ErrnoKept kept;
        free(on_heap);
    }
    LineTable(const LineTable &) = delete;
    LineTable &operator=(const LineTable &) = delete;
    char **entries() { return on_heap != nullptr ? on_heap : in_place.data(); }
    const char *function; // named by the error about missing memory
    int32_t capacity = zel::kLineTableSize;
    char **on_heap = nullptr;
    std::array<char *, zel::kLineTableSize> in_place; // not cleared: every message would pay for that
};

void grow(LineTable &table) {
    const zel::ErrnoKept kept;
    const int32_t capacity = std::min(2 * table.capacity, PLATFORM_MAX_MESSAGE_LINES + 1);
    const size_t size = static_cast<size_t>(capacity) * sizeof(char *);
    auto **larger = static_cast<char **>(zel::allocate_or_end(size, table.function));
    memcpy(larger, table.entries(), static_cast<size_t>(table.capacity) * sizeof(char *));
    free(table.on_heap);
    table.on_heap = larger;
    table.capacity = capacity;
}

MessageScan start_scan(LineTable &table) {
    return {.data = gMsgBuf->p1,
            .line_table = table.entries(),
            .capacity = table.capacity,
            .lines = 0,
            .line_start = 0,
            .searched = 0};
}

// Continues the search for the first message. Returns its length, or 0 while it is not
// complete.
int32_t find_message(MessageScan &scan, LineTable &table) {
    for (;;) {
        const int32_t length = zel::socket::scan_message(scan, unparsed_length());
        if (length != zel::socket::kLineTableFull) {
            return length;
        }
        grow(table);
        scan.line_table = table.entries();
        scan.capacity = table.capacity;
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
    return {.changes = buffer_changes, .p1 = gMsgBuf->p1, .p2 = gMsgBuf->p2};
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
    append(received.data(), count);
    return true;
}

// Hands over the message of that length at the start of the unparsed data. When the
// handler has made another buffer current, this one is left to its owner.
int dispatch(int socket, PlatformMessageHandler handler, LineTable &table, int32_t length) {
    const MsgBuf *buffer = gMsgBuf;
    char **lines = table.entries();
    gMsgBuf->p1 += length;
    const int result = handler(socket, lines[0], &lines[1]);
    if (gMsgBuf == buffer) {
        move_rest_to_start();
    }
    return result;
}

// Hands over the first message in the buffer. Returns false when none is complete.
bool process_one(int socket, PlatformMessageHandler handler, const char *function) {
    LineTable table(function);
    MessageScan scan = start_scan(table);
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

MsgBuf *platform_msgbuf_create(int32_t size) {
    auto *buffer = static_cast<MsgBuf *>(zel::allocate_or_end(sizeof(MsgBuf), "platform_msgbuf_create"));
    auto *storage = static_cast<char *>(zel::allocate_or_end(static_cast<size_t>(size), "platform_msgbuf_create"));
    *buffer = {.pBuf = storage, .len = size, .p1 = storage, .p2 = storage};
    return buffer;
}

MsgBuf *platform_msgbuf_reset(MsgBuf *buffer) {
    buffer->p1 = buffer->pBuf;
    buffer->p2 = buffer->pBuf;
    ++buffer_changes;
    return buffer;
}

void platform_msgbuf_free(MsgBuf *buffer) {
    if (buffer == nullptr) {
        return;
    }
    free(buffer->pBuf);
    free(buffer);
}

void platform_msgbuf_set(MsgBuf *buffer) {
    gMsgBuf = buffer;
    ++buffer_changes;
}

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
    MessageScan scan = start_scan(table);
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
            scan = start_scan(table);
        }
    }
}

int platform_recv_messages(int socket) {
    ZEL_ASSERT(gMsgBuf != nullptr);
    ReceiveArea received;
    const auto count = static_cast<int>(recv(socket, received.data(), received.size(), 0));
    assert_room_for(count, __func__);
    if (count > 0) {
        append(received.data(), count);
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
