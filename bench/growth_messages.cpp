// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The growth plots of messages: their size, their lines, and the number of the descriptor that they arrive on.
#include "growth.h"

#include "by_hand.h"
#include "link.h"
#include "many_lines.h"
#include "table.h"

#include <components/platform/socket.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/resource.h>
#include <unistd.h>

namespace bench {

namespace {

constexpr const char *kLine = "a line of a message";
constexpr int kAnswerBuffer = 16384;

// The companion answers a large message with its number of lines, and one of a few lines with the last of them.
std::string expected;

int check_answer(int, char *first, char **) {
    return first == expected ? 1 : 0;
}

int check_answer_by_hand(int, char **lines) {
    return check_answer(0, lines[0], nullptr);
}

// The line of a talk about sizes. It is made for the sample and released behind it: a parent that keeps it is larger,
// and what it forks later slower.
constinit const char *long_line = nullptr;

using Send = std::function<int(int fd)>;

// Sends and waits for the answer, through the library.
void by_library(benchmark::State &state, int fd, const Send &send) {
    MsgBuf *buffer = platform_msgbuf_create(kAnswerBuffer);
    platform_msgbuf_set(buffer);
    while (state.KeepRunning()) {
        if (send(fd) == 0 || platform_get_one_message(fd, check_answer, nullptr, 1) == 0) {
            state.SkipWithError("wrong answer");
        }
    }
    platform_msgbuf_set(nullptr);
    platform_msgbuf_free(buffer);
}

void by_hand(benchmark::State &state, int fd, const Send &send) {
    ByHandEnd end;
    bool right = by_hand_open(&end, fd, 1, BY_HAND_AREA, BY_HAND_LINES) != 0;
    while (state.KeepRunning()) {
        right = right && send(fd) != 0 && by_hand_receive(&end, check_answer_by_hand) != 0;
    }
    if (!right) {
        state.SkipWithError("wrong answer");
    }
    by_hand_close(&end);
}

using Exchange = void (*)(benchmark::State &state, int fd, const Send &send);

// What is sent, who answers, and what the answer must be. number: the descriptor to talk through; the lowest free one
// when that is higher.
struct Talk {
    Exchange exchange;
    const char *service;
    std::string answer;
    Send send;
    int number = 0;
    size_t line_size = 0; // of long_line
};

Way way(const char *name, const Talk &talk) {
    return {name, [talk](benchmark::State &state) {
                const bool pair_of_library = std::strncmp(talk.service, "zel-", 4) == 0;
                const Link link = pair_of_library ? Link::by_library(Route::pair, talk.service)
                                                  : Link::by_hand(Route::pair, talk.service);
                const int fd = talk.number > link.fd() ? dup2(link.fd(), talk.number) : link.fd();
                const std::string line(talk.line_size, 'x');
                long_line = line.c_str();
                expected = talk.answer;
                talk.exchange(state, fd, talk.send);
                if (fd != link.fd()) {
                    close(fd);
                }
            }};
}

Work work(const char *series, const char *unit, int x, int64_t most) {
    return {.name = std::string(series) + ", " + std::to_string(x) + unit,
            .clock = Clock::wall,
            .iterations = std::max<int64_t>(most / (x + 20), 4),
            .series = series,
            .x = static_cast<double>(x)};
}

// ---- The size of a message of one line ------------------------------------------------------------------------------

int send_long_line(int fd) {
    return platform_send_message(fd, long_line, static_cast<char *>(nullptr));
}

int send_long_line_by_hand(int fd) {
    return by_hand_send_large(fd, long_line, 1);
}

void add_sizes() {
    for (const int size : {1, 16, 256, 4096, 65536, 1 << 20, 16 << 20}) {
        Work row = work("size of a message", " bytes", size, 32 << 20);
        row.iterations = std::min<int64_t>(row.iterations, 1000);
        const auto bytes = static_cast<size_t>(size);
        add_row(row, {way("zel", {by_library, "zel-large", "1", send_long_line, 0, bytes}),
                      way("floor", {by_hand, "waiting-large", "1", send_long_line_by_hand, 0, bytes})});
    }
}

// ---- The lines of a message -----------------------------------------------------------------------------------------

Send hand_sends(int lines) {
    return [lines](int fd) { return by_hand_send_large(fd, kLine, static_cast<size_t>(lines)); };
}

void add_lines_sent(int lines, const Send &send) {
    const std::string answer = std::to_string(lines);
    add_row(work("lines sent", "", lines, 20000),
            {way("zel", {by_hand, "waiting-large", answer, send}),
             way("floor", {by_hand, "waiting-large", answer, hand_sends(lines)})});
}

template <size_t Lines>
void add_many_lines_sent() {
    add_lines_sent(Lines, [](int fd) { return send_lines<Lines>(fd, kLine); });
}

void add_lines_sent() {
    add_lines_sent(1, [](int fd) { return platform_send_message(fd, kLine, static_cast<char *>(nullptr)); });
    add_many_lines_sent<10>();
    add_many_lines_sent<100>();
    add_many_lines_sent<1000>();
    add_many_lines_sent<10000>();
    add_many_lines_sent<50000>();
}

void add_lines_received() {
    for (const int lines : {1, 10, 100, 1000, 10000, PLATFORM_MAX_MESSAGE_LINES}) {
        const std::string answer = std::to_string(lines);
        add_row(work("lines received", "", lines, 20000),
                {way("zel", {by_hand, "zel-large", answer, hand_sends(lines)}),
                 way("floor", {by_hand, "waiting-large", answer, hand_sends(lines)})});
    }
}

// ---- The number of the descriptor -----------------------------------------------------------------------------------

// The highest number that this process may use, up to the wanted one.
int highest_number(int wanted) {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    return static_cast<int>(std::min<rlim_t>(limit.rlim_cur - 1, static_cast<rlim_t>(wanted)));
}

void add_descriptors() {
    for (const int wanted : {3, 30, 300, 1000, 3000, 20000}) {
        const int number = highest_number(wanted);
        const auto zel_sends = [](int fd) { return platform_send_message(fd, kLine, static_cast<char *>(nullptr)); };
        const auto sends = [](int fd) { return by_hand_send(fd, &kLine, 1); };
        add_row(work("number of the descriptor", "", number, INT64_C(1000) * (number + 20)),
                {way("zel", {by_library, "zel-messages", kLine, zel_sends, number}),
                 way("floor", {by_hand, "waiting-messages", kLine, sends, number})});
    }
}

} // namespace

void add_message_growth() {
    add_sizes();
    add_lines_sent();
    add_lines_received();
    add_descriptors();
}

} // namespace bench
