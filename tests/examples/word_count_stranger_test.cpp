// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Somebody else connects to word_count --hybrid before its companion does.
#include "word_count_support.h"

#include <gtest/gtest.h>

#include <unistd.h>

namespace {

using namespace zel::test;

struct WordCountStranger : WordCountTest {
    Outcome count_beside(const std::string &stranger, const std::string &path) const {
        return count({"--companion", part("stranger_first"), path},
                     {"STRANGER=" + stranger, "STRANGER_THEN=" ZEL_BINARY_DIR "/examples/word_count_companion"});
    }
};

INSTANTIATE_TEST_SUITE_P(Example, WordCountStranger, testing::Values("--hybrid"), arrangement_name);

// Without the rights of root there is no second user: then the stranger is one who has gone.
TEST_P(WordCountStranger, AConnectionOfAnotherUserIsRefusedAndTheCompanionServed) {
    const std::string path = text("text", "one two two\n");
    const Outcome outcome = count_beside(geteuid() == 0 ? "another user" : "gone", path);
    EXPECT_EQ(outcome.out, expected_report(path) + kEndedWell);
    EXPECT_NE(outcome.err.find("connection"), std::string::npos) << outcome.err;
    EXPECT_NE(outcome.err.find("was refused"), std::string::npos) << outcome.err;
    EXPECT_EQ(outcome.err.find("54321") != std::string::npos, geteuid() == 0) << outcome.err;
    EXPECT_EQ(outcome.status, 0);
}

TEST_P(WordCountStranger, AConnectionWhoseUserCannotBeToldIsRefused) {
    const std::string path = text("text", "one two two\n");
    const Outcome outcome = count_beside("gone", path);
    EXPECT_EQ(outcome.out, expected_report(path) + kEndedWell);
    EXPECT_NE(outcome.err.find("was refused"), std::string::npos) << outcome.err;
    EXPECT_EQ(outcome.status, 0);
}

} // namespace
