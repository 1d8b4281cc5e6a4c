// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// What a first program with a companion fell into, and the calls with which it does not: transfers and messages.
#include "pair_support.h"

#include <components/platform/message_lines.h>
#include <components/platform/pair_control.h>

#include <gtest/gtest.h>

#include <chrono>
#include <numeric>

using namespace zel::test;

namespace {

constexpr int32_t kFiveSeconds = 5000;

PlatformLine line_of(const std::string &text) {
    return {.text = text.data(), .length = text.size()};
}

bool receive_total(PairHandle *ph, int32_t *total) {
    return platform_pair_recv_all(ph, total, sizeof *total, kFiveSeconds, nullptr) == PLATFORM_PAIR_DONE;
}

} // namespace

// The companion's message loop had read the values together with the message, and waited for them on the socket.
TEST(PitfallOfTransfers, AValueRightBehindAMessageIsNotSwallowed) {
    PairHandle *ph = start({.companion = "pair_newcomer"});
    std::vector<int32_t> values(100);
    std::iota(values.begin(), values.end(), 1);
    const std::string count = std::to_string(values.size());
    const PlatformLine message[] = {{.text = "sum", .length = 3}, line_of(count)};
    const auto size = static_cast<int32_t>(values.size() * sizeof(int32_t));
    int32_t total = 0;
    EXPECT_EQ(platform_send_message_lines(platform_pair_tx_fd(ph), message, 2), 1);
    EXPECT_EQ(platform_pair_send_all(ph, values.data(), size, kFiveSeconds, nullptr), PLATFORM_PAIR_DONE);
    EXPECT_TRUE(receive_total(ph, &total));
    EXPECT_EQ(total, 5050);
    EXPECT_EQ(finish(ph), kServed);
}

// A receive gave what was there; the rest of the value was taken for the next one.
TEST(PitfallOfTransfers, AValueInPiecesIsReceivedWhole) {
    LocalPair pair;
    const int64_t sent = 0x0123456789abcdef;
    const char *bytes = reinterpret_cast<const char *>(&sent);
    for (size_t at = 0; at < sizeof sent; ++at) {
        ASSERT_EQ(send(pair.peer, bytes + at, 1, 0), 1);
    }
    int64_t value = 0;
    EXPECT_EQ(platform_pair_recv_all(pair.ph, &value, sizeof value, kFiveSeconds, nullptr), PLATFORM_PAIR_DONE);
    EXPECT_EQ(value, sent);
    pair.close_peer();
    EXPECT_EQ(platform_pair_recv_all(pair.ph, &value, sizeof value, kFiveSeconds, nullptr), PLATFORM_PAIR_ENDED)
        << "the end is told apart from a value";
}

// The lines of a message were arguments of one call: as many as were written down.
TEST(PitfallOfTransfers, AsManyLinesAreSentAsTheDataHas) {
    PairHandle *ph = start({.companion = "pair_newcomer"});
    std::vector<std::string> numbers;
    std::vector<PlatformLine> lines = {{.text = "add", .length = 3}};
    numbers.reserve(1000);
    for (int number = 1; number <= 1000; ++number) {
        numbers.push_back(std::to_string(number));
        lines.push_back(line_of(numbers.back()));
    }
    int32_t total = 0;
    EXPECT_EQ(platform_send_message_lines(platform_pair_tx_fd(ph), lines.data(), static_cast<int32_t>(lines.size())),
              1);
    EXPECT_TRUE(receive_total(ph, &total));
    EXPECT_EQ(total, 500500);
    EXPECT_EQ(finish(ph), kServed);
}

// A companion that did not answer kept its parent for ever.
TEST(PitfallOfTransfers, ACompanionThatDoesNotAnswerIsWaitedForNoLongerThanAsked) {
    PairHandle *ph = start({.companion = "pair_newcomer"});
    const PlatformLine message[] = {{.text = "silent", .length = 6}};
    EXPECT_EQ(platform_send_message_lines(platform_pair_tx_fd(ph), message, 1), 1);
    int32_t answer = 0;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(platform_pair_recv_all(ph, &answer, sizeof answer, 50, nullptr), PLATFORM_PAIR_TIMED_OUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50));
    EXPECT_EQ(finish(ph), kServed);
}
