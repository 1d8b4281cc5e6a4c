// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The word count on input that has no name of its own: standard input, pipes.
#include "word_count_support.h"

#include <sys/stat.h>

namespace {

using namespace zel::test;

constexpr const char *kName = "standard input";

struct WordCountInput : WordCountTest {
    void SetUp() override { path = text("text", "one two two\n"); }

    // A shell command in the folder, in which "$@" is the word count in its arrangement.
    Outcome shell_count(const std::string &command) const {
        std::vector<std::string> whole = {"sh", "-c", command, "sh", kWordCount};
        if (hybrid()) {
            whole.push_back(GetParam());
        }
        return run_with({"--chdir=" + folder.path}, whole);
    }

    void expect_counted(const std::string &command, const std::string &reports) const {
        const Outcome outcome = shell_count(command);
        EXPECT_EQ(outcome.out, reports + kEndedWell);
        EXPECT_EQ(outcome.err, "");
        EXPECT_EQ(outcome.status, 0);
    }

    std::string path;
};

INSTANTIATE_TEST_SUITE_P(Example, WordCountInput, testing::Values("", "--hybrid"), arrangement_name);

TEST_P(WordCountInput, AHyphenIsStandardInput) {
    expect_counted("\"$@\" - <text", expected_report(path, kName));
    expect_counted("cat text | \"$@\" -", expected_report(path, kName));
}

TEST_P(WordCountInput, AHyphenMayStandAmongFiles) {
    expect_counted("\"$@\" text - text <text",
                   expected_report(path, "text") + expected_report(path, kName) + expected_report(path, "text"));
}

TEST_P(WordCountInput, AHyphenBehindTwoIsStandardInputAsWell) {
    expect_counted("\"$@\" -- - <text", expected_report(path, kName));
}

TEST_P(WordCountInput, ASecondHyphenFindsTheEndOfTheInput) {
    expect_counted("\"$@\" - - <text", expected_report(path, kName) + expected_report("/dev/null", kName));
}

TEST_P(WordCountInput, AFileOfThatNameIsCountedByAPath) {
    const std::string hyphen = text("-", "a file\n");
    expect_counted("\"$@\" ./- <text", expected_report(hyphen, "./-"));
}

TEST_P(WordCountInput, APipeWithoutAFileIsCounted) {
    expect_counted("cat text | \"$@\"", expected_report(path, kName));
}

TEST_P(WordCountInput, APipeBesideAFileIsLeftAlone) {
    expect_counted("cat text | { \"$@\" /dev/null; cat >rest; }", expected_report("/dev/null"));
    EXPECT_EQ(read_file(folder.path + "/rest"), read_file(path));
}

// A shell that reads its commands from a file has that file as standard input.
TEST_P(WordCountInput, AFileAsStandardInputIsCountedByAHyphenOnly) {
    const Outcome outcome = shell_count("\"$@\" <text");
    EXPECT_EQ(outcome.out.substr(0, outcome.out.find('\n')), "README.md");
    EXPECT_EQ(outcome.status, 0);
}

TEST_P(WordCountInput, ANamedPipeIsCountedToItsEnd) {
    ASSERT_EQ(mkfifo((folder.path + "/pipe").c_str(), 0600), 0);
    expect_counted("cat text >pipe & \"$@\" pipe; wait", expected_report(path, "pipe"));
}

TEST_P(WordCountInput, AClosedStandardInputIsReported) {
    const Outcome outcome = shell_count("\"$@\" - text <&-");
    EXPECT_EQ(outcome.out, expected_report(path, "text") + kEndedWell);
    EXPECT_EQ(outcome.err, "Error: standard input cannot be read: Bad file descriptor.\n");
    EXPECT_EQ(outcome.status, 1);
}

} // namespace
