// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Assertions, bounded text and the kept errno.
#include <msg/base/assertion.h>
#include <msg/base/errno_kept.h>
#include <msg/base/text.h>
#include <support/child.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <support/interpose.h>

using namespace zel::test;

namespace {

constexpr const char *kUnit = "folder/unit";

void require_positive(int number) {
    ZEL_ASSERT(number > 0);
}

void require_small(int number) {
    ZEL_ASSERT_AS(number < 10, "small(number)");
}

} // namespace

TEST(BaseAssertion, AnAssertionThatHoldsSaysNothing) {
    const Outcome outcome = run_in_child([] {
        require_positive(1);
        require_small(1);
    });
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
}

TEST(BaseAssertion, AFailedAssertionNamesConditionUnitAndFunctionAndAborts) {
    const Outcome outcome = run_in_child([] { require_positive(0); });
    EXPECT_EQ(outcome.err, "folder/unit: require_positive: Assertion `number > 0' failed.\n");
    EXPECT_EQ(outcome.signal, SIGABRT);
}

TEST(BaseAssertion, AConditionMayBeReportedUnderAnotherText) {
    const Outcome outcome = run_in_child([] { require_small(10); });
    EXPECT_EQ(outcome.err, "folder/unit: require_small: Assertion `small(number)' failed.\n");
    EXPECT_EQ(outcome.signal, SIGABRT);
}

TEST(BaseText, FormattingIsCutToTheBufferAndSaysSo) {
    std::array<char, 6> buffer;
    EXPECT_TRUE(zel::format_text(buffer, "%d", 12345));
    EXPECT_STREQ(buffer.data(), "12345");
    EXPECT_FALSE(zel::format_text(buffer, "%d", 123456));
    EXPECT_STREQ(buffer.data(), "12345");
}

TEST(BaseText, TheTextBeforeAFailedConversionIsKept) {
    std::array<char, 12> buffer;
    buffer.fill('?');
    EXPECT_FALSE(zel::format_text(buffer, "%d %ls after", 12, L"\u20ac"));
    EXPECT_STREQ(buffer.data(), "12 ");
}

TEST(BaseText, AFailedConversionLeavesATextThatEndsInItsBuffer) {
    std::array<char, 6> buffer;
    const Interposed failing(hook::vsnprintf, [](char *target, size_t size, const char *, va_list) {
        std::fill_n(target, size, 'x');
        return -1;
    });
    EXPECT_FALSE(zel::format_text(buffer, "text"));
    EXPECT_STREQ(buffer.data(), "xxxxx");
}

TEST(BaseText, ATextWhoseFirstConversionFailsIsEmpty) {
    std::array<char, 6> buffer = {'o', 'l', 'd', '\0'};
    const Interposed failing(hook::vsnprintf, fail_nth(hook::vsnprintf, 0, EILSEQ, -1));
    EXPECT_FALSE(zel::format_text(buffer, "text"));
    EXPECT_STREQ(buffer.data(), "");
}

TEST(BaseText, PartsEndWhereTheTextEnds) {
    EXPECT_EQ(zel::first_part("text", 2), "te");
    EXPECT_EQ(zel::first_part("text", 9), "text");
    EXPECT_EQ(zel::part_from("text", 1), "ext");
    EXPECT_EQ(zel::part_from("text", 4), "");
    EXPECT_EQ(zel::part_from("text", 9), "");
}

TEST(BaseText, CopyingAPartFillsTheTargetAtMost) {
    std::array<char, 4> target = {'.', '.', '.', '.'};
    EXPECT_EQ(zel::copy_part(target, "ab"), 2U);
    EXPECT_EQ(std::string(target.data(), 4), "ab..");
    EXPECT_EQ(zel::copy_part(target, "wxyz and more"), 4U);
    EXPECT_EQ(std::string(target.data(), 4), "wxyz");
}

TEST(BaseText, ErrnoIsRestoredAtTheEndOfTheScope) {
    errno = EACCES;
    {
        const zel::ErrnoKept kept;
        errno = ENOENT;
        EXPECT_EQ(kept.value, EACCES);
    }
    EXPECT_EQ(errno, EACCES);
}
