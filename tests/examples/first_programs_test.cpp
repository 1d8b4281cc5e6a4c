// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The first programs: the README shows them as they are, and they do what it says.
#include "examples_support.h"

#include <support/files.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace {

using namespace zel::test;

constexpr const char *kHello = ZEL_BINARY_DIR "/examples/hello_pair";
constexpr const char *kParent = ZEL_BINARY_DIR "/examples/first_parent";
constexpr const char *kCompanion = ZEL_BINARY_DIR "/examples/first_companion";

std::string source(const std::string &path) {
    return read_file(ZEL_SOURCE_DIR "/" + path);
}

// The first C block after the first line that names the file; "" when there is none.
std::string shown_program(const std::string &document, const std::string &file) {
    const std::string opening = "```c\n";
    const size_t named = document.find(file);
    const size_t start = named == std::string::npos ? named : document.find("\n" + opening, named);
    if (start == std::string::npos) {
        return "";
    }
    const size_t first = start + 1 + opening.size();
    const size_t end = document.find("```", first);
    return end == std::string::npos ? "" : document.substr(first, end - first);
}

TEST(FirstPrograms, TheReadmeShowsTheShortestParentAsItIs) {
    EXPECT_EQ(shown_program(source("README.md"), "examples/hello_pair.c"), source("examples/hello_pair.c"));
}

TEST(FirstPrograms, TheReadmeShowsTheCompanionAsItIs) {
    EXPECT_EQ(shown_program(source("README.md"), "examples/first_companion.c"), source("examples/first_companion.c"));
}

// The lines of the main function of a source, from its head to its closing brace.
int lines_of_main(const std::string &text) {
    const size_t start = text.find("\nint main(");
    const size_t end = text.find("\n}\n", start);
    return end == std::string::npos ? 0 : 1 + static_cast<int>(std::count(&text[start + 1], &text[end + 1], '\n'));
}

TEST(FirstPrograms, TheShortestParentIsAMainOfFifteenLines) {
    EXPECT_EQ(lines_of_main("int a;\n\nint main(void) {\n    return 0;\n}\n"), 3);
    EXPECT_EQ(lines_of_main(source("examples/hello_pair.c")), 15);
}

TEST(FirstPrograms, TheOtherTwoAreShorterThanFortyLines) {
    for (const char *path : {"examples/first_parent.c", "examples/first_companion.c"}) {
        const std::string text = source(path);
        EXPECT_LT(std::count(text.begin(), text.end(), '\n'), 40) << path;
        EXPECT_GT(std::count(text.begin(), text.end(), '\n'), 0) << path;
    }
}

TEST(FirstPrograms, ABlockThatDiffersInOneByteIsFound) {
    EXPECT_EQ(shown_program("see a.c:\n\n```c\nint a;\n```\n", "a.c"), "int a;\n");
    EXPECT_NE(shown_program("see a.c:\n\n```c\nint a; \n```\n", "a.c"), "int a;\n");
    EXPECT_EQ(shown_program("see a.c:\n\n    int a;\n", "a.c"), "");
    EXPECT_EQ(shown_program("```c\nint a;\n```\n", "a.c"), "");
}

TEST(FirstPrograms, TheShortestParentPrintsTheAnswerOfItsCompanion) {
    const Outcome outcome = run_with({"--chdir=" ZEL_BINARY_DIR "/examples"}, {kHello});
    EXPECT_EQ(outcome.out, "The companion answered 42.\n");
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
}

TEST(FirstPrograms, TheShortestParentSaysWhenItGetsNoAnswer) {
    const Outcome outcome = run_with({"--chdir=/"}, {kHello});
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "Error: The companion gave no answer: No such file or directory.\n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(FirstPrograms, TheParentPrintsTheAnswerOfTheCompanionBesideIt) {
    const Outcome outcome = run_with({"--chdir=" ZEL_BINARY_DIR "/examples"}, {kParent});
    EXPECT_EQ(outcome.out, "The companion answered 42; its wait status is 0.\n");
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
}

TEST(FirstPrograms, TheParentTakesACompanionAsItsArgument) {
    const Outcome outcome = run_with({"--chdir=/"}, {kParent, kCompanion});
    EXPECT_EQ(outcome.out, "The companion answered 42; its wait status is 0.\n");
    EXPECT_EQ(outcome.status, 0);
}

TEST(FirstPrograms, ACompanionThatDoesNotAnswerIsReported) {
    const Outcome outcome = run_with({}, {kParent, "/nowhere"});
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "Error: /nowhere gave no answer: No such file or directory.\n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(FirstPrograms, ACompanionThatEndsWithoutAnAnswerIsReported) {
    const Outcome outcome = run_with({}, {kParent, "/bin/true"});
    EXPECT_EQ(outcome.err, "Error: /bin/true gave no answer: it ended early.\n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(FirstPrograms, TheCompanionAloneSaysThatItsPairIsMissing) {
    const Outcome outcome = run_with({"--unset=FIRST_PAIR"}, {kCompanion});
    EXPECT_EQ(outcome.err, "Error: Cannot open the pair: Failing to start due to wrong type on linux\n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(FirstPrograms, TheCompanionRefusesABadVariable) {
    const Outcome outcome = run_with({"FIRST_PAIR=abc pid-rtx_fd_l"}, {kCompanion});
    EXPECT_EQ(outcome.err, "Error: Cannot open the pair: Unknown error -1 (-1)\n");
    EXPECT_EQ(outcome.status, 1);
}

} // namespace
