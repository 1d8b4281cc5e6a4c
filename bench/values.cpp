// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Values and bulk data over the pair, beside plain send and recv.
#include "link.h"
#include "outside.h"
#include "rows.h"
#include "table.h"

#include <components/platform/pair_control.h>

#include <array>
#include <poll.h>
#include <string>
#include <sys/socket.h>

namespace bench {

namespace {

constexpr int64_t kOneWay = INT64_C(1) << 28;
constexpr int32_t kBuffer = 65536;
constinit std::array<char, kBuffer> buffer = {};

void zel_round_trip(benchmark::State &state) {
    const Link link = Link::by_library(Route::pair, "zel-values");
    int32_t value = 42;
    while (state.KeepRunning()) {
        platform_pair_send(link.pair(), &value, sizeof value);
        if (platform_pair_recv(link.pair(), &value, sizeof value) != sizeof value) {
            state.SkipWithError("the companion is gone");
        }
    }
}

void bare_round_trip(benchmark::State &state) {
    const Link link = Link::by_hand(Route::pair, "bare-values");
    int32_t value = 42;
    while (state.KeepRunning()) {
        send(link.fd(), &value, sizeof value, 0);
        if (recv(link.fd(), &value, sizeof value, 0) != sizeof value) {
            state.SkipWithError("the companion is gone");
        }
    }
}

bool zel_one_way(PairHandle *pair) {
    for (int64_t left = kOneWay; left > 0;) {
        const auto wanted = static_cast<int32_t>(std::min<int64_t>(left, kBuffer));
        const int32_t count = platform_pair_send(pair, buffer.data(), wanted);
        if (count < 1) {
            return false;
        }
        left -= count;
    }
    return platform_pair_recv(pair, buffer.data(), 1) == 1;
}

bool bare_one_way(int fd) {
    for (int64_t left = kOneWay; left > 0;) {
        const ssize_t count = send(fd, buffer.data(), static_cast<size_t>(std::min<int64_t>(left, kBuffer)), 0);
        if (count < 1) {
            return false;
        }
        left -= count;
    }
    return recv(fd, buffer.data(), 1, 0) == 1;
}

void zel_bulk(benchmark::State &state) {
    const Link link = Link::by_library(Route::pair, "zel-sink");
    state.counters["bytes"] = static_cast<double>(kOneWay);
    while (state.KeepRunning()) {
        if (!zel_one_way(link.pair())) {
            state.SkipWithError("the companion is gone");
        }
    }
}

void bare_bulk(benchmark::State &state) {
    const Link link = Link::by_hand(Route::pair, "bare-sink");
    state.counters["bytes"] = static_cast<double>(kOneWay);
    while (state.KeepRunning()) {
        if (!bare_one_way(link.fd())) {
            state.SkipWithError("the companion is gone");
        }
    }
}

// ---- A question and its answer, within five seconds -----------------------------------------------------------------

constexpr int kFiveSeconds = 5000;
constexpr int32_t kLarge = 1 << 20; // far more than the pair holds

void zel_exchange(benchmark::State &state, const char *service, int32_t length) {
    const Link link = Link::by_library(Route::pair, service);
    std::string question(static_cast<size_t>(length), 'q');
    std::string answer(static_cast<size_t>(length), ' ');
    while (state.KeepRunning()) {
        if (platform_pair_exchange(link.pair(), question.data(), length, answer.data(), length, kFiveSeconds) !=
            PLATFORM_PAIR_DONE) {
            state.SkipWithError("no answer");
        }
    }
}

bool is_ready(int fd, short events, short *ready) {
    pollfd entry = {.fd = fd, .events = events, .revents = 0};
    const bool waited = poll(&entry, 1, kFiveSeconds) == 1;
    *ready = entry.revents;
    return waited;
}

// As one would write it: what fits is sent, and then whatever is possible is done.
bool exchange_by_hand(int fd, const std::string &question, std::string &answer) {
    size_t sent = 0;
    size_t received = 0;
    short ready = POLLOUT;
    while (received < answer.size()) {
        if ((ready & POLLOUT) != 0 && sent < question.size()) {
            const ssize_t count = send(fd, question.data() + sent, question.size() - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
            sent += count > 0 ? static_cast<size_t>(count) : 0;
        }
        if ((ready & POLLIN) != 0) {
            const ssize_t count = recv(fd, answer.data() + received, answer.size() - received, MSG_DONTWAIT);
            received += count > 0 ? static_cast<size_t>(count) : 0;
        }
        const short events = sent < question.size() ? POLLIN | POLLOUT : POLLIN;
        if (received < answer.size() && !is_ready(fd, events, &ready)) {
            return false;
        }
    }
    return true;
}

void bare_exchange(benchmark::State &state, const char *service, int32_t length) {
    const Link link = Link::by_hand(Route::pair, service);
    const std::string question(static_cast<size_t>(length), 'q');
    std::string answer(static_cast<size_t>(length), ' ');
    while (state.KeepRunning()) {
        if (!exchange_by_hand(link.fd(), question, answer)) {
            state.SkipWithError("no answer");
        }
    }
}

void add_exchange_row(const char *name, int64_t iterations, const char *service, int32_t length) {
    add_row({.name = name, .clock = Clock::wall, .iterations = iterations},
            {{"zel", [service, length](benchmark::State &state) { zel_exchange(state, service, length); }},
             {"floor", [service, length](benchmark::State &state) { bare_exchange(state, service, length); }}});
}

} // namespace

void add_value_rows() {
    add_row({.name = "value of 4 bytes, there and back", .clock = Clock::wall, .iterations = 4000},
            with_peers("value", Clock::wall, {{"zel", zel_round_trip}, {"floor", bare_round_trip}}));
    add_row({.name = "256 MiB in calls of 64 KiB", .clock = Clock::wall, .iterations = 1},
            {{"zel", zel_bulk}, {"floor", bare_bulk}});
    add_exchange_row("exchange of 4 bytes with a time limit", 4000, "bare-values", sizeof(int32_t));
    add_exchange_row("exchange of 1 MiB each way at once", 20, "bare-echo", kLarge);
}

} // namespace bench
