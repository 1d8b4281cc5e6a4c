// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Sending a message: its lines are framed and gathered.
#include <components/platform/socket.h>

#include <msg/base/limits.h>
#include <msg/base/text.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>

namespace {

// Gathers the framed lines of one message, so that they leave in few sends.
struct Framing {
    explicit Framing(int fd) : socket(fd) {}
    int socket;
    size_t used = 0;
    std::array<char, zel::kFramingSize> area; // not cleared: every message would pay for that
};

constexpr std::string_view kLineEnd = "\r\n";

constexpr size_t framed_size(std::string_view line) {
    return line.size() + kLineEnd.size();
}

// DELIBERATE: a line of 8189 characters is the longest that fits the area. The limit
// counts one byte more than the line and its CR LF. Test:
// SendMessageSize.ALineOf8189CharactersIsFramedWithoutAllocation.
constexpr bool fits_area(std::string_view line) {
    return framed_size(line) + 1 <= zel::kFramingSize;
}

size_t copy_framed(char *target, std::string_view line) {
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
    return length == 0 || send_whole(framing.socket, framing.area.data(), length);
}

// Sends a line that is too long for the area by itself, after the gathered lines.
bool send_long_line(Framing &framing, std::string_view line) {
    if (framed_size(line) > INT32_MAX) {
        errno = EMSGSIZE;
        return false;
    }
    char *framed = send_gathered(framing) ? static_cast<char *>(malloc(framed_size(line))) : nullptr;
    if (framed == nullptr) {
        return false;
    }
    const bool sent = send_whole(framing.socket, framed, copy_framed(framed, line));
    free(framed);
    return sent;
}

bool frame_line(Framing &framing, std::string_view line) {
    if (!fits_area(line)) {
        return send_long_line(framing, line);
    }
    if (framing.used + framed_size(line) > framing.area.size() && !send_gathered(framing)) {
        return false;
    }
    framing.used += copy_framed(framing.area.data() + framing.used, line);
    return true;
}

bool end_message(Framing &framing) {
    return frame_line(framing, "") && send_gathered(framing);
}

bool frame_lines(Framing &framing, va_list lines) {
    for (const char *line = va_arg(lines, const char *); line != nullptr; line = va_arg(lines, const char *)) {
        if (!frame_line(framing, line)) {
            return false;
        }
    }
    return true;
}

} // namespace

int platform_send_message(int socket, const char *first, ...) {
    Framing framing(socket);
    if (!frame_line(framing, first == nullptr ? "" : first)) {
        return 0;
    }
    va_list lines;
    va_start(lines, first);
    const bool framed = frame_lines(framing, lines);
    va_end(lines);
    return framed && end_message(framing) ? 1 : 0;
}
