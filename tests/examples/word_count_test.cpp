// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The word count on real input, beside wc, sort and uniq.
#include "word_count_support.h"

#include <components/platform/socket.h>

#include <csignal>
#include <fcntl.h>
#include <random>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace zel::test;

struct WordCount : WordCountTest {
    // Counts one text of those contents; nothing but its report may be printed.
    void expect_counted_as_by_wc(const std::string &contents) const {
        const std::string path = text("text", contents);
        const Outcome outcome = count({path});
        EXPECT_EQ(outcome.out, expected_report(path) + kEndedWell);
        EXPECT_EQ(outcome.err, "");
        EXPECT_EQ(outcome.status, 0);
    }
};

INSTANTIATE_TEST_SUITE_P(Example, WordCount, testing::Values("", "--hybrid"), arrangement_name);

std::string repeated(size_t times, const std::string &piece) {
    std::string text;
    for (size_t time = 0; time < times; ++time) {
        text += piece;
    }
    return text;
}

// Words of one to twelve letters, so many bytes of them, the same on every run.
std::string letters(size_t length) {
    std::mt19937 random(7);
    std::string text;
    while (text.size() < length) {
        for (size_t left = 1 + random() % 12; left > 0; --left) {
            text += static_cast<char>('a' + random() % 4);
        }
        text += random() % 9 == 0 ? '\n' : ' ';
    }
    return text;
}

// Bytes of every value. Each word holds a printable one: a word without any is not counted by every wc.
std::string binary(size_t length) {
    constexpr std::string_view white = " \t\n\v\f\r";
    std::mt19937 random(11);
    std::string data;
    while (data.size() < length) {
        const auto byte = static_cast<char>(random() % 256);
        data += byte;
        data += white.find(byte) == std::string_view::npos ? "" : "x";
    }
    return "x" + data;
}

TEST_P(WordCount, TextsOfTheRepoAreCountedAsByWc) {
    std::vector<std::string> paths;
    std::string expected;
    for (const char *name : {"zel.h", "msg/msg.h", "msg/msg.cpp", "components/platform/socket.h", "CMakeLists.txt"}) {
        paths.push_back(std::string(ZEL_SOURCE_DIR "/") + name);
        expected += expected_report(paths.back());
    }
    const Outcome outcome = count(paths);
    EXPECT_EQ(outcome.out, expected + kEndedWell);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
}

TEST_P(WordCount, TheDefaultTextsAreFoundWhereverTheProgramIsStarted) {
    std::string expected;
    for (const char *name : {"README.md", "CONTRIBUTING.md", "LICENSE"}) {
        expected += expected_report(std::string(ZEL_SOURCE_DIR "/") + name, name);
    }
    const Outcome outcome = count({});
    EXPECT_EQ(outcome.out, expected + kEndedWell);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
}

TEST_P(WordCount, TheReportIsTheOneThatTheProgramDescribes) {
    text("notes.txt", "so on so\nthe end\n");
    const Outcome outcome = count({"notes.txt"});
    EXPECT_EQ(outcome.out, "notes.txt\n"
                           "    lines            2\n"
                           "    words            5\n"
                           "    bytes           17\n"
                           "    most frequent words\n"
                           "             2  so\n"
                           "             1  end\n"
                           "             1  on\n"
                           "             1  the\n"
                           "The companion ended with exit status 0.\n");
}

TEST_P(WordCount, AnEmptyTextHasNoWordsToShow) {
    expect_counted_as_by_wc("");
}

TEST_P(WordCount, ATextOfWhiteSpaceAloneHasNoWordsToShow) {
    expect_counted_as_by_wc(" \t\n\v\f\r\n  ");
}

TEST_P(WordCount, AWordAtTheEndNeedsNoNewline) {
    expect_counted_as_by_wc("one two\nthree two");
}

TEST_P(WordCount, ACarriageReturnIsWhiteSpace) {
    expect_counted_as_by_wc("one two\r\nthree\r\n\r\none\r\n");
}

TEST_P(WordCount, EachKindOfWhiteSpaceEndsAWord) {
    expect_counted_as_by_wc("a b\tc\nd\ve\ff\rg\x1cg\x85g\xa0g\n");
}

TEST_P(WordCount, BytesOfEveryValueAreCounted) {
    expect_counted_as_by_wc(binary(300000));
}

TEST_P(WordCount, AWordOfUnprintableBytesIsAWord) {
    const std::string path = text("text", std::string("\x01 \0 \x01 \xff\n", 8));
    const Outcome outcome = count({path});
    EXPECT_EQ(outcome.out, path +
                               "\n"
                               "    lines            1\n"
                               "    words            4\n"
                               "    bytes            8\n"
                               "    most frequent words\n"
                               "             2  \\x01\n"
                               "             1  \\x00\n"
                               "             1  \\xff\n" +
                               kEndedWell);
}

TEST_P(WordCount, FiveMegabytesAreCounted) {
    expect_counted_as_by_wc(letters(5 << 20));
}

TEST_P(WordCount, AWordAsLongAsAChunkIsOneWord) {
    expect_counted_as_by_wc("short " + std::string(64 << 10, 'w') + " short\n");
}

TEST_P(WordCount, AWordOnTheBorderOfTwoChunksIsOneWord) {
    for (const size_t before : {65533U, 65534U, 65535U, 65536U}) {
        expect_counted_as_by_wc(std::string(before, ' ') + "ab ab cd");
    }
}

TEST_P(WordCount, AmongThousandsOfWordsTheMostFrequentAreFound) {
    std::string contents;
    for (int word = 0; word < 20000; ++word) {
        contents += "word" + std::to_string(word) +
                    (word % 1999 == 5 ? repeated(3, " extra" + std::to_string(word)) : "") + "\n";
    }
    expect_counted_as_by_wc(contents);
}

TEST_P(WordCount, EquallyFrequentWordsStandInByteOrder) {
    expect_counted_as_by_wc("b a\xe9 B A az aa \x7fq 1 ~ a b\n");
}

TEST_P(WordCount, ExactlyTenWordsAreAllShown) {
    expect_counted_as_by_wc("j i h g f e d c b a");
    expect_counted_as_by_wc("k j i h g f e d c b a");
}

TEST_P(WordCount, ALongWordIsCutToFortyCharacters) {
    expect_counted_as_by_wc(std::string(40, 'a') + " " + std::string(41, 'b') + "\n");
}

TEST_P(WordCount, ACutFallsBetweenTwoBytesAndNeverIntoAnEscapedOne) {
    for (size_t before = 30; before < 41; ++before) {
        expect_counted_as_by_wc(std::string(before, 'a') + "\x02\x03\\" + "tail");
    }
}

TEST_P(WordCount, ALineOfTheAnswerNeverHoldsWhatWouldEndIt) {
    expect_counted_as_by_wc(std::string("a\0\\r\\n\x1b[2J\x7f\0b \\ \\\\", 18));
}

TEST_P(WordCount, TextsAreCountedOneByOneInTheirOrder) {
    std::vector<std::string> paths;
    std::string expected;
    for (int number = 0; number < 50; ++number) {
        paths.push_back(text("t" + std::to_string(number), repeated(static_cast<size_t>(number), "a word\n")));
        expected += expected_report(paths.back());
    }
    EXPECT_EQ(count(paths).out, expected + kEndedWell);
}

TEST_P(WordCount, TheNameOfATextMayHoldAnyByte) {
    const std::string name = "two  blanks, a\r\n\r\nnewline \xc3\xa9 and a \\ " + std::string(60, 'n') + " at the end";
    const std::string path = text(name, "one\n");
    const Outcome outcome = count({name});
    const std::string visible =
        "two  blanks, a\\x0d\\x0a\\x0d\\x0anewline \\xc3\\xa9 and a \\\\ " + std::string(60, 'n') + " at the end";
    EXPECT_EQ(outcome.out, expected_report(path, visible) + kEndedWell);
    EXPECT_EQ(outcome.status, 0);
}

TEST_P(WordCount, BehindTwoHyphensANameMayBeginWithHyphens) {
    const std::string path = text("--hybrid", "one\n");
    EXPECT_EQ(count({"--", "--hybrid"}).out, expected_report(path, "--hybrid") + kEndedWell);
}

TEST_P(WordCount, ATextMayComeThroughAPipe) {
    const std::string path = text("text", letters(200000));
    const Outcome outcome = run_with({"--chdir=" + folder.path}, {"sh", "-c", "cat text | \"$@\" /dev/stdin", "sh",
                                                                  kWordCount, hybrid() ? "--hybrid" : "--"});
    EXPECT_EQ(outcome.out, expected_report(path, "/dev/stdin") + kEndedWell);
}

TEST_P(WordCount, ShortAndInterruptedTransfersChangeNothing) {
    const std::string path = text("text", letters(40000));
    const Outcome outcome =
        count_with(part("word_count_in_storm"),
                   {"--companion", part("word_count_companion_in_storm"), path, "/dev/null", path}, {});
    EXPECT_EQ(outcome.out, expected_report(path) + expected_report("/dev/null") + expected_report(path) + kEndedWell);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
}

TEST_P(WordCount, ACompanionIsSearchedAlongThePath) {
    const std::string path = text("text", "one two\n");
    const Outcome outcome =
        count({"--companion", "word_count_companion", path}, {"PATH=" ZEL_BINARY_DIR "/examples:/usr/bin:/bin"});
    EXPECT_EQ(outcome.out, expected_report(path) + kEndedWell);
}

TEST_P(WordCount, VariablesAndSignalsThatItInheritsDoNotMislead) {
    const std::string path = text("text", "one two\n");
    const Outcome outcome = count({path}, {"--ignore-signal=CHLD", "WORD_COUNT_PAIR=1 2 pid-rtx_fd_w",
                                           "WORD_COUNT_PAIR_HYBRID=1", "WORD_COUNT_START=1 2 pid-rtx_fd"});
    EXPECT_EQ(outcome.out, expected_report(path) + kEndedWell);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
}

// The request starts again who was asked, and says so on standard error.
constexpr const char *kStartAgain = "using echo \"${ZEL_DEBUG_PROMPT#debug }\" >&2; exec \"$ZEL_EXE\" $ZEL_EXE_PARMS";

TEST_P(WordCount, TheDebugOptionStopsTheCompanionAlone) {
    const std::string path = text("text", "one two\n");
    const Outcome outcome = count({"--debug", kStartAgain, path});
    EXPECT_EQ(outcome.out, expected_report(path) + kEndedWell);
    EXPECT_EQ(outcome.err, "word_count_companion\n");
    EXPECT_EQ(outcome.status, 0);
}

TEST_P(WordCount, ARequestInTheVariableStopsTheParentAlone) {
    const std::string path = text("text", "one two\n");
    const Outcome outcome = count({path}, {"ZEL_DEBUG=" + std::string(kStartAgain)});
    EXPECT_EQ(outcome.out, expected_report(path) + kEndedWell);
    EXPECT_EQ(outcome.err, "word_count\n");
    EXPECT_EQ(outcome.status, 0);
}

// The ports that a hybrid parent may open begin at 20300.
TEST_P(WordCount, APortThatIsTakenIsPassedOver) {
    const int taken = platform_server_socket_open(20300, 20301, nullptr); // -1: somebody else has it
    const std::string path = text("text", "one two\n");
    EXPECT_EQ(count({path}).out, expected_report(path) + kEndedWell);
    if (taken != -1) {
        platform_socket_close(taken);
    }
}

// Starts the parent on a pipe, kills it while it reads, and returns how the orphaned companion ended.
int kill_parent_at_pipe(const std::string &pipe, const char *option) {
    adopt_orphans();
    const pid_t parent = fork();
    if (parent == 0) {
        execl(kWordCount, kWordCount, option, "/dev/null", pipe.c_str(), nullptr);
        _exit(127);
    }
    const int writer = open(pipe.c_str(), O_WRONLY); // waits until the parent reads, with its companion started
    kill(parent, SIGKILL);
    waitpid(parent, nullptr, 0);
    int status = 0;
    waitpid(-1, &status, 0);
    close(writer);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_P(WordCount, ACompanionWhoseParentIsKilledEndsToo) {
    const std::string pipe = folder.path + "/pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const Outcome outcome = run_in_child([&] { _exit(kill_parent_at_pipe(pipe, hybrid() ? "--hybrid" : "--")); });
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "word_count_companion: Error: The parent went away before it was done.\n");
}

} // namespace
