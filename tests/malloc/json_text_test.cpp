// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// JSON texts: strings of any bytes, numbers, storage that is too short.
#include <malloc/internal/json_text.h>

#include <support/child.h>
#include <support/files.h>

#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <memory>
#include <string>
#include <string_view>

using namespace zel::test;
using zel::memory::JsonText;
using zel::memory::put_number;
using zel::memory::put_string;

namespace {

// The string of a text. The text stands in storage of its own length: the address
// sanitizer finds a read behind its NUL.
std::string string_of(std::string_view text) {
    const auto copy = std::make_unique<char[]>(text.size() + 1);
    text.copy(copy.get(), text.size());
    JsonText counted = {};
    put_string(counted, copy.get());
    std::string storage(counted.length, '?');
    JsonText json = {.storage = storage, .length = 0};
    put_string(json, copy.get());
    EXPECT_EQ(json.length, storage.size());
    return storage;
}

std::string number(long long value) {
    std::array<char, 32> storage = {};
    JsonText json = {.storage = storage, .length = 0};
    put_number(json, value);
    return storage.data();
}

// Every byte but NUL, each beside a letter.
std::string all_bytes() {
    std::string text;
    for (int byte = 1; byte <= 255; ++byte) {
        text += {static_cast<char>(byte), 'a'};
    }
    return text;
}

} // namespace

TEST(JsonText, OrdinaryCharactersStandAsTheyAre) {
    EXPECT_EQ(string_of(""), "\"\"");
    EXPECT_EQ(string_of("read_index: /home/guest, 'x' \x7F"), "\"read_index: /home/guest, 'x' \x7F\"");
}

TEST(JsonText, QuotesBackslashesAndControlsAreEscaped) {
    EXPECT_EQ(string_of("say \"no\""), R"("say \"no\"")");
    EXPECT_EQ(string_of("c:\\temp\\"), R"("c:\\temp\\")");
    EXPECT_EQ(string_of("\x01\t\n\x1F "), R"("\u0001\u0009\u000a\u001f ")");
}

TEST(JsonText, ValidUtf8StandsAsItIs) {
    for (const char *text : {"\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xE1\x80\x80", "\xED\x9F\xBF", "\xEE\x80\x80",
                             "\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF1\x80\x80\x80", "\xF4\x8F\xBF\xBF"}) {
        EXPECT_EQ(string_of(text), std::string("\"") + text + "\"");
    }
}

TEST(JsonText, EachByteThatIsNotValidUtf8IsTheReplacement) {
    struct Case {
        const char *text;
        int replacements;
    };
    for (const Case &one :
         {Case{"\x80", 1}, Case{"\xFF\xFE", 2}, Case{"\xC0\x80", 2}, Case{"\xC1\xBF", 2}, Case{"\xC3", 1},
          Case{"\xE0\x9F\xBF", 3}, Case{"\xED\xA0\x80", 3}, Case{"\xE2\x82", 2}, Case{"\xF0\x8F\xBF\xBF", 4},
          Case{"\xF4\x90\x80\x80", 4}, Case{"\xF0\x9F\x98", 3}, Case{"\xF5\x80\x80\x80", 4}}) {
        std::string expected = "\"";
        for (int count = 0; count < one.replacements; ++count) {
            expected += "\\ufffd";
        }
        EXPECT_EQ(string_of(one.text), expected + "\"");
    }
    EXPECT_EQ(string_of("a\xE2\x82z"), R"("a\ufffd\ufffdz")");
}

TEST(JsonText, AMissingTextIsNull) {
    std::array<char, 8> storage = {};
    JsonText json = {.storage = storage, .length = 0};
    put_string(json, nullptr);
    EXPECT_STREQ(storage.data(), "null");
}

TEST(JsonText, NumbersHaveTheirWholeRange) {
    EXPECT_EQ(number(0), "0");
    EXPECT_EQ(number(-7), "-7");
    EXPECT_EQ(number(LLONG_MAX), "9223372036854775807");
    EXPECT_EQ(number(LLONG_MIN), "-9223372036854775808");
}

TEST(JsonText, WhatDoesNotFitIsCutAndCounted) {
    std::array<char, 8> storage = {'?', '?', '?', '?', '?', '?', '?', '?'};
    JsonText json = {.storage = std::span(storage).first(5), .length = 0};
    put_string(json, "abc\ndef");
    EXPECT_EQ(std::string(storage.data(), storage.size()), "\"abc\\???");
    EXPECT_EQ(json.length, 14U);
}

TEST(JsonText, AReaderOfJsonTakesAStringOfAllBytes) {
    const ScratchFolder folder;
    const std::string text = all_bytes();
    write_file(folder.path + "/text.json", string_of(text));
    const Outcome outcome =
        run_program({ZEL_PYTHON, "-B", "-c",
                     "import json, sys\n"
                     "text = json.load(open(sys.argv[1], encoding='utf-8'))\n"
                     "wanted = ''.join(chr(b if b < 128 else 0xFFFD) + 'a' for b in range(1, 256))\n"
                     "print('equal' if text == wanted else 'different')\n",
                     folder.path + "/text.json"});
    EXPECT_EQ(outcome.out, "equal\n") << outcome.err;
}
