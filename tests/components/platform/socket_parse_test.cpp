// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Finding a message in data: every edge of the framing, a second parser to compare with, the limit of lines.
#include "socket_support.h"

#include <components/platform/socket/message_scan.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <random>

namespace {

using namespace zel::test;

constexpr size_t kTableSize = PLATFORM_MAX_MESSAGE_LINES + 1;

struct Parsed {
    int length = 0;
    std::vector<size_t> line_starts;
    std::string data; // as parsing left it
    bool operator==(const Parsed &) const = default;
};

// The data stands in storage of just its size, so that a look beyond it is caught by the address sanitizer.
Parsed parse(std::string_view data) {
    static std::vector<char *> table(kTableSize);
    std::fill(table.begin(), table.begin() + 64, nullptr);
    const std::unique_ptr<char[]> storage(new char[data.size()]);
    std::copy(data.begin(), data.end(), storage.get());
    Parsed parsed;
    parsed.length = platform_parse_message(storage.get(), static_cast<int32_t>(data.size()), table.data());
    for (size_t line = 0; parsed.length > 0 && table[line] != nullptr; ++line) {
        parsed.line_starts.push_back(static_cast<size_t>(table[line] - storage.get()));
    }
    parsed.data.assign(storage.get(), data.size());
    return parsed;
}

bool is_cr_lf(std::string_view data, size_t position) {
    return position + 1 < data.size() && data[position] == '\r' && data[position + 1] == '\n';
}

// The first CR LF from there on, looked for byte by byte.
std::optional<size_t> next_cr_lf(std::string_view data, size_t position) {
    for (; position < data.size(); ++position) {
        if (is_cr_lf(data, position)) {
            return position;
        }
    }
    return std::nullopt;
}

// The framing once more, step by step and as simply as can be.
Parsed parse_simply(std::string data) {
    const Parsed incomplete = {.length = 0, .line_starts = {}, .data = data};
    Parsed parsed;
    std::vector<size_t> cuts;
    size_t start = 0;
    for (;;) {
        const std::optional<size_t> end = next_cr_lf(data, start);
        if (!end.has_value()) {
            return incomplete;
        }
        parsed.line_starts.push_back(start);
        cuts.push_back(*end);
        start = *end + 2;
        if (data.size() - start < 2) {
            return incomplete;
        }
        if (is_cr_lf(data, start)) {
            break;
        }
    }
    cuts.push_back(start);
    for (const size_t cut : cuts) {
        data[cut] = '\0';
    }
    parsed.length = static_cast<int>(start) + 2;
    parsed.data = data;
    return parsed;
}

// The texts of the lines, as a handler would see them.
Message lines_of(const Parsed &parsed) {
    Message lines;
    for (const size_t start : parsed.line_starts) {
        lines.emplace_back(parsed.data.c_str() + start);
    }
    return lines;
}

// A message of that many lines.
std::string message_of_lines(int count) {
    std::string data;
    for (int line = 0; line < count; ++line) {
        data += "a\r\n";
    }
    return data + "\r\n";
}

TEST(ParseMessage, TwoLinesAndAnEmptyOneAreOneMessageOfEightBytes) {
    const Parsed parsed = parse("A\r\nB\r\n\r\n");
    EXPECT_EQ(parsed.length, 8);
    EXPECT_EQ(lines_of(parsed), (Message{"A", "B"}));
}

TEST(ParseMessage, CrLfAtTheStartIsAnEmptyFirstLine) {
    const Parsed parsed = parse("\r\n\r\n");
    EXPECT_EQ(parsed.length, 4);
    EXPECT_EQ(lines_of(parsed), Message{""});
}

TEST(ParseMessage, AnEmptyFirstLineMayBeFollowedByOthers) {
    EXPECT_EQ(lines_of(parse("\r\nB\r\n\r\n")), (Message{"", "B"}));
}

TEST(ParseMessage, AMessageWithoutItsEmptyLineIsIncompleteAndLeftUntouched) {
    const Parsed parsed = parse("A\r\nB\r\n");
    EXPECT_EQ(parsed.length, 0);
    EXPECT_EQ(parsed.data, "A\r\nB\r\n");
}

TEST(ParseMessage, HalfOfTheClosingLineIsIncompleteAndLeftUntouched) {
    const Parsed parsed = parse("A\r\nB\r\n\r");
    EXPECT_EQ(parsed.length, 0);
    EXPECT_EQ(parsed.data, "A\r\nB\r\n\r");
}

TEST(ParseMessage, NoDataAndASingleByteAreIncomplete) {
    EXPECT_EQ(parse("").length, 0);
    EXPECT_EQ(parse("\r").length, 0);
    EXPECT_EQ(parse("\n").length, 0);
}

TEST(ParseMessage, ALoneCrIsPartOfItsLine) {
    EXPECT_EQ(lines_of(parse("A\rB\r\n\r\n")), Message{"A\rB"});
}

TEST(ParseMessage, ALoneLfIsPartOfItsLine) {
    EXPECT_EQ(lines_of(parse("A\nB\r\n\nC\r\n\r\n")), (Message{"A\nB", "\nC"}));
}

TEST(ParseMessage, TheLastOfSeveralCrsEndsTheLine) {
    EXPECT_EQ(lines_of(parse("A\r\r\n\r\n")), Message{"A\r"});
}

TEST(ParseMessage, LfAndCrInTheWrongOrderEndNothing) {
    EXPECT_EQ(lines_of(parse("A\n\r\r\n\n\r\n\r\n")), (Message{"A\n\r", "\n"}));
}

TEST(ParseMessage, EveryCrOfALineEndBecomesNulAndEveryLfStays) {
    EXPECT_EQ(parse("A\r\nB\r\n\r\nrest").data, std::string("A\0\nB\0\n\0\nrest", 12));
}

TEST(ParseMessage, WhatStandsBehindTheMessageIsNotTouched) {
    const Parsed parsed = parse("A\r\n\r\nB\r\n\r\n");
    EXPECT_EQ(parsed.length, 5);
    EXPECT_EQ(parsed.data.substr(5), "B\r\n\r\n");
}

TEST(ParseMessage, ANulIsAByteLikeAnyOther) {
    const Parsed parsed = parse(std::string_view("A\0B\r\n\r\n", 7));
    EXPECT_EQ(parsed.length, 7);
    EXPECT_EQ(parsed.data, std::string("A\0B\0\n\0\n", 7));
}

TEST(ParseMessage, EveryTextOfUpToTenBytesIsParsedAsASecondParserDoes) {
    constexpr std::string_view kAlphabet = "\r\na";
    std::vector<std::string> texts = {""};
    for (size_t first = 0, length = 0; length <= 10; ++length) {
        const size_t end = texts.size();
        for (; first < end; ++first) {
            const std::string text = texts[first];
            ASSERT_EQ(parse(text), parse_simply(text)) << testing::PrintToString(text);
            for (const char byte : length < 10 ? kAlphabet : "") {
                texts.push_back(text + byte);
            }
        }
    }
    EXPECT_EQ(texts.size(), 88573U);
}

TEST(ParseMessage, LongGeneratedTextsAreParsedAsASecondParserDoes) {
    constexpr std::string_view kPieces[] = {"\r\n", "\r", "\n", "a", "words of a line", std::string_view("\0", 1)};
    std::mt19937 random(20240611);
    int complete = 0;
    for (int round = 0; round < 3000; ++round) {
        std::string text;
        for (size_t pieces = random() % 40; pieces > 0; --pieces) {
            text += kPieces[random() % std::size(kPieces)];
        }
        const Parsed expected = parse_simply(text);
        complete += expected.length > 0 ? 1 : 0;
        ASSERT_EQ(parse(text), expected) << testing::PrintToString(text);
    }
    EXPECT_GT(complete, 500);
    EXPECT_LT(complete, 2900);
}

TEST(MessageLineLimit, AMessageMayHaveAsManyLinesAsTheTableHolds) {
    const std::string data = message_of_lines(PLATFORM_MAX_MESSAGE_LINES);
    const Parsed parsed = parse(data);
    EXPECT_EQ(parsed.length, static_cast<int>(data.size()));
    EXPECT_EQ(parsed.line_starts.size(), size_t{PLATFORM_MAX_MESSAGE_LINES});
}

TEST(MessageLineLimit, IsTensOfThousandsOfLines) {
    EXPECT_EQ(PLATFORM_MAX_MESSAGE_LINES, 32768);
}

TEST(MessageLineLimit, OneLineMoreAborts) {
    const Outcome outcome = run_in_child([] { parse(message_of_lines(PLATFORM_MAX_MESSAGE_LINES + 1)); });
    EXPECT_EQ(outcome.signal, SIGABRT);
    EXPECT_EQ(outcome.err, assertion_text("platform_parse_message", "lines < PLATFORM_MAX_MESSAGE_LINES"));
}

TEST(MessageLineLimit, OneLineMoreAbortsInTheLoopToo) {
    const Outcome outcome = run_in_child([] {
        const CurrentBuffer buffer(4 * PLATFORM_MAX_MESSAGE_LINES);
        const Dispatched dispatched;
        put_into_buffer(message_of_lines(PLATFORM_MAX_MESSAGE_LINES + 1));
        platform_get_one_message(-1, handle_message, nullptr, 0);
    });
    EXPECT_EQ(outcome.signal, SIGABRT);
    EXPECT_EQ(outcome.err, assertion_text("platform_parse_message", "lines < PLATFORM_MAX_MESSAGE_LINES"));
}

TEST(MessageLineLimit, TheLoopHandsOverAMessageOfAllLines) {
    const CurrentBuffer buffer(4 * PLATFORM_MAX_MESSAGE_LINES);
    const Dispatched dispatched;
    put_into_buffer(message_of_lines(PLATFORM_MAX_MESSAGE_LINES));
    EXPECT_EQ(platform_get_one_message(-1, handle_message, nullptr, 0), 1);
    ASSERT_EQ(dispatched.messages.size(), 1U);
    EXPECT_EQ(dispatched.messages[0], Message(PLATFORM_MAX_MESSAGE_LINES, "a"));
}

// A search that goes on where it stopped, over data that grows.
struct GrowingScan {
    std::vector<char> data = std::vector<char>(1024);
    std::vector<char *> table = std::vector<char *>(kTableSize);
    zel::socket::MessageScan scan = {.data = data.data(),
                                     .line_table = table.data(),
                                     .capacity = kTableSize,
                                     .lines = 0,
                                     .line_start = 0,
                                     .searched = 0};
    int32_t length = 0;
    int32_t add(std::string_view piece) {
        std::copy(piece.begin(), piece.end(), data.begin() + length);
        length += static_cast<int32_t>(piece.size());
        return zel::socket::scan_message(scan, length);
    }
};

TEST(MessageScan, AllThatIsThereCountsAsSearchedAfterEachByte) {
    GrowingScan growing;
    for (int32_t length = 1; length <= 1000; ++length) {
        ASSERT_EQ(growing.add("a"), 0);
        ASSERT_EQ(growing.scan.searched, length);
    }
}

TEST(MessageScan, WhatWasSearchedIsNotSearchedAgain) {
    GrowingScan growing;
    ASSERT_EQ(growing.add("searched"), 0);
    growing.data[2] = '\r'; // a line end where the search has been
    growing.data[3] = '\n';
    EXPECT_EQ(growing.add("\r\n\r\n"), 12);
    EXPECT_EQ(growing.scan.lines, 1);
    EXPECT_EQ(growing.table[0], growing.data.data());
}

TEST(MessageScan, LinesThatWereFoundAreNotLookedForAgain) {
    GrowingScan growing;
    ASSERT_EQ(growing.add("A\r\nB\r\nC"), 0);
    EXPECT_EQ(growing.scan.lines, 2);
    EXPECT_EQ(growing.scan.line_start, 6);
    growing.data[1] = 'x'; // the first line's end is gone: it is known all the same
    EXPECT_EQ(growing.add("\r\n\r\n"), 11);
    EXPECT_EQ(growing.scan.lines, 3);
    EXPECT_EQ(growing.table[1], growing.data.data() + 3);
}

TEST(MessageScan, ALineEndInTwoPiecesIsFound) {
    GrowingScan growing;
    EXPECT_EQ(growing.add("A\r"), 0);
    EXPECT_EQ(growing.add("\n\r"), 0);
    EXPECT_EQ(growing.add("\n"), 5);
    EXPECT_EQ(growing.table[1], nullptr);
}

TEST(MessageScan, ATableWithoutRoomForALineIsFullAndALargerOneGoesOn) {
    GrowingScan growing;
    growing.scan.capacity = 3;
    ASSERT_EQ(growing.add("A\r\nB\r\nC\r"), 0); // the third line has not ended yet
    ASSERT_EQ(growing.add("\n"), zel::socket::kLineTableFull);
    ASSERT_EQ(growing.add("\r\n"), zel::socket::kLineTableFull); // and stays so
    EXPECT_EQ(growing.scan.lines, 2);
    std::vector<char *> larger(growing.table.begin(), growing.table.begin() + 2);
    larger.resize(4);
    growing.scan.line_table = larger.data();
    growing.scan.capacity = 4;
    EXPECT_EQ(growing.add(""), 11);
    char *start = growing.data.data();
    EXPECT_EQ(larger, (std::vector<char *>{start, start + 3, start + 6, nullptr}));
}

TEST(MessageScan, TextInPiecesIsParsedAsTheSameTextInOne) {
    const std::string text = "\r\nA\rB\n\r\n\rC\r\r\n\n\r\nlast\r\n\r\n";
    const Parsed expected = parse(text);
    for (size_t size = 1; size <= text.size(); ++size) {
        GrowingScan growing;
        int32_t result = 0;
        for (size_t from = 0; from < text.size(); from += size) {
            ASSERT_EQ(result, 0);
            result = growing.add(std::string_view(text).substr(from, size));
        }
        EXPECT_EQ(result, expected.length);
        EXPECT_EQ(std::string(growing.data.data(), text.size()), expected.data);
    }
}

} // namespace
