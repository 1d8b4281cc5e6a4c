// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The receive buffer, the message loop, and sending a message.
#include <components/platform/socket.h>

#include <components/platform/internal/allocation.h>
#include <components/platform/internal/message_scan.h>
#include <components/platform/internal/socket_unit.h>
#include <msg/base/assertion.h>
#include <msg/base/limits.h>
#include <msg/msg.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>

constinit MsgBuf *gMsgBuf = nullptr;

namespace {

using zel::MessageScan;

constexpr const char *kUnit = zel::kSocketUnit;
constexpr int32_t kDrainSize = 2048;

using LineTable = std::array<char *, PLATFORM_MAX_MESSAGE_LINES + 1>;
using ReceiveArea = std::array<char, zel::kReceiveSize>;

// How often a buffer was emptied, moved or replaced. The pointers of the buffer do not tell: other data of the same
// length may stand there.
constinit uint32_t buffer_changes = 0;

// ---- Receiving ------------------------------------------------------------------------------------------------------

int32_t unparsed_length() {
    return static_cast<int32_t>(gMsgBuf->p2 - gMsgBuf->p1);
}

// The condition is tested in lengths: a sum of pointers beyond the storage would not be defined.
bool has_room(int32_t len) {
    return gMsgBuf != nullptr && gMsgBuf->p2 - gMsgBuf->pBuf + len < gMsgBuf->len;
}

#define ASSERT_ROOM_FOR(len) ZEL_ASSERT_AS(has_room(len), "gMsgBuf->p2 + len - gMsgBuf->pBuf < gMsgBuf->len")

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

MessageScan start_scan(LineTable &table) {
    return {.data = gMsgBuf->p1, .line_table = table.data(), .lines = 0, .line_start = 0, .searched = 0};
}

// What was searched holds as long as nobody else touches the buffer. An idle function may reset, replace, fill or empty
// it while we wait; then the search begins anew.
struct BufferMark {
    uint32_t changes;
    const char *p1;
    const char *p2;
    bool operator==(const BufferMark &) const = default;
};

BufferMark mark_buffer() {
    return {.changes = buffer_changes, .p1 = gMsgBuf->p1, .p2 = gMsgBuf->p2};
}

// Hands over the message of that length, which stands at the start of the unparsed data. A handler that makes another
// buffer current leaves this one to its owner.
int dispatch(int socket, PlatformMessageHandler handler, LineTable &table, int32_t length) {
    const MsgBuf *buffer = gMsgBuf;
    gMsgBuf->p1 += length;
    const int result = handler(socket, table[0], &table[1]);
    if (gMsgBuf == buffer) {
        move_rest_to_start();
    }
    return result;
}

void drain(int socket) {
    std::array<char, kDrainSize> scratch;
    while (platform_select_recv(socket, scratch.data(), kDrainSize, 0, nullptr) >= 1) {
    }
}

// ---- Sending --------------------------------------------------------------------------------------------------------

// The lines of one message on their way out, gathered so that they leave in as few sends as fit.
struct Framing {
    explicit Framing(int fd) : socket(fd) {}
    int socket;
    size_t used = 0;
    std::array<char, zel::kFramingSize> area; // left as it is: every message would pay for clearing it
};

constexpr std::string_view kLineEnd = "\r\n";

constexpr size_t framed_size(std::string_view line) {
    return line.size() + kLineEnd.size();
}

// The limit counts a NUL behind the line, as for one kept as a text: 8189 characters are the longest that fit.
constexpr bool fits_area(std::string_view line) {
    return framed_size(line) + 1 <= zel::kFramingSize;
}

size_t frame(char *target, std::string_view line) {
    memcpy(target, line.data(), line.size());
    memcpy(target + line.size(), kLineEnd.data(), kLineEnd.size());
    return framed_size(line);
}

bool send_whole(int socket, const char *data, size_t length) {
    return platform_send_all(socket, data, static_cast<int32_t>(length)) == static_cast<int32_t>(length);
}

bool send_gathered(Framing &framing) {
    const size_t length = framing.used;
    framing.used = 0;
    return send_whole(framing.socket, framing.area.data(), length);
}

// A line too long for the area goes out by itself, behind what was gathered.
bool send_long_line(Framing &framing, std::string_view line) {
    if (framed_size(line) > INT32_MAX) {
        errno = EMSGSIZE;
        return false;
    }
    char *framed = send_gathered(framing) ? static_cast<char *>(malloc(framed_size(line))) : nullptr;
    if (framed == nullptr) {
        return false;
    }
    const bool sent = send_whole(framing.socket, framed, frame(framed, line));
    free(framed);
    return sent;
}

bool add_line(Framing &framing, std::string_view line) {
    if (!fits_area(line)) {
        return send_long_line(framing, line);
    }
    if (framing.used + framed_size(line) > framing.area.size() && !send_gathered(framing)) {
        return false;
    }
    framing.used += frame(framing.area.data() + framing.used, line);
    return true;
}

bool end_message(Framing &framing) {
    return add_line(framing, "") && send_gathered(framing);
}

bool add_lines(Framing &framing, va_list lines) {
    for (const char *line = va_arg(lines, const char *); line != nullptr; line = va_arg(lines, const char *)) {
        if (!add_line(framing, line)) {
            return false;
        }
    }
    return true;
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
    LineTable table;
    ReceiveArea received;
    MessageScan scan = start_scan(table);
    for (;;) {
        const BufferMark searched = mark_buffer();
        const int32_t length = zel::scan_message(scan, unparsed_length());
        if (length > 0) {
            return dispatch(socket, handler, table, length);
        }
        const int count = platform_select_recv(socket, received.data(), received.size(), wait, idle);
        if (count < 0 || (count == 0 && wait == 0)) {
            return 0;
        }
        ASSERT_ROOM_FOR(count);
        if (mark_buffer() != searched) {
            scan = start_scan(table);
        }
        append(received.data(), count);
    }
}

int platform_recv_messages(int socket) {
    ZEL_ASSERT(gMsgBuf != nullptr);
    ReceiveArea received;
    const auto count = static_cast<int>(recv(socket, received.data(), received.size(), 0));
    ASSERT_ROOM_FOR(count);
    if (count > 0) {
        append(received.data(), count);
    }
    return count;
}

int platform_process_messages(int socket, PlatformMessageHandler handler) {
    LineTable table;
    ZEL_ASSERT(gMsgBuf != nullptr);
    // A handler may leave no buffer current.
    while (gMsgBuf != nullptr) {
        const int length = platform_parse_message(gMsgBuf->p1, unparsed_length(), table.data());
        if (length == 0) {
            break;
        }
        dispatch(socket, handler, table, length);
    }
    return 0;
}

int platform_send_message(int socket, const char *first, ...) {
    Framing framing(socket);
    if (!add_line(framing, first == nullptr ? "" : first)) {
        return 0;
    }
    va_list lines;
    va_start(lines, first);
    const bool added = add_lines(framing, lines);
    va_end(lines);
    return added && end_message(framing) ? 1 : 0;
}
