// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The width limit and its environment variable.
#include "msg_support.h"

#include <cerrno>
#include <cstdlib>

using namespace zel::test;

namespace {

// The width limit under a value of the variable, or under none.
std::string width_under(const char *value) {
    return run_messages([value] {
               if (value != nullptr) {
                   setenv("ZEL_MSGERR_WRAP", value, 1);
               }
               printf("%d", msg_get_width_limit());
           })
        .out;
}

// Eighty characters that break once at any width from 78 down to 71.
const std::string kLongText = std::string(70, 'x') + " " + std::string(9, 'y');
const std::string kOneLine = kLongText + "\n";
const std::string kTwoLines = std::string(70, 'x') + "\n" + std::string(9, 'y') + "\n";

} // namespace

TEST(MsgWidth, TheWidthIsSeventyEightByDefault) {
    EXPECT_EQ(width_under(nullptr), "78");
    const Outcome outcome = run_messages([] {
        msg_print("%s", std::string(78, 'x').c_str());
        msg_print("%s", (std::string(39, 'x') + " " + std::string(39, 'y')).c_str());
    });
    EXPECT_EQ(outcome.out, std::string(78, 'x') + "\n" + std::string(39, 'x') + "\n" + std::string(39, 'y') + "\n");
}

TEST(MsgWidth, TheVariableWidensTheDefaultButNeverNarrowsIt) {
    EXPECT_EQ(width_under("200"), "200");
    EXPECT_EQ(width_under("79"), "79");
    EXPECT_EQ(width_under("32766"), "32766");
    EXPECT_EQ(width_under("78"), "78");
    EXPECT_EQ(width_under("77"), "78");
    EXPECT_EQ(width_under("40"), "78");
    EXPECT_EQ(width_under("1"), "78");
}

TEST(MsgWidth, ANumberOutOfRangeTurnsWrappingOff) {
    for (const char *value : {"0", "-5", "-1", "32767", "40000", "2147483648", "99999999999999999999999",
                              "-99999999999999999999999", "0x50"}) {
        EXPECT_EQ(width_under(value), "0") << value;
    }
}

TEST(MsgWidth, AVariableWithoutANumberChangesNothing) {
    for (const char *value : {"", "abc", " ", "-", "x200", "+"}) {
        EXPECT_EQ(width_under(value), "78") << value;
    }
}

TEST(MsgWidth, TextAfterTheNumberInTheVariableIsIgnored) {
    EXPECT_EQ(width_under("200abc"), "200");
    EXPECT_EQ(width_under("100.9"), "100");
    EXPECT_EQ(width_under("0200"), "200");
    EXPECT_EQ(width_under("40 columns"), "78");
    EXPECT_EQ(width_under("0abc"), "0");
}

TEST(MsgWidth, TheVariableIsReadByTheFirstMessage) {
    const Outcome outcome = run_messages([] {
        setenv("ZEL_MSGERR_WRAP", "100", 1);
        msg_print("%s", kLongText.c_str());
    });
    EXPECT_EQ(outcome.out, kOneLine);
}

TEST(MsgWidth, TheVariableIsReadOnceOnly) {
    const Outcome outcome = run_messages([] {
        msg_print("%s", kLongText.c_str());
        setenv("ZEL_MSGERR_WRAP", "100", 1);
        msg_print("%s", kLongText.c_str());
        printf("%d", msg_get_width_limit());
    });
    EXPECT_EQ(outcome.out, kTwoLines + kTwoLines + "78");
}

TEST(MsgWidth, AVariableThatSaysNothingSettlesTheWidth) {
    const Outcome outcome = run_messages([] {
        setenv("ZEL_MSGERR_WRAP", "abc", 1);
        msg_get_width_limit();
        setenv("ZEL_MSGERR_WRAP", "100", 1);
        printf("%d", msg_get_width_limit());
    });
    EXPECT_EQ(outcome.out, "78");
}

TEST(MsgWidth, AnUnwrittenMessageDoesNotSettleTheWidth) {
    const Outcome outcome = run_messages([] {
        msg_set_primary(0);
        msg_primary_print("text");
        msg_diag("text");
        setenv("ZEL_MSGERR_WRAP", "100", 1);
        printf("%d", msg_get_width_limit());
    });
    EXPECT_EQ(outcome.out, "100");
}

TEST(MsgWidth, ARawMessageSettlesTheWidth) {
    const Outcome outcome = run_messages([] {
        msg_print_raw("raw\n");
        setenv("ZEL_MSGERR_WRAP", "100", 1);
        printf("%d", msg_get_width_limit());
    });
    EXPECT_EQ(outcome.out, "raw\n78");
}

TEST(MsgWidth, AWidthThatWasSetIsKeptWhateverTheVariableSays) {
    for (const int32_t width : {0, 1, 40, 78, 100000, INT32_MAX}) {
        const Outcome outcome = run_messages([width] {
            setenv("ZEL_MSGERR_WRAP", "200", 1);
            msg_set_width_limit(width);
            msg_print("%s", "");
            printf("%d", msg_get_width_limit());
        });
        EXPECT_EQ(outcome.out, "\n" + std::to_string(width));
    }
}

TEST(MsgWidth, TheWidthCanBeSetAgainAndAgain) {
    const Outcome outcome = run_messages([] {
        for (const int32_t width : {0, 75, 0, 100}) {
            msg_set_width_limit(width);
            msg_print("%s", kLongText.c_str());
        }
    });
    EXPECT_EQ(outcome.out, kOneLine + kTwoLines + kOneLine + kOneLine);
}

TEST(MsgWidth, ANegativeWidthEndsTheProcess) {
    for (const int32_t width : {-1, -78, INT32_MIN}) {
        const Outcome outcome = run_messages([width] { msg_set_width_limit(width); });
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(outcome.err, "Error: msg_set_width_limit: Width cannot be less than 0!\n");
        EXPECT_EQ(outcome.status, 1);
    }
}

TEST(MsgWidth, ReadingTheVariableKeepsErrno) {
    const Outcome outcome = run_messages([] {
        setenv("ZEL_MSGERR_WRAP", "99999999999999999999999", 1);
        errno = ENOENT;
        msg_get_width_limit();
        printf("%d", errno == ENOENT);
    });
    EXPECT_EQ(outcome.out, "1");
}
