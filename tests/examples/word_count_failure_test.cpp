// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The word count when something fails: the exact message, the exit status, an end in time, and no process left.
#include "word_count_support.h"

#include <chrono>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace zel::test;
using Clock = std::chrono::steady_clock;

enum ExitStatus { kTextUnreadable = 1, kCompanionFailed = 2, kWrongArguments = 3, kOutputFailed = 4 };

constexpr const char *kUsage = "       Usage: word_count [--hybrid] [--companion PROGRAM] [--debug REQUEST]\n"
                               "       [--] [FILE...]\n";
// Far below what a hang would take, far above what a slow machine needs.
constexpr auto kInTime = std::chrono::seconds(30);

struct WordCountFailure : WordCountTest {
    void SetUp() override {
        text("a", "one two two\n");
        text("b", "three\n");
        report_a = expected_report(folder.path + "/a", "a");
        report_b = expected_report(folder.path + "/b", "b");
    }
    void TearDown() override { EXPECT_LT(Clock::now() - started, kInTime); }

    // Counts a and b with the companion that fails in that way.
    Outcome count_with_fault(const std::string &fault) const {
        return count({"--companion", part("faulty_companion"), "a", "b"}, {"FAULT=" + fault});
    }

    void expect_lost(const std::string &fault, const std::string &ending) const {
        const Outcome outcome = count_with_fault(fault);
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(outcome.err, "Error: The companion was lost while it counted a.\n"
                               "       It ended with " +
                                   ending +
                                   ".\n"
                                   "       Texts that were not counted: 2.\n");
        EXPECT_EQ(outcome.status, kCompanionFailed);
    }

    void expect_not_understood(const std::string &fault) const {
        const Outcome outcome = count_with_fault(fault);
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(outcome.err.substr(0, outcome.err.find('\n') + 1),
                  "Error: The companion gave no proper answer about a.\n");
        EXPECT_EQ(outcome.status, kCompanionFailed);
    }

    // The message about a program that cannot be executed. Without a connection no text has been asked for.
    std::string not_started(const std::string &reason) const {
        const std::string ending = "       It ended with exit status 1.\n       " + reason + ".\n";
        return hybrid() ? "Error: The companion did not connect.\n" + ending
                        : "Error: The companion was lost while it counted a.\n" + ending +
                              "       Texts that were not counted: 2.\n";
    }

    void expect_not_started(const std::string &program, const std::string &reason) const {
        const Outcome outcome = count({"--companion", program, "a", "b"});
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(outcome.err, not_started(reason));
        EXPECT_EQ(outcome.status, kCompanionFailed);
    }

    std::string report_a;
    std::string report_b;
    Clock::time_point started = Clock::now();
};

INSTANTIATE_TEST_SUITE_P(Example, WordCountFailure, testing::Values("", "--hybrid"), arrangement_name);

// ---- Texts that cannot be read --------------------------------------------------------------------------------------

TEST_P(WordCountFailure, AMissingTextIsReportedAndTheOthersAreCounted) {
    const Outcome outcome = count({"a", "missing", "b"});
    EXPECT_EQ(outcome.out, report_a + report_b + kEndedWell);
    EXPECT_EQ(outcome.err, "Error: missing cannot be read: No such file or directory.\n");
    EXPECT_EQ(outcome.status, kTextUnreadable);
}

TEST_P(WordCountFailure, AFolderIsReportedAndTheOthersAreCounted) {
    const Outcome outcome = count({"a", "/", "b"});
    EXPECT_EQ(outcome.out, report_a + report_b + kEndedWell);
    EXPECT_EQ(outcome.err, "Error: / cannot be read: Is a directory.\n");
    EXPECT_EQ(outcome.status, kTextUnreadable);
}

TEST_P(WordCountFailure, EachTextThatCannotBeReadIsReported) {
    ASSERT_EQ(symlink("nowhere", (folder.path + "/dangling").c_str()), 0);
    ASSERT_EQ(symlink("round", (folder.path + "/round").c_str()), 0);
    const Outcome outcome = count({"dangling", "round", "", "a/b"});
    EXPECT_EQ(outcome.out, kEndedWell);
    EXPECT_EQ(outcome.err, "Error: dangling cannot be read: No such file or directory.\n"
                           "Error: round cannot be read: Too many levels of symbolic links.\n"
                           "Error:  cannot be read: No such file or directory.\n"
                           "Error: a/b cannot be read: Not a directory.\n");
    EXPECT_EQ(outcome.status, kTextUnreadable);
}

TEST_P(WordCountFailure, AReadThatFailsInTheMiddleGivesUpThatTextAlone) {
    const Outcome outcome =
        count_with(part("word_count_in_storm"), {"--companion", example("word_count_companion"), "b", "a", "b"},
                   {"STORM_READ_FAILS=12"});
    EXPECT_EQ(outcome.out, report_b + report_b + kEndedWell);
    EXPECT_EQ(outcome.err, "Error: a cannot be read: Input/output error.\n");
    EXPECT_EQ(outcome.status, kTextUnreadable);
}

// ---- Companions that cannot be started ------------------------------------------------------------------------------

TEST_P(WordCountFailure, ACompanionThatDoesNotExistIsNamed) {
    expect_not_started("./missing", "./missing: No such file or directory");
}

TEST_P(WordCountFailure, ACompanionThatMayNotBeExecutedIsNamed) {
    ASSERT_EQ(chmod((folder.path + "/a").c_str(), 0600), 0);
    expect_not_started("./a", "./a: Permission denied");
}

TEST_P(WordCountFailure, ACompanionThatIsNotOnThePathIsNamed) {
    expect_not_started("no-such-companion", "no-such-companion: No such file or directory");
}

TEST_P(WordCountFailure, AFolderAsCompanionIsNamed) {
    expect_not_started("/usr", "/usr: Permission denied");
}

TEST_P(WordCountFailure, ACompanionThatCannotBeStartedOutweighsATextThatCannotBeRead) {
    const Outcome outcome = count({"--companion", "./missing", "nowhere"});
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.status, kCompanionFailed);
}

// ---- Companions that fail -------------------------------------------------------------------------------------------

TEST_P(WordCountFailure, ACompanionThatEndsAtOnceIsLost) {
    const Outcome outcome = count_with_fault("exit at once");
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, hybrid() ? "Error: The companion did not connect.\n"
                                      "       It ended with exit status 3.\n"
                                    : "Error: The companion was lost while it counted a.\n"
                                      "       It ended with exit status 3.\n"
                                      "       Texts that were not counted: 2.\n");
    EXPECT_EQ(outcome.status, kCompanionFailed);
}

TEST_P(WordCountFailure, ACompanionThatEndsBeforeItIsReadyIsLost) {
    expect_lost("exit before ready", "exit status 3");
}

// The first receive is interrupted, and then the stream ends. Whoever takes the end for the interruption that is
// past tries for ever.
TEST_P(WordCountFailure, AnInterruptionThatIsPastDoesNotHideTheEndOfTheStream) {
    const Outcome outcome = count_with(part("word_count_in_storm"), {"--companion", part("faulty_companion"), "a"},
                                       {"FAULT=exit before ready"});
    EXPECT_EQ(outcome.err, "Error: The companion was lost while it counted a.\n"
                           "       It ended with exit status 3.\n"
                           "       Texts that were not counted: 1.\n");
    EXPECT_EQ(outcome.status, kCompanionFailed);
}

TEST_P(WordCountFailure, ACompanionThatEndsInTheMiddleOfATextIsLost) {
    expect_lost("exit in text", "exit status 3");
}

TEST_P(WordCountFailure, ACompanionThatIsKilledInTheMiddleOfATextIsLost) {
    expect_lost("killed in text", "signal 9 (Killed)");
}

TEST_P(WordCountFailure, ACompanionThatEndsBeforeItsAnswerIsLost) {
    expect_lost("exit before answer", "exit status 3");
}

TEST_P(WordCountFailure, ACompanionThatHangsUpAndLivesIsKilled) {
    expect_lost("hangs up in text", "signal 9 (Killed), sent by its parent");
}

// More than the sockets hold: the parent is in the middle of sending.
TEST_P(WordCountFailure, ACompanionThatIsKilledWhileALargeTextIsSentIsLost) {
    text("a", std::string(5 << 20, 'x'));
    expect_lost("killed in text", "signal 9 (Killed)");
}

TEST_P(WordCountFailure, ACompanionThatIsNotReadyIsNotUnderstood) {
    expect_not_understood("not ready");
}

TEST_P(WordCountFailure, AnAnswerThatDoesNotSayCountedIsNotUnderstood) {
    expect_not_understood("answer computed 1 2 3");
}

TEST_P(WordCountFailure, AnAnswerWithoutAllItsNumbersIsNotUnderstood) {
    expect_not_understood("answer counted 1 2");
    expect_not_understood("answer counted 1 2 3 4");
}

TEST_P(WordCountFailure, AnAnswerWithSomethingElseForANumberIsNotUnderstood) {
    expect_not_understood("answer counted 1 2 3x");
    expect_not_understood("answer counted 1 -2 3");
    expect_not_understood("answer counted 1 2 99999999999999999999");
    expect_not_understood("answer counted 1 2 3 x 0");
}

TEST_P(WordCountFailure, AnAnswerWithANumberTooManyIsNotUnderstood) {
    expect_not_understood("answer counted 1 2 3 4 5 6");
}

TEST_P(WordCountFailure, AWordWithoutItsCountIsNotUnderstood) {
    expect_not_understood("bad row");
}

TEST_P(WordCountFailure, ACompanionThatFailsAfterAllWasCountedIsReported) {
    const Outcome outcome = count_with_fault("exit after quit");
    EXPECT_NE(outcome.out.find("a\n    lines            1\n"), std::string::npos);
    EXPECT_NE(outcome.out.find("b\n    lines            1\n"), std::string::npos);
    EXPECT_EQ(outcome.err, "Error: The companion failed.\n"
                           "       It ended with exit status 3.\n");
    EXPECT_EQ(outcome.status, kCompanionFailed);
}

TEST_P(WordCountFailure, ACompanionThatDoesNotEndWhenAskedIsKilled) {
    const Outcome outcome = count_with_fault("deaf");
    EXPECT_EQ(outcome.err, "Error: The companion did not end when it was asked to.\n"
                           "       It ended with signal 9 (Killed), sent by its parent.\n");
    EXPECT_EQ(outcome.status, kCompanionFailed);
}

// ---- Arguments and output -------------------------------------------------------------------------------------------

TEST_P(WordCountFailure, AnUnknownOptionIsRefused) {
    const Outcome outcome = count({"--fast", "a"});
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, std::string("Error: --fast is no option.\n") + kUsage);
    EXPECT_EQ(outcome.status, kWrongArguments);
}

TEST_P(WordCountFailure, TheCompanionOptionNeedsAProgram) {
    const Outcome outcome = count({"--companion"});
    EXPECT_EQ(outcome.err, std::string("Error: --companion needs a program.\n") + kUsage);
    EXPECT_EQ(outcome.status, kWrongArguments);
}

TEST_P(WordCountFailure, TheDebugOptionNeedsARequest) {
    const Outcome outcome = count({"--debug"});
    EXPECT_EQ(outcome.err, std::string("Error: --debug needs a request.\n") + kUsage);
    EXPECT_EQ(outcome.status, kWrongArguments);
}

TEST_P(WordCountFailure, OutputThatCannotBeWrittenIsAFailure) {
    const Outcome outcome = run_with({"--chdir=" + folder.path}, {"sh", "-c", "exec \"$@\" >/dev/full", "sh",
                                                                  kWordCount, hybrid() ? "--hybrid" : "--", "a"});
    EXPECT_EQ(outcome.err, "Warning: Error during flush of informational message.  This stream will no\n"
                           "         longer be used.\n"
                           "         Stream error was: No space left on device\n");
    EXPECT_EQ(outcome.status, kOutputFailed);
}

TEST(WordCountPorts, WithoutAFreePortTheHybridArrangementIsRefused) {
    const Outcome outcome = run_with({"STORM_BIND_FAILS=1"}, {part("word_count_in_storm"), "--hybrid", "/dev/null"});
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "Error: No port from 20300 to 21299 can be opened on localhost.\n");
    EXPECT_EQ(outcome.status, kCompanionFailed);
}

} // namespace
