// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Finding the lines of a message that is all there, beside a loop over memchr.
#include "by_hand.h"
#include "rows.h"
#include "table.h"

#include <components/platform/socket.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace bench {

namespace {

// Parsing cuts the data, so that each pass needs a fresh copy. Copies are made in stock, outside the measured time.
constexpr size_t kStock = 64;

std::string make_message(int lines) {
    std::string text;
    for (int i = 0; i < lines; ++i) {
        text += "line " + std::to_string(i) + ": the quick brown fox jumps over it\r\n";
    }
    return text + "\r\n";
}

// As a first program would do it: one look at each byte, no call.
size_t parse_byte_by_byte(char *data, size_t length, char **lines) {
    size_t count = 0;
    size_t start = 0;
    for (size_t i = 1; i < length; ++i) {
        if (data[i] != '\n' || data[i - 1] != '\r') {
            continue;
        }
        data[i - 1] = '\0';
        if (count > 0 && i == start + 1) {
            lines[count] = nullptr;
            return i + 1;
        }
        lines[count++] = data + start;
        start = i + 1;
    }
    return 0;
}

// Every line of the table must read alike.
template <typename One, typename Other>
void require_same_lines(int lines, One one, Other other) {
    std::string text = make_message(lines);
    std::string same = text;
    std::vector<char *> table(PLATFORM_MAX_MESSAGE_LINES + 1);
    std::vector<char *> again(PLATFORM_MAX_MESSAGE_LINES + 1);
    bool equal = one(text, table.data()) == text.size() && other(same, again.data()) == same.size();
    for (size_t i = 0; equal && i < static_cast<size_t>(lines); ++i) {
        equal = std::strcmp(table[i], again[i]) == 0;
    }
    if (!equal || table[static_cast<size_t>(lines)] != nullptr) {
        std::fprintf(stderr, "zel_bench: a message of %d lines parsed by hand comes out otherwise\n", lines);
        std::exit(1);
    }
}

// Runs the parser over the whole stock; one iteration is one stock.
template <typename Parser>
void parse_stock(benchmark::State &state, int lines, Parser parser) {
    const std::string message = make_message(lines);
    std::vector<std::string> stock(kStock);
    const std::unique_ptr<char *[]> table(new char *[PLATFORM_MAX_MESSAGE_LINES + 1]);
    while (state.KeepRunning()) {
        state.PauseTiming();
        stock.assign(kStock, message);
        state.ResumeTiming();
        for (std::string &copy : stock) {
            if (parser(copy, table.get()) != message.size()) {
                state.SkipWithError("not parsed");
            }
        }
    }
}

size_t zel_parser(std::string &text, char **table) {
    return static_cast<size_t>(platform_parse_message(text.data(), static_cast<int32_t>(text.size()), table));
}

size_t bare_parser(std::string &text, char **table) {
    return by_hand_parse(text.data(), text.size(), table);
}

size_t slow_parser(std::string &text, char **table) {
    return parse_byte_by_byte(text.data(), text.size(), table);
}

// The parser stands in the loop as its type, so that the compiler may inline it.
template <auto Parser>
Way parsing(const char *name, int lines) {
    return {name, [lines](benchmark::State &state) { parse_stock(state, lines, Parser); }};
}

void add_parse_row(int lines, int64_t iterations) {
    require_same_lines(lines, zel_parser, bare_parser);
    require_same_lines(lines, zel_parser, slow_parser);
    add_row({.name = "parse of 64 messages of " + std::to_string(lines) + " lines",
             .clock = Clock::own,
             .iterations = iterations},
            {parsing<zel_parser>("zel", lines), parsing<bare_parser>("floor", lines),
             parsing<slow_parser>("byte by byte", lines)});
}

} // namespace

void add_parse_rows() {
    add_parse_row(51, 200);
    add_parse_row(1000, 10);
}

} // namespace bench
