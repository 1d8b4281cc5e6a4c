// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The word count on words and texts beyond its limits.
#include "word_count_support.h"

#include <cstdio>

namespace {

using namespace zel::test;

constexpr size_t kLongestWord = 65536;
constexpr size_t kMostWords = 1000000;
constexpr size_t kMostWordBytes = 33554432;

struct WordCountLimits : WordCountTest {
    // Counts one text of those contents, and returns what is said of its words.
    std::string list_of(const std::string &contents) const {
        text("text", contents);
        const Outcome outcome = count({"text"});
        EXPECT_EQ(outcome.err, "");
        EXPECT_EQ(outcome.status, 0);
        const size_t start = outcome.out.find("    words ");
        const size_t end = outcome.out.find(kEndedWell);
        EXPECT_NE(end, std::string::npos);
        return outcome.out.substr(start, end - start);
    }
};

INSTANTIATE_TEST_SUITE_P(Example, WordCountLimits, testing::Values("", "--hybrid"), arrangement_name);

// A word of that length that begins with its number.
std::string long_word(size_t number, size_t length = kLongestWord) {
    char digits[32];
    snprintf(digits, sizeof digits, "%06zu", number);
    return digits + std::string(length - 6, 'w');
}

// So many different words, each followed by a blank.
std::string different_words(size_t count) {
    std::string words;
    for (size_t number = 0; number < count; ++number) {
        char word[32];
        snprintf(word, sizeof word, "%07zu ", number);
        words += word;
    }
    return words;
}

// The rows of those words, each once, as the list shows them.
std::string rows_of_words(size_t first, size_t last) {
    std::string rows;
    for (size_t number = first; number <= last; ++number) {
        char row[64];
        snprintf(row, sizeof row, "             1  %07zu\n", number);
        rows += row;
    }
    return rows;
}

TEST_P(WordCountLimits, AWordOf64KiBIsListedWhereverAChunkEnds) {
    for (const size_t before : {0U, 1U, 30000U, 65535U}) {
        const std::string path = text("text", std::string(before, ' ') + std::string(kLongestWord, 'w') + " s s\n");
        EXPECT_EQ(count({path}).out, expected_report(path) + kEndedWell);
    }
}

TEST_P(WordCountLimits, ALongerWordIsCountedAndNotListed) {
    EXPECT_EQ(list_of(long_word(1, kLongestWord + 1) + " s\n"), "    words            2\n"
                                                                "    bytes        65540\n"
                                                                "    most frequent words\n"
                                                                "             1  s\n"
                                                                "    words not listed\n"
                                                                "             1  of more than 65536 bytes\n");
}

TEST_P(WordCountLimits, ATextOfOneWordThatIsTooLongHasNoList) {
    EXPECT_EQ(list_of(std::string(1000000, 'w')), "    words            1\n"
                                                  "    bytes      1000000\n"
                                                  "    words not listed\n"
                                                  "             1  of more than 65536 bytes\n");
}

TEST_P(WordCountLimits, EachWordThatIsTooLongIsCounted) {
    const std::string word(kLongestWord + 1, 'w');
    EXPECT_EQ(list_of(word + "\n\n" + word + " s " + word), "    words            4\n"
                                                            "    bytes       196616\n"
                                                            "    most frequent words\n"
                                                            "             1  s\n"
                                                            "    words not listed\n"
                                                            "             3  of more than 65536 bytes\n");
}

TEST_P(WordCountLimits, AMillionDifferentWordsAreListed) {
    EXPECT_EQ(list_of(different_words(kMostWords) + "0999999 0000000"), "    words      1000002\n"
                                                                        "    bytes      8000015\n"
                                                                        "    most frequent words\n"
                                                                        "             2  0000000\n"
                                                                        "             2  0999999\n" +
                                                                            rows_of_words(1, 8));
}

// Words that are in the table are counted on. The new one is not listed, however frequent it is.
TEST_P(WordCountLimits, BeyondThemNewWordsAreCountedAndNotListed) {
    EXPECT_EQ(list_of(different_words(kMostWords) + "new 0999999 new new other"),
              "    words      1000005\n"
              "    bytes      8000025\n"
              "    most frequent words\n"
              "             2  0999999\n" +
                  rows_of_words(0, 8) +
                  "    words not listed\n"
                  "             4  new to a full table (1000000 words or 33554432 bytes)\n");
}

// The table is filled to the last byte. A word that is in it takes no more.
TEST_P(WordCountLimits, TheBytesOfTheListedWordsAreLimitedToo) {
    std::string contents;
    for (size_t number = 0; number < kMostWordBytes / kLongestWord; ++number) {
        contents += long_word(number) + "\n";
    }
    contents += "x y " + long_word(511) + " y " + std::string(kLongestWord + 1, 'w');
    const std::string list = list_of(contents);
    EXPECT_EQ(list.substr(0, list.find("    bytes")), "    words          517\n");
    EXPECT_NE(list.find("             2  000511wwww"), std::string::npos);
    EXPECT_EQ(list.substr(list.find("    words not")), "    words not listed\n"
                                                       "             1  of more than 65536 bytes\n"
                                                       "             3  new to a full table (1000000 words or "
                                                       "33554432 bytes)\n");
}

TEST_P(WordCountLimits, TheNextTextHasATableOfItsOwn) {
    text("full", different_words(kMostWords) + "new");
    const std::string path = text("next", "new words\n");
    const Outcome outcome = count({"full", "next"});
    EXPECT_NE(outcome.out.find("new to a full table"), std::string::npos);
    EXPECT_TRUE(outcome.out.ends_with(expected_report(path, "next") + kEndedWell));
}

} // namespace
