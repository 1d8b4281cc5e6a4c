// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Running the word count, and what it has to print.
#include "word_count_support.h"

#include <cstdio>
#include <sstream>

namespace zel::test {

namespace {

constexpr size_t kShownLength = 40;

constexpr const char *kCounts = "LC_ALL=C wc -l < \"$1\"; LC_ALL=C wc -w < \"$1\"; LC_ALL=C wc -c < \"$1\"";

// Equal counts stay in byte order: the last resort of sort is the whole line, and the counts are equally wide.
constexpr const char *kMostFrequent =
    "LC_ALL=C; export LC_ALL; tr -s ' \\t\\n\\v\\f\\r' '\\n' < \"$1\" | sed '/^$/d' | sort | uniq -c | sort -k1,1nr |"
    " sed 10q";

std::string right_aligned(const std::string &text, size_t width) {
    return std::string(width > text.size() ? width - text.size() : 0, ' ') + text;
}

// A line of uniq: blanks, the count, a blank, the word.
std::string expected_row(const std::string &line) {
    const size_t start = line.find_first_not_of(' ');
    const size_t blank = line.find(' ', start);
    const std::string count = line.substr(start, blank - start);
    return right_aligned(count, 14) + "  " + shown(line.substr(blank + 1)) + "\n";
}

} // namespace

std::string shell(const std::string &command, const std::string &path) {
    return run_program({"sh", "-c", command, "sh", path}).out;
}

std::string shown(const std::string &bytes) {
    std::vector<std::string> pieces;
    size_t length = 0;
    for (const char byte : bytes) {
        char piece[8];
        const bool plain = byte >= 0x20 && byte < 0x7f;
        snprintf(piece, sizeof piece, plain ? "%c" : "\\x%02x", static_cast<unsigned char>(byte));
        pieces.emplace_back(byte == '\\' ? "\\\\" : piece);
        length += pieces.back().size();
    }
    const bool cut = length > kShownLength;
    for (; length > (cut ? kShownLength - 3 : kShownLength); pieces.pop_back()) {
        length -= pieces.back().size();
    }
    std::string text;
    for (const std::string &piece : pieces) {
        text += piece;
    }
    return cut ? text + "..." : text;
}

std::string expected_report(const std::string &path, const std::string &name) {
    std::istringstream counts(shell(kCounts, path));
    std::string lines;
    std::string words;
    std::string bytes;
    counts >> lines >> words >> bytes;
    std::string report = name + "\n    lines " + right_aligned(lines, 12) + "\n    words " + right_aligned(words, 12) +
                         "\n    bytes " + right_aligned(bytes, 12) + "\n";
    std::istringstream rows(shell(kMostFrequent, path));
    std::string row;
    for (bool first = true; std::getline(rows, row); first = false) {
        report += first ? "    most frequent words\n" : "";
        report += expected_row(row);
    }
    return report;
}

std::string expected_report(const std::string &path) {
    return expected_report(path, path);
}

std::string WordCountTest::text(const std::string &name, const std::string &contents) const {
    write_file(folder.path + "/" + name, contents);
    return folder.path + "/" + name;
}

Outcome WordCountTest::count(const std::vector<std::string> &arguments,
                             const std::vector<std::string> &settings) const {
    return count_with(kWordCount, arguments, settings);
}

Outcome WordCountTest::count_with(const std::string &program, const std::vector<std::string> &arguments,
                                  const std::vector<std::string> &settings) const {
    std::vector<std::string> all_settings = {"--chdir=" + folder.path};
    all_settings.insert(all_settings.end(), settings.begin(), settings.end());
    std::vector<std::string> command = {program};
    if (hybrid()) {
        command.push_back(GetParam());
    }
    command.insert(command.end(), arguments.begin(), arguments.end());
    return run_with(all_settings, command);
}

std::string arrangement_name(const testing::TestParamInfo<std::string> &info) {
    return info.param.empty() ? "Local" : "Hybrid";
}

} // namespace zel::test
