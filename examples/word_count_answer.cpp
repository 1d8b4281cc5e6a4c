// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The answer about a text.
#include "word_count_answer.h"

#include "word_count_protocol.h"

#include <msg/msg.h>

#include <algorithm>
#include <charconv>
#include <cinttypes>
#include <system_error>

namespace word_count {

namespace {

// Takes the part before the next blank off the front of the text.
std::string_view take_field(std::string_view &text) {
    const size_t end = std::min(text.find(' '), text.size());
    const std::string_view field = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return field;
}

bool take_number(std::string_view &text, uint64_t &number) {
    const std::string_view field = take_field(text);
    const auto [end, error] = std::from_chars(field.data(), field.data() + field.size(), number);
    return error == std::errc() && end == field.data() + field.size();
}

bool parse_counts(std::string_view first, Answer &answer) {
    if (take_field(first) != kCounted || !take_number(first, answer.lines) || !take_number(first, answer.words) ||
        !take_number(first, answer.bytes)) {
        return false;
    }
    return first.empty() ||
           (take_number(first, answer.too_long) && take_number(first, answer.no_room) && first.empty());
}

void print_left_out(const Answer &answer) {
    if (answer.too_long == 0 && answer.no_room == 0) {
        return;
    }
    msg_print("    words not listed");
    if (answer.too_long != 0) {
        msg_print("%14" PRIu64 "  of more than %zu bytes", answer.too_long, kLongestWord);
    }
    if (answer.no_room != 0) {
        msg_print("%14" PRIu64 "  new to a full table (%zu words or %zu bytes)", answer.no_room, kMostWords,
                  kMostWordBytes);
    }
}

} // namespace

bool parse_answer(std::string_view first_line, char **lines, Answer &answer) {
    if (!parse_counts(first_line, answer)) {
        return false;
    }
    for (char **line = lines; *line != nullptr; ++line) {
        std::string_view rest = *line;
        WordRow row;
        if (!take_number(rest, row.count)) {
            return false;
        }
        row.word = rest;
        answer.most_frequent.push_back(row);
    }
    return true;
}

// The name goes out raw: wrapping would drop the blanks of a long one.
void print_answer(const std::string &name, const Answer &answer) {
    msg_print_raw("%s\n", name.c_str());
    msg_print("    lines %12" PRIu64, answer.lines);
    msg_print("    words %12" PRIu64, answer.words);
    msg_print("    bytes %12" PRIu64, answer.bytes);
    if (!answer.most_frequent.empty()) {
        msg_print("    most frequent words");
    }
    for (const WordRow &row : answer.most_frequent) {
        msg_print("%14" PRIu64 "  %s", row.count, row.word.c_str());
    }
    print_left_out(answer);
}

} // namespace word_count
