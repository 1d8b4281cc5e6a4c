// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A framed message and its answer, over the pair and over TCP, beside messages framed and parsed by hand.
#include "by_hand.h"
#include "link.h"
#include "outside.h"
#include "rows.h"
#include "table.h"

#include <components/platform/message_lines.h>
#include <components/platform/socket.h>

#include <array>
#include <cstring>
#include <string>
#include <string_view>
#include <sys/uio.h>
#include <tuple>
#include <vector>

namespace bench {

namespace {

constexpr int32_t kMessageBuffer = 65536;
constexpr int kMostLines = 51;

// The companion answers with the last line. One wrong answer, and the measurement is void.
constinit const char *expected = nullptr;

std::array<std::string, kMostLines> make_texts() {
    std::array<std::string, kMostLines> texts;
    for (size_t i = 0; i < texts.size(); ++i) {
        texts[i] = "line " + std::to_string(i) + ": the quick brown fox jumps over it";
    }
    return texts;
}

template <size_t Count>
std::array<const char *, Count> message() {
    static const std::array<std::string, kMostLines> texts = make_texts();
    std::array<const char *, Count> lines;
    for (size_t i = 0; i < Count; ++i) {
        lines[i] = texts[i].c_str();
    }
    return lines;
}

int check_answer(int, char *first, char **) {
    return std::strcmp(first, expected) == 0 ? 1 : 0;
}

int check_answer_by_hand(int, char **lines) {
    return check_answer(0, lines[0], nullptr);
}

template <size_t Count>
void zel_message(benchmark::State &state, Route route) {
    const Link link = Link::by_library(route, "zel-messages");
    MsgBuf *buffer = platform_msgbuf_create(kMessageBuffer);
    platform_msgbuf_set(buffer);
    const auto lines = message<Count>();
    expected = lines.back();
    const auto send = [&link](auto... line) {
        return platform_send_message(link.fd(), line..., static_cast<char *>(nullptr));
    };
    while (state.KeepRunning()) {
        if (std::apply(send, lines) == 0 || platform_get_one_message(link.fd(), check_answer, nullptr, 1) == 0) {
            state.SkipWithError("wrong answer");
        }
    }
    platform_msgbuf_set(nullptr);
    platform_msgbuf_free(buffer);
}

template <size_t Count>
void message_by_hand(benchmark::State &state, Route route, bool waits) {
    const Link link = Link::by_hand(route, waits ? "waiting-messages" : "bare-messages");
    ByHandEnd end;
    if (by_hand_open(&end, link.fd(), waits ? 1 : 0, BY_HAND_AREA, BY_HAND_LINES) == 0) {
        state.SkipWithError("no memory");
    }
    const auto lines = message<Count>();
    expected = lines.back();
    while (state.KeepRunning()) {
        if (by_hand_send(link.fd(), lines.data(), Count) == 0 || by_hand_receive(&end, check_answer_by_hand) == 0) {
            state.SkipWithError("wrong answer");
        }
    }
    by_hand_close(&end);
}

// The floor calls select before each recv, as the library does to run an idle function ten times a second; what "floor,
// no wait" differs from it by is the price of that.
template <size_t Count>
void add_message_row(Route route) {
    const char *way = route == Route::pair ? "over the pair" : "over TCP";
    const std::string lines = std::to_string(Count);
    add_row({.name = "message of " + lines + (Count == 1 ? " line " : " lines ") + way,
             .clock = Clock::wall,
             .iterations = 1000},
            with_peers((route == Route::pair ? "message-pair " : "message-tcp ") + lines, Clock::wall,
                       {{"zel", [route](benchmark::State &state) { zel_message<Count>(state, route); }},
                        {"floor", [route](benchmark::State &state) { message_by_hand<Count>(state, route, true); }},
                        {"floor, no wait",
                         [route](benchmark::State &state) { message_by_hand<Count>(state, route, false); }}}));
}

// ---- Lines that come from data --------------------------------------------------------------------------------------
//
// Both ways have a companion and a receiving end by hand: the sends alone differ.

using Lines = std::vector<std::string_view>;

Lines lines_of_data(size_t count) {
    static const std::array<std::string, kMostLines> texts = make_texts();
    return {texts.begin(), texts.begin() + static_cast<std::ptrdiff_t>(count)};
}

bool send_checked(int fd, const Lines &lines) {
    std::array<PlatformLine, kMostLines> table;
    for (size_t i = 0; i < lines.size(); ++i) {
        table[i] = {.text = lines[i].data(), .length = lines[i].size()};
    }
    return platform_send_message_lines(fd, table.data(), static_cast<int32_t>(lines.size())) == 1;
}

// Without a check of the lines, and without an answer to a partial send.
bool send_by_writev(int fd, const Lines &lines) {
    std::array<iovec, size_t{2} * kMostLines> pieces;
    size_t length = 2;
    for (size_t i = 0; i < lines.size(); ++i) {
        const bool last = i + 1 == lines.size();
        pieces[2 * i] = {.iov_base = const_cast<char *>(lines[i].data()), .iov_len = lines[i].size()};
        pieces[2 * i + 1] = {.iov_base = const_cast<char *>("\r\n\r\n"), .iov_len = last ? 4U : 2U};
        length += lines[i].size() + 2;
    }
    return writev(fd, pieces.data(), static_cast<int>(2 * lines.size())) == static_cast<ssize_t>(length);
}

void message_of_data(benchmark::State &state, size_t count, bool (*send)(int fd, const Lines &lines)) {
    const Link link = Link::by_hand(Route::pair, "bare-messages");
    ByHandEnd end;
    if (by_hand_open(&end, link.fd(), 0, BY_HAND_AREA, BY_HAND_LINES) == 0) {
        state.SkipWithError("no memory");
    }
    const Lines lines = lines_of_data(count);
    expected = lines.back().data();
    while (state.KeepRunning()) {
        if (!send(link.fd(), lines) || by_hand_receive(&end, check_answer_by_hand) == 0) {
            state.SkipWithError("wrong answer");
        }
    }
    by_hand_close(&end);
}

void add_data_row(size_t count) {
    add_row({.name = "message of " + std::to_string(count) + (count == 1 ? " line" : " lines") + " from data",
             .clock = Clock::wall,
             .iterations = 1000},
            {{"zel", [count](benchmark::State &state) { message_of_data(state, count, send_checked); }},
             {"floor", [count](benchmark::State &state) { message_of_data(state, count, send_by_writev); }}});
}

} // namespace

void add_message_rows() {
    for (const Route route : {Route::pair, Route::tcp}) {
        add_message_row<1>(route);
        add_message_row<6>(route);
        add_message_row<kMostLines>(route);
    }
    for (const int count : {1, 6, kMostLines}) {
        add_data_row(static_cast<size_t>(count));
    }
}

} // namespace bench
