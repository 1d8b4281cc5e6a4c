// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Messages whose formats are converted without the C library read as the C library
// converts them.
#include "msg_support.h"

#include <climits>
#include <cstring>
#include <printf.h>
#include <random>
#include <vector>

using namespace zel::test;

namespace {

const char *const kTextConversions[] = {"%s", "%s", "%5s", "%-9s|", "%.3s"};
const char *const kIntConversions[] = {"%d", "%d", "%i", "%+d", "%5d", "%x", "%c", "%hhd"};
const char *const kUnsignedConversions[] = {"%u", "%u", "%08u", "%o", "%#x"};
const char *const kBetween[] = {"", " ", "%%", "text", "\xC3\xA4\xFF", "100%% of ", "\n", "%%%%"};

template <size_t Count>
std::string one_of(std::mt19937 &dice, const char *const (&choices)[Count]) {
    return choices[dice() % Count];
}

// A format for a text, an int and an unsigned.
std::string some_format(std::mt19937 &dice) {
    std::string format = "f" + one_of(dice, kBetween);
    format += one_of(dice, kTextConversions) + one_of(dice, kBetween);
    format += one_of(dice, kIntConversions) + one_of(dice, kBetween);
    return format + one_of(dice, kUnsignedConversions) + one_of(dice, kBetween);
}

int some_int(std::mt19937 &dice) {
    const int numbers[] = {0, 1, -1, 9, 10, -10, INT_MAX, INT_MIN, static_cast<int>(dice())};
    return numbers[dice() % std::size(numbers)];
}

std::string converted(const char *format, ...) __attribute__((format(printf, 1, 2)));
void write_raw(const char *format, ...) __attribute__((format(printf, 1, 2)));

// What a message shows by the C library: the part up to the first NUL.
std::string converted(const char *format, ...) {
    std::vector<char> text(20000);
    va_list args;
    va_start(args, format);
    vsnprintf(text.data(), text.size(), format, args);
    va_end(args);
    return text.data();
}

void write_raw(const char *format, ...) {
    va_list args;
    va_start(args, format);
    _msg_output(MSG_INFO, MSG_FMT_RAW, 0, 1, "", format, args);
    va_end(args);
}

// The same for formats that the compiler cannot check.
std::string (*const by_the_c_library)(const char *format, ...) = converted;
void (*const write_as_built)(const char *format, ...) = write_raw;

// What reaches a stream of messages that are not wrapped.
std::string written(const std::function<void()> &body) {
    return run_messages([&body] {
               msg_set_width_limit(0);
               body();
           })
        .out;
}

} // namespace

TEST(MsgPlain, FormatsOfAllKindsReadAsTheCLibraryConvertsThem) {
    std::string expected;
    const std::string text = written([] {
        std::mt19937 dice(7);
        for (int round = 0; round < 4000; ++round) {
            const std::string format = some_format(dice);
            const std::string word(dice() % 12, 'w');
            const int number = some_int(dice);
            write_as_built(format.c_str(), word.c_str(), number, number);
        }
    });
    std::mt19937 dice(7);
    for (int round = 0; round < 4000; ++round) {
        const std::string format = some_format(dice);
        const std::string word(dice() % 12, 'w');
        const int number = some_int(dice);
        expected += by_the_c_library(format.c_str(), word.c_str(), number, number);
    }
    EXPECT_EQ(text, expected);
}

TEST(MsgPlain, TextsAroundTheSizeOfTheAreaAreWhole) {
    for (const size_t length : {5U, 6U, 7U, 8U, 9U, 9985U, 9990U, 9997U, 9998U, 9999U, 10000U, 10001U}) {
        const std::string text(length, 'x');
        EXPECT_EQ(written([&text] { msg_print_raw("%s", text.c_str()); }), text);
        EXPECT_EQ(written([&text] { msg_print_raw("%s.%d", text.c_str(), -17); }), text + ".-17");
        EXPECT_EQ(written([&text] { msg_print_raw("%u%%%s", UINT_MAX, text.c_str()); }), "4294967295%" + text);
        EXPECT_EQ(written([&text] { write_as_built(text.c_str()); }), text);
    }
}

TEST(MsgPlain, ANullTextIsThatOfTheCLibrary) {
    const char *volatile none = nullptr;
    EXPECT_EQ(written([&none] { msg_print("a %s b %d", none, 3); }), "a (null) b 3\n");
}

TEST(MsgPlain, APercentSignAtTheEndLosesTheMessage) {
    const Outcome outcome = run_messages([] {
        write_as_built("text %");
        msg_print("next");
    });
    EXPECT_EQ(outcome.out, "next\n");
    EXPECT_EQ(outcome.err, "A message could not be formatted and is lost.\n");
}

TEST(MsgPlain, AnUnfinishedAttemptLeavesTheArgumentsAtTheFirst) {
    EXPECT_EQ(written([] { msg_print("%s %d %u %5.1f %s", "one", 2, 3U, 4.0, "five"); }), "one 2 3   4.0 five\n");
}

namespace {

// A meaning of the program's own for a number.
int print_own(FILE *stream, const printf_info * /*info*/, const void *const * /*arguments*/) {
    return fprintf(stream, "own");
}

int take_unsigned(const printf_info * /*info*/, size_t /*count*/, int *types, int *size) {
    *types = PA_INT;
    *size = sizeof(unsigned);
    return 1;
}

} // namespace

TEST(MsgPlain, AMeaningOfTheProgramsOwnIsPassedOverInPlainFormatsAlone) {
    EXPECT_EQ(written([] {
                  register_printf_specifier('u', print_own, take_unsigned);
                  msg_print("%u", 3U);
                  msg_print("%u %c", 3U, 'c');
              }),
              "3\nown c\n");
}
