// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Each public header has examples on its page, and they are the ones that are compiled here.
#include <support/files.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

namespace {

using zel::test::read_file;
using Lines = std::vector<std::string>;

// Between two fragments of an example stands "...", which the reader fills in.
using Fragments = std::vector<Lines>;

// The words of a line, one blank between them: how far a remark stands to the right does not matter.
std::string squeezed(const std::string &line) {
    std::istringstream words(line);
    std::string text;
    for (std::string word; words >> word;) {
        text += (text.empty() ? "" : " ") + word;
    }
    return text;
}

Lines squeezed_lines(const std::string &text) {
    std::istringstream stream(text);
    Lines lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(squeezed(line));
    }
    std::erase(lines, "");
    return lines;
}

// The lines of the header's page, without the star of the comment.
Lines page(const std::string &header) {
    std::istringstream stream(header.substr(0, header.find("*/")));
    Lines lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line.starts_with(" *") ? line.substr(2) : line);
    }
    return lines;
}

bool is_indented(const std::string &line) {
    return line.empty() || line.starts_with("   ");
}

bool is_shell_command(const std::string &line) {
    return line.starts_with("$ ");
}

// The examples of a page: the indented lines after each line that announces one.
Fragments examples_of(const std::string &header) {
    Fragments fragments;
    bool in_example = false;
    for (const std::string &line : page(header)) {
        const std::string code = squeezed(line);
        const bool announces = line.starts_with(" Example");
        in_example = announces || (in_example && is_indented(line));
        if (announces || code == "...") {
            fragments.emplace_back();
        } else if (in_example && !code.empty() && !is_shell_command(code)) {
            fragments.back().push_back(code);
        }
    }
    std::erase(fragments, Lines{});
    return fragments;
}

// Whether the fragments stand in the source, each whole and one after the other.
bool stands_in(const Fragments &fragments, const std::string &source) {
    const Lines lines = squeezed_lines(source);
    auto position = lines.begin();
    for (const Lines &fragment : fragments) {
        position = std::search(position, lines.end(), fragment.begin(), fragment.end());
        if (position == lines.end()) {
            return false;
        }
        position += static_cast<std::ptrdiff_t>(fragment.size());
    }
    return !fragments.empty() && !fragments.front().empty();
}

std::string compiled_examples() {
    return read_file(ZEL_SOURCE_DIR "/tests/examples/header_examples.c") +
           read_file(ZEL_SOURCE_DIR "/tests/examples/header_example_hooks.c") +
           read_file(ZEL_SOURCE_DIR "/tests/examples/adder.c") +
           read_file(ZEL_SOURCE_DIR "/tests/examples/header_examples_transfers.c") +
           read_file(ZEL_SOURCE_DIR "/tests/examples/square.c") + read_file(ZEL_SOURCE_DIR "/tests/examples/totals.c");
}

TEST(HeaderExamples, EachPublicHeaderShowsWhatIsCompiledHere) {
    std::istringstream headers(ZEL_PUBLIC_HEADERS);
    const std::string source = compiled_examples();
    int checked = 0;
    for (std::string header; headers >> header;) {
        if (header == "zel.h") { // includes the others, and has nothing of its own to show
            continue;
        }
        ++checked;
        EXPECT_TRUE(stands_in(examples_of(read_file(ZEL_SOURCE_DIR "/" + header)), source))
            << header << ": its example is missing, or differs from the sources in tests/examples";
    }
    EXPECT_GE(checked, 6);
}

constexpr const char *kSample = "/* A page.\n *\n * Example of a call:\n *\n *   call(1);   // one\n *\n *   call(2);\n"
                                " *   ...\n *   call(3);\n *   $ ./run\n *\n * More.\n */\nint call(int);\n";

TEST(HeaderExamples, AnExampleInTheSourceIsFoundHoweverItIsIndented) {
    EXPECT_TRUE(stands_in(examples_of(kSample), "f() {\n  call(1); // one\n  call(2);\n  other();\n\n  call(3);\n}\n"));
}

TEST(HeaderExamples, AnExampleThatDiffersIsCaught) {
    EXPECT_FALSE(stands_in(examples_of(kSample), "call(1);\ncall(2);\ncall(3);\n"));
    EXPECT_FALSE(stands_in(examples_of(kSample), "call(1); // one\nother();\ncall(2);\ncall(3);\n"));
    EXPECT_FALSE(stands_in(examples_of(kSample), "call(3);\ncall(1); // one\ncall(2);\n"));
}

TEST(HeaderExamples, ASecondExampleThatDiffersIsCaught) {
    const std::string two =
        "/* A page.\n *\n * Example:\n *\n *   call(1);\n *\n * Example of two:\n *\n *   call(2);\n */\n";
    EXPECT_TRUE(stands_in(examples_of(two), "call(1);\ncall(2);\n"));
    EXPECT_FALSE(stands_in(examples_of(two), "call(1);\ncall(3);\n"));
}

TEST(HeaderExamples, AHeaderWithoutAnExampleIsCaught) {
    EXPECT_FALSE(stands_in(examples_of("/* A page.\n */\nint call(int);\n"), "call(1);\n"));
    EXPECT_FALSE(stands_in(examples_of("/* A page.\n *\n * Example:\n *\n * none\n */\n"), "none\n"));
}

} // namespace
