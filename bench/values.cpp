// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Values and bulk data over the pair, beside plain send and recv.
#include "link.h"
#include "outside.h"
#include "rows.h"
#include "table.h"

#include <array>
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

} // namespace

void add_value_rows() {
    add_row({.name = "value of 4 bytes, there and back", .clock = Clock::wall, .iterations = 4000},
            with_peers("value", Clock::wall, {{"zel", zel_round_trip}, {"floor", bare_round_trip}}));
    add_row({.name = "256 MiB in calls of 64 KiB", .clock = Clock::wall, .iterations = 1},
            {{"zel", zel_bulk}, {"floor", bare_bulk}});
}

} // namespace bench
