// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The companion of the word count, asked byte by byte, and on its own.
#include "examples_support.h"

#include <components/platform/zel_pair_connection.h>

#include <support/files.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/wait.h>

namespace {

using namespace zel::test;

constexpr const char *kCompanion = ZEL_BINARY_DIR "/examples/word_count_companion";

std::string value(int32_t number) {
    return {reinterpret_cast<const char *>(&number), sizeof number};
}

std::string chunk(const std::string &bytes) {
    return value(static_cast<int32_t>(bytes.size())) + bytes;
}

// The real companion at the other end of a pair.
struct WordCountCompanion : testing::Test {
    void SetUp() override {
        pair = platform_pair_parent_open_lp("WORD_COUNT_PAIR", 0, 1, kCompanion, nullptr, kCompanion,
                                            static_cast<char *>(nullptr));
        ASSERT_NE(platform_pair_rx_fd(pair), -1);
        give_up_in_time(platform_pair_rx_fd(pair));
    }
    void TearDown() override {
        if (pair != nullptr) {
            platform_pair_kill_child(pair);
            platform_pair_close(pair);
        }
    }

    void say(const std::string &bytes) const {
        ASSERT_EQ(send(platform_pair_tx_fd(pair), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }

    // The most memory that the companion has taken so far, in bytes.
    size_t most_memory() const {
        const std::string status = read_file("/proc/" + std::to_string(platform_pair_companion_pid(pair)) + "/status");
        const size_t start = status.find("VmHWM:");
        EXPECT_NE(start, std::string::npos);
        return strtoul(status.c_str() + start + strlen("VmHWM:"), nullptr, 10) * 1024;
    }

    size_t memory_after_a_short_text() const {
        say("count\r\nname\r\n\r\n");
        expect_answer(value(1));
        say(chunk("short") + value(0));
        expect_answer("counted 0 1 5\r\n1 short\r\n\r\n");
        return most_memory();
    }

    // As many bytes as are expected; fewer when the stream ends.
    std::string hear(size_t length) const {
        std::string bytes(length, '\0');
        const ssize_t count = recv(platform_pair_rx_fd(pair), bytes.data(), length, MSG_WAITALL);
        EXPECT_NE(count, -1) << "nothing came";
        return bytes.substr(0, count < 0 ? 0 : static_cast<size_t>(count));
    }

    void expect_answer(const std::string &answer) const { EXPECT_EQ(hear(answer.size()), answer); }

    // A companion that still waits for more finds the end of the stream.
    int exit_status() {
        shutdown(platform_pair_tx_fd(pair), SHUT_RDWR);
        int32_t status = 0;
        platform_wait_child(platform_pair_companion_pid(pair), &status);
        platform_pair_close(pair);
        pair = nullptr;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    PairHandle *pair = nullptr;
};

TEST_F(WordCountCompanion, ATextIsAskedForByAReadyAndAnsweredByItsCounts) {
    say("count\r\nname\r\n\r\n");
    expect_answer(value(1));
    say(chunk("so on") + chunk(" so\n") + value(0));
    expect_answer("counted 1 3 9\r\n2 so\r\n1 on\r\n\r\n");
}

TEST_F(WordCountCompanion, AnEmptyTextIsAnsweredByOneLine) {
    say("count\r\nname\r\n\r\n");
    expect_answer(value(1));
    say(value(0));
    expect_answer("counted 0 0 0\r\n\r\n");
}

TEST_F(WordCountCompanion, ATextThatIsBrokenOffIsNotAnswered) {
    say("count\r\nfirst\r\n\r\n");
    expect_answer(value(1));
    say(chunk("one") + value(-1) + "count\r\nsecond\r\n\r\n");
    expect_answer(value(1));
    say(chunk("two") + value(0));
    expect_answer("counted 0 1 3\r\n1 two\r\n\r\n");
}

TEST_F(WordCountCompanion, WordsThatAreNotListedAreTwoMoreNumbers) {
    say("count\r\nname\r\n\r\n");
    expect_answer(value(1));
    const std::string half(32768, 'w');
    say(chunk(half) + chunk(half) + chunk("w so") + value(0));
    expect_answer("counted 0 2 65540 1 0\r\n1 so\r\n\r\n");
}

TEST_F(WordCountCompanion, AWordWithoutAnEndTakesNoMemory) {
    const size_t before = memory_after_a_short_text();
    say("count\r\nname\r\n\r\n");
    expect_answer(value(1));
    const std::string piece = chunk(std::string(65536, 'w'));
    for (int time = 0; time < 1024; ++time) {
        say(piece);
    }
    say(value(0));
    expect_answer("counted 0 1 67108864 1 0\r\n\r\n");
    EXPECT_LT(most_memory(), before + (4 << 20));
}

// 128 MB of words that are all different.
TEST_F(WordCountCompanion, DifferentWordsTakeBoundedMemory) {
    const size_t before = memory_after_a_short_text();
    say("count\r\nname\r\n\r\n");
    expect_answer(value(1));
    for (int first = 0; first < 500000; first += 250) {
        std::string words;
        for (int number = first; number < first + 250; ++number) {
            words += std::to_string(1000000 + number) + std::string(248, 'w') + "\n";
        }
        say(chunk(words));
    }
    say(value(0));
    expect_answer("counted 500000 500000 128000000 0 368414\r\n1 1000000w");
    EXPECT_LT(most_memory(), before + (96 << 20));
}

TEST_F(WordCountCompanion, QuitEndsItWell) {
    say("quit\r\n\r\n");
    EXPECT_EQ(hear(1), "");
    EXPECT_EQ(exit_status(), 0);
}

TEST_F(WordCountCompanion, TheEndOfTheStreamWithoutQuitEndsItWithAnError) {
    shutdown(platform_pair_tx_fd(pair), SHUT_WR);
    EXPECT_EQ(exit_status(), 1);
}

TEST_F(WordCountCompanion, TheEndOfTheStreamInATextEndsItWithAnError) {
    say("count\r\nname\r\n\r\n");
    expect_answer(value(1));
    say(value(100) + "only these");
    shutdown(platform_pair_tx_fd(pair), SHUT_WR);
    EXPECT_EQ(hear(1), "");
    EXPECT_EQ(exit_status(), 1);
}

TEST_F(WordCountCompanion, AChunkLongerThanAgreedEndsItWithAnError) {
    say("count\r\nname\r\n\r\n");
    expect_answer(value(1));
    say(value(65537));
    EXPECT_EQ(hear(1), "");
    EXPECT_EQ(exit_status(), 1);
}

TEST_F(WordCountCompanion, AnUnknownRequestEndsItWithAnError) {
    say("weigh\r\nname\r\n\r\n");
    EXPECT_EQ(hear(1), "");
    EXPECT_EQ(exit_status(), 1);
}

TEST_F(WordCountCompanion, ACountWithoutANameIsNotUnderstood) {
    say("count\r\n\r\n");
    EXPECT_EQ(hear(1), "");
    EXPECT_EQ(exit_status(), 1);
}

struct CompanionStart : testing::Test {
    static void expect_refused(const std::vector<std::string> &settings, const std::string &error) {
        const Outcome outcome = run_with(settings, {kCompanion});
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(outcome.err, error);
        EXPECT_EQ(outcome.status, 1);
    }
};

TEST_F(CompanionStart, WithoutItsVariableItSaysSo) {
    expect_refused({"--unset=WORD_COUNT_PAIR"},
                   "word_count_companion: Error: Cannot open the pair: Failing to start due to\n"
                   "word_count_companion:        wrong type on linux\n");
}

TEST_F(CompanionStart, AVariableWithoutNumbersIsRefused) {
    expect_refused({"WORD_COUNT_PAIR=abc pid-rtx_fd_l", "--unset=WORD_COUNT_PAIR_HYBRID"},
                   "word_count_companion: Error: Cannot open the pair: Unknown error -1 (-1)\n");
}

TEST_F(CompanionStart, APortAtWhichNobodyListensIsRefused) {
    expect_refused({"WORD_COUNT_PAIR=1 1 pid-rtx_fd_w", "WORD_COUNT_PAIR_HYBRID=1"},
                   "word_count_companion: Error: Cannot open the pair: Connection refused (111)\n");
}

} // namespace
