// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Sending a message whose lines come from data: they are checked, and leave from where they
// stand.
#include <components/platform/message_lines.h>

#include <msg/base/limits.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <sys/uio.h>

namespace {

constexpr std::string_view kMessageEnd = "\r\n\r\n"; // of the last line, and the empty line
constexpr size_t kLineEndSize = 2;

// ---- The lines ------------------------------------------------------------------------------------------------------

// A LF is rare in a line: its search costs one pass, and the CR before it is looked at
// then.
bool holds_line_end(const PlatformLine &line) {
    const char *end = line.text + line.length;
    const char *newline = line.text;
    while ((newline = static_cast<const char *>(memchr(newline, '\n', static_cast<size_t>(end - newline)))) !=
           nullptr) {
        if (newline != line.text && newline[-1] == '\r') {
            return true;
        }
        ++newline;
    }
    return false;
}

// A CR at the end is part of the line: the receiver ends a line at the CR that a LF follows
// at once, and that is the next one.
bool is_whole_line(const PlatformLine &line) {
    return line.text != nullptr && memchr(line.text, '\0', line.length) == nullptr && !holds_line_end(line);
}

bool is_message(const PlatformLine *lines, int32_t count) {
    if (count < 1 || count > PLATFORM_MAX_MESSAGE_LINES) {
        return false;
    }
    const auto can_be_further = [](const PlatformLine &line) { return line.length > 0 && is_whole_line(line); };
    return (lines[0].length == 0 || is_whole_line(lines[0])) && std::all_of(lines + 1, lines + count, can_be_further);
}

// ---- Their way out --------------------------------------------------------------------------------------------------

struct Pieces {
    struct iovec *first;
    size_t count;
};

void drop_sent(Pieces &pieces, size_t length) {
    while (pieces.count > 0 && length >= pieces.first->iov_len) {
        length -= pieces.first->iov_len;
        ++pieces.first;
        --pieces.count;
    }
    if (pieces.count > 0) {
        pieces.first->iov_base = static_cast<char *>(pieces.first->iov_base) + length;
        pieces.first->iov_len -= length;
    }
}

bool send_pieces(int socket, Pieces pieces) {
    while (pieces.count > 0) {
        struct msghdr header = {};
        header.msg_iov = pieces.first;
        header.msg_iovlen = pieces.count;
        const ssize_t sent = sendmsg(socket, &header, MSG_NOSIGNAL);
        if (sent == -1 && errno != EINTR) {
            return false;
        }
        if (sent > 0) {
            drop_sent(pieces, static_cast<size_t>(sent));
        }
    }
    return true;
}

// The end of a message's last line goes with the empty line behind it.
bool send_lines(int socket, const PlatformLine *lines, int32_t count, bool last) {
    std::array<struct iovec, size_t{2} * zel::kLinesAtOnce> pieces; // not cleared: each is filled in
    struct iovec *piece = pieces.data();
    for (const PlatformLine *line = lines; line != lines + count; ++line) {
        const bool ends_message = last && line + 1 == lines + count;
        *piece++ = {.iov_base = const_cast<char *>(line->text), .iov_len = line->length};
        *piece++ = {.iov_base = const_cast<char *>(kMessageEnd.data()),
                    .iov_len = ends_message ? kMessageEnd.size() : kLineEndSize};
    }
    return send_pieces(socket, {.first = pieces.data(), .count = static_cast<size_t>(piece - pieces.data())});
}

} // namespace

int platform_send_message_lines(int socket, const PlatformLine *lines, int32_t count) {
    if (!is_message(lines, count)) {
        errno = EINVAL;
        return 0;
    }
    for (int32_t sent = 0; sent < count;) {
        const int32_t batch = std::min(count - sent, zel::kLinesAtOnce);
        if (!send_lines(socket, lines + sent, batch, sent + batch == count)) {
            return 0;
        }
        sent += batch;
    }
    return 1;
}
