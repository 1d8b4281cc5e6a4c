// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The texts that word_count and its companion accept as a line of a message.
#include <examples/word_count_protocol.h>

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace {

using namespace word_count;

constexpr std::string_view kWithNul("a\0b", 3);

TEST(WordCountLine, AFurtherLineMayNotBeEmptyAndTheFirstMay) {
    EXPECT_TRUE(can_be_first_line(""));
    EXPECT_FALSE(can_be_further_line(""));
}

TEST(WordCountLine, NoLineHoldsALineEndOrANul) {
    for (const std::string_view text : {std::string_view("a\r\nb"), std::string_view("\r\n"), kWithNul}) {
        EXPECT_FALSE(can_be_first_line(text));
        EXPECT_FALSE(can_be_further_line(text));
    }
}

TEST(WordCountLine, CrAndLfByThemselvesArePartOfIt) {
    for (const std::string_view text : {"a", "\r", "\n", "\n\r", "a\rb\nc"}) {
        EXPECT_TRUE(can_be_first_line(text));
        EXPECT_TRUE(can_be_further_line(text));
    }
}

// Nothing is sent: there is no pair to send it over.
TEST(WordCountLine, AMessageWithOneThatCannotBeIsRefused) {
    EXPECT_FALSE(send_message(nullptr, {}));
    EXPECT_FALSE(send_message(nullptr, {"a\r\nb"}));
    EXPECT_FALSE(send_message(nullptr, {"count", ""}));
    EXPECT_FALSE(send_message(nullptr, {"count", "name", std::string(kWithNul)}));
}

} // namespace
