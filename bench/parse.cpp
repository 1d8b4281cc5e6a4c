// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Finding the lines of a message that is all there, beside a loop over memchr.
#include "by_hand.h"
#include "rows.h"
#include "table.h"

#include <components/platform/socket.h>

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

void zel_parse(benchmark::State &state, int lines) {
    parse_stock(state, lines, [](std::string &text, char **table) {
        return static_cast<size_t>(platform_parse_message(text.data(), static_cast<int32_t>(text.size()), table));
    });
}

void bare_parse(benchmark::State &state, int lines) {
    parse_stock(state, lines,
                [](std::string &text, char **table) { return by_hand_parse(text.data(), text.size(), table); });
}

void add_parse_row(int lines, int64_t iterations) {
    add_row("parse of 64 messages of " + std::to_string(lines) + " lines", Clock::own, iterations,
            {{"zel", [lines](benchmark::State &state) { zel_parse(state, lines); }},
             {"floor", [lines](benchmark::State &state) { bare_parse(state, lines); }}});
}

} // namespace

void add_parse_rows() {
    add_parse_row(51, 500);
    add_parse_row(1000, 25);
}

} // namespace bench
