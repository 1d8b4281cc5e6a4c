// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Where the lines of a message break.
#include "msg_support.h"

using namespace zel::test;

namespace {

// An informational line at that width after that prefix.
std::string wrapped(int32_t width, const std::string &prefix, const std::string &text) {
    return run_messages([&] {
               msg_set_width_limit(width);
               msg_print_with_prefix(prefix.c_str(), "%s", text.c_str());
           })
        .out;
}

// Two wrapped pieces, the second continuing the first.
std::string continued(int32_t width, const std::string &first, const std::string &second) {
    return run_messages([&] {
               msg_set_width_limit(width);
               msg_print_wrap("%s", first.c_str());
               MSG_CONT("%s", second.c_str());
           })
        .out;
}

} // namespace

TEST(MsgWrap, LaterLinesAreIndentedUnderTheFirst) {
    EXPECT_EQ(wrapped(20, "ab: ", "one two three four five six"), "ab: one two three\n    four five six\n");
}

TEST(MsgWrap, ALineThatJustFitsIsNotBroken) {
    EXPECT_EQ(wrapped(10, "", "0123456789"), "0123456789\n");
    EXPECT_EQ(wrapped(10, "", "12345 7890"), "12345 7890\n");
    EXPECT_EQ(wrapped(10, "p:", "123 5678"), "p:123 5678\n");
    EXPECT_EQ(wrapped(10, "p:", "123 56789"), "p:123\n  56789\n");
}

TEST(MsgWrap, ALineBreaksAtTheRightmostBlankInReach) {
    EXPECT_EQ(wrapped(5, "", "a b c d e"), "a b c\nd e\n");
    EXPECT_EQ(wrapped(7, "", "aaa\tbbb\tccc"), "aaa\tbbb\nccc\n");
    EXPECT_EQ(wrapped(6, "", "aaa\tbbb ccc"), "aaa\nbbb\nccc\n");
}

TEST(MsgWrap, TheBlankBehindAFullLineIsInReach) {
    EXPECT_EQ(wrapped(5, "", "12345 67"), "12345\n67\n");
    EXPECT_EQ(wrapped(5, "", "12345\t67"), "12345\n67\n");
}

TEST(MsgWrap, BlanksBehindABreakAreDroppedAndOthersStay) {
    EXPECT_EQ(wrapped(5, "", "a  b     \t c  d"), "a  b \nc  d\n");
    EXPECT_EQ(wrapped(5, "", "hello \t "), "hello\n");
    EXPECT_EQ(wrapped(5, "", "  a b"), "  a b\n");
}

TEST(MsgWrap, AWordLongerThanTheRoomIsWrittenWhole) {
    EXPECT_EQ(wrapped(5, "", "abcdefghij"), "abcdefghij\n");
    EXPECT_EQ(wrapped(5, "", "abcdefghij k"), "abcdefghij\nk\n");
    EXPECT_EQ(wrapped(5, "", "abcdefghij\tk"), "abcdefghij\nk\n");
    EXPECT_EQ(wrapped(5, "p:", "a abcdefghij k"), "p:a\n  abcdefghij\n  k\n");
}

TEST(MsgWrap, ALongWordEndsAtTheEndOfItsLine) {
    EXPECT_EQ(wrapped(5, "", "abcdefghij\nk"), "abcdefghij\nk\n");
    EXPECT_EQ(wrapped(5, "", "abcdefghij\n\nk"), "abcdefghij\n\nk\n");
}

TEST(MsgWrap, ALongWordBehindBlanksMovesToTheNextLine) {
    EXPECT_EQ(wrapped(5, "p:", "  abcdefgh"), "p:\n  abcdefgh\n");
    EXPECT_EQ(wrapped(5, "p:", "   abcdefgh"), "p:\n  abcdefgh\n");
    EXPECT_EQ(wrapped(5, "", "  abcdefgh"), "abcdefgh\n");
}

TEST(MsgWrap, BlanksThatExceedTheRoomAreDropped) {
    EXPECT_EQ(wrapped(5, "p:", "      x"), "p:\n  x\n");
    EXPECT_EQ(wrapped(5, "p:", "      "), "p:\n");
    EXPECT_EQ(wrapped(5, "p:", "      \nx"), "p:\n  x\n");
}

TEST(MsgWrap, TrailingBlanksThatFitAreWritten) {
    EXPECT_EQ(wrapped(5, "p:", "   "), "p:   \n");
    EXPECT_EQ(wrapped(5, "p:", "a  "), "p:a  \n");
}

TEST(MsgWrap, ANewlineOfTheTextEndsTheLineAndTheNextIsIndented) {
    EXPECT_EQ(wrapped(20, "p: ", "one\ntwo\n\nthree"), "p: one\n   two\n   \n   three\n");
    EXPECT_EQ(wrapped(20, "p: ", "\none"), "p: \n   one\n");
    EXPECT_EQ(wrapped(20, "", "\n"), "\n\n");
}

TEST(MsgWrap, ANewlineBehindABreakEndsTheSameLine) {
    EXPECT_EQ(wrapped(5, "", "aaaaa   \nb"), "aaaaa\nb\n");
    EXPECT_EQ(wrapped(5, "", "aaaaa \n  b"), "aaaaa\n  b\n");
}

TEST(MsgWrap, EachLineIsWrappedByItself) {
    EXPECT_EQ(wrapped(7, "p:", "aaa bb\ncc dd ee"), "p:aaa\n  bb\n  cc dd\n  ee\n");
}

TEST(MsgWrap, ATabCountsAsOneCharacter) {
    EXPECT_EQ(wrapped(7, "", "aaa\tbbb"), "aaa\tbbb\n");
}

TEST(MsgWrap, ARawTextIsIndentedButNotWrapped) {
    const Outcome outcome = run_messages([] {
        msg_set_width_limit(10);
        msg_set_print_prefix("p: ");
        msg_print_raw("one two three four\n  five\n\nsix  ");
    });
    EXPECT_EQ(outcome.out, "p: one two three four\n     five\n   \n   six  ");
}

TEST(MsgWrap, ARawTextThatEndsInANewlineLeavesNoLineOpen) {
    const Outcome outcome = run_messages([] {
        msg_print_raw("one\n");
        msg_print("two");
    });
    EXPECT_EQ(outcome.out, "one\ntwo\n");
}

TEST(MsgWrap, WithoutAWidthEveryLayoutIsRawButALineStillEnds) {
    const Outcome outcome = run_messages([] {
        msg_set_width_limit(0);
        msg_set_print_prefix("p: ");
        const std::string text = std::string(100, 'x') + "  \n\t" + std::string(100, 'y') + " ";
        msg_print("%s", text.c_str());
        msg_print_wrap("%s", text.c_str());
    });
    const std::string first = "p: " + std::string(100, 'x') + "  \n   \t" + std::string(100, 'y') + " ";
    EXPECT_EQ(outcome.out, first + "\n" + first);
}

// ---- Little room or none -------------------------------------------------------------------------------------------

TEST(MsgWrap, APrefixLongerThanTheWidthStillTakesOneWordALine) {
    EXPECT_EQ(wrapped(5, "Warning: ", "x"), "Warning: x\n");
    EXPECT_EQ(wrapped(5, "Warning: ", "one two\nthree"), "Warning: one\n         two\n         three\n");
    EXPECT_EQ(wrapped(1, "p:", "a b"), "p:a\n  b\n");
}

TEST(MsgWrap, APrefixAsLongAsTheWidthTakesOneWordALine) {
    EXPECT_EQ(wrapped(9, "Warning: ", "one two"), "Warning: one\n         two\n");
}

TEST(MsgWrap, BehindAPrefixLongerThanTheWidthLeadingBlanksStillMoveTheWord) {
    EXPECT_EQ(wrapped(5, "Warning: ", "  one"), "Warning: \n         one\n");
}

TEST(MsgWrap, APrefixLongerThanTheWidthTakesAnEmptyText) {
    EXPECT_EQ(wrapped(5, "Warning: ", ""), "Warning: \n");
    EXPECT_EQ(wrapped(5, "Warning: ", "\n"), "Warning: \n\n");
}

TEST(MsgWrap, AnOpenLineBeyondTheWidthMovesTheNextWordToANewLine) {
    EXPECT_EQ(continued(5, "abcdefghij", "k"), "abcdefghij\nk");
    EXPECT_EQ(continued(5, "abcdefghij", " k"), "abcdefghij\nk");
}

TEST(MsgWrap, AnOpenLineThatIsJustFullTakesOneMoreWord) {
    EXPECT_EQ(continued(5, "abcde", "k l"), "abcdek\nl");
    EXPECT_EQ(continued(5, "abcde", " k l"), "abcde\nk l");
}

TEST(MsgWrap, AnOpenLineTakesWhatFits) {
    EXPECT_EQ(continued(10, "abc", " def gh ij"), "abc def gh\nij");
    EXPECT_EQ(continued(10, "abc", "def gh ij"), "abcdef gh\nij");
}

TEST(MsgWrap, UnderALongPrefixTheLaterLinesBreakEarly) {
    const std::string prefix(60, 'P');
    const std::string indentation(49, ' ');
    EXPECT_EQ(wrapped(78, prefix, "one two three four five six seven eight nine"),
              prefix + "one two three four\n" + indentation + "five six seven\n" + indentation + "eight nine\n");
}

TEST(MsgWrap, TheWidestWidthIsNoTrouble) {
    const std::string text = std::string(50000, 'x') + " y";
    EXPECT_EQ(wrapped(INT32_MAX, "p: ", text), "p: " + text + "\n");
}
