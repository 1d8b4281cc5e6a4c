// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// What the companion of word_count has counted: read from its message, and printed.
#ifndef ZEL_EXAMPLES_WORD_COUNT_ANSWER_H
#define ZEL_EXAMPLES_WORD_COUNT_ANSWER_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace word_count {

struct WordRow {
    uint64_t count = 0;
    std::string word;
};

struct Answer {
    bool understood = false;
    uint64_t lines = 0;
    uint64_t words = 0;
    uint64_t bytes = 0;
    uint64_t too_long = 0; // words of more than kLongestWord bytes
    uint64_t no_room = 0;  // words that the full table did not take
    std::vector<WordRow> most_frequent;
};

// Reads the message into an answer that is new. False when the message does not keep to
// the protocol.
bool parse_answer(std::string_view first_line, char **lines, Answer &answer);

// Prints the answer about the text of that name.
void print_answer(const std::string &name, const Answer &answer);

} // namespace word_count

#endif
