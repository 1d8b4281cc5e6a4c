// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The transfers that word_count and its companion share.
#include "word_count_protocol.h"

#include <algorithm>
#include <cerrno>

namespace word_count {

namespace {

constexpr std::string_view kCut = "...";
constexpr std::string_view kLineEnd = "\r\n";

// Whether a transfer that moved nothing is to be tried again: a signal came first. The
// handle keeps its last error, so one that has been dealt with is cleared. Otherwise the
// end of the stream, which leaves no error of its own, would be taken for that old
// interruption, and tried again for ever.
bool try_again(PairHandle *pair) {
    const int32_t error = platform_pair_errno(pair);
    if (error != EINTR && error != EAGAIN) {
        return false;
    }
    pair->error_number = 0;
    return true;
}

std::string visible_byte(char byte) {
    constexpr std::string_view digits = "0123456789abcdef";
    if (byte == '\\') {
        return "\\\\";
    }
    if (byte >= ' ' && byte <= '~') {
        return {byte};
    }
    const auto code = static_cast<unsigned char>(byte);
    return {'\\', 'x', digits[code / 16], digits[code % 16]};
}

} // namespace

bool send_whole(PairHandle *pair, const void *data, int32_t length) {
    const char *bytes = static_cast<const char *>(data);
    int32_t sent = 0;
    while (sent < length) {
        const int32_t count = platform_pair_send(pair, bytes + sent, length - sent);
        if (count == 0 && !try_again(pair)) {
            return false;
        }
        sent += count;
    }
    return true;
}

bool receive_whole(PairHandle *pair, void *data, int32_t length) {
    char *bytes = static_cast<char *>(data);
    int32_t received = 0;
    while (received < length) {
        const int32_t count = platform_pair_recv(pair, bytes + received, length - received);
        if (count == 0 && !try_again(pair)) {
            return false;
        }
        received += count;
    }
    return true;
}

bool send_value(PairHandle *pair, int32_t value) {
    return send_whole(pair, &value, sizeof value);
}

bool receive_value(PairHandle *pair, int32_t &value) {
    return receive_whole(pair, &value, sizeof value);
}

bool can_be_first_line(std::string_view text) {
    return text.find(kLineEnd) == std::string_view::npos && text.find('\0') == std::string_view::npos;
}

bool can_be_further_line(std::string_view text) {
    return !text.empty() && can_be_first_line(text);
}

bool send_message(PairHandle *pair, const std::vector<std::string> &lines) {
    if (lines.empty() || !can_be_first_line(lines.front()) ||
        !std::all_of(lines.begin() + 1, lines.end(), can_be_further_line)) {
        return false;
    }
    std::string message;
    for (const std::string &line : lines) {
        message.append(line).append(kLineEnd);
    }
    message.append(kLineEnd);
    return send_whole(pair, message.data(), static_cast<int32_t>(message.size()));
}

std::string visible(std::string_view bytes, size_t limit) {
    std::string text;
    size_t kept = 0; // as much of the text as leaves room for the mark of a cut
    for (const char byte : bytes) {
        text += visible_byte(byte);
        if (text.size() > limit) {
            return text.substr(0, kept).append(kCut);
        }
        if (text.size() + kCut.size() <= limit) {
            kept = text.size();
        }
    }
    return text;
}

} // namespace word_count
