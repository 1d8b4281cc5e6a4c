// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The word count of the examples over a large text, beside wc. The text is made before the first sample and stands in
// memory, so that no sample waits for a disk.
#include "outside.h"
#include "rows.h"
#include "table.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <string>

namespace bench {

namespace {

constexpr size_t kTextSize = 64 << 20;
constexpr uint32_t kVocabulary = 50000;
constexpr uint32_t kLetters = 7; // then a word has nearly five of them on the average, like one of a text
constexpr size_t kLineLength = 70;

// The word of a number: the smaller the number, the shorter the word.
std::string word_of(uint32_t number) {
    std::string word;
    for (; number > 0; number /= kLetters) {
        word += static_cast<char>('a' + number % kLetters);
    }
    return word.empty() ? "a" : word;
}

// A number below the vocabulary. Small ones come far more often, as short words do in a text.
uint32_t some_number(std::mt19937 &dice) {
    const double part = static_cast<double>(dice()) / static_cast<double>(UINT32_MAX);
    return static_cast<uint32_t>(part * part * part * (kVocabulary - 1));
}

std::string some_line(std::mt19937 &dice) {
    std::string line;
    while (line.size() < kLineLength) {
        line += word_of(some_number(dice)) + " ";
    }
    line.back() = '\n';
    return line;
}

std::string make_text() {
    std::string path = scratch() + "/text";
    std::ofstream file(path, std::ios::binary);
    std::mt19937 dice(1);
    for (size_t size = 0; size < kTextSize && file;) {
        const std::string line = some_line(dice);
        file << line;
        size += line.size();
    }
    if (!file.flush()) {
        std::perror(path.c_str());
        std::exit(1);
    }
    return path;
}

// The number that the command prints first. -1 when it prints none, or fails.
long long words_by(const std::string &line) {
    long long words = -1;
    FILE *output = popen(line.c_str(), "r");
    if (output == nullptr || std::fscanf(output, "%lld", &words) != 1) {
        words = -1;
    }
    return output != nullptr && pclose(output) == 0 ? words : -1;
}

std::string count_by_library(const std::string &path) {
    return "'" + beside("../examples/word_count") + "' '" + path + "'";
}

std::string count_by_wc(const std::string &path) {
    return "LC_ALL=C wc -w '" + path + "'";
}

// The text, of which both say the same.
const std::string &text() {
    static const std::string path = [] {
        std::string made = make_text();
        const long long words = words_by(count_by_wc(made));
        if (words <= 0 || words_by(count_by_library(made) + " | sed -n 's/^    words //p'") != words) {
            std::fprintf(stderr, "zel_bench: word_count and wc do not count the same words\n");
            std::exit(1);
        }
        return made;
    }();
    return path;
}

// What goes to standard error would be the line of progress, if that is a terminal.
Way counting(const char *name, std::string (*command_of)(const std::string &path)) {
    return {name, [command_of](benchmark::State &state) {
                const std::string line = command_of(text()) + " >/dev/null 2>&1";
                while (state.KeepRunning()) {
                    if (std::system(line.c_str()) != 0) {
                        state.SkipWithError(("this did not run: " + line).c_str());
                    }
                }
            }};
}

} // namespace

void add_word_rows() {
    add_row({.name = "word count of 64 MiB", .clock = Clock::wall, .iterations = 1, .every = 4},
            {counting("zel", count_by_library), counting("floor", count_by_wc)});
}

} // namespace bench
