// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// What a first program runs into, written as a newcomer writes it, with the calls that keep him out of it.
#include <components/platform/pair_control.h>
#include <support/census.h>
#include <support/files.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>

namespace {

using zel::test::companion_path;
using zel::test::has_children;

constexpr const char *kVariable = "ZEL_TEST_PAIR";

PairHandle *start_by_newcomer(const char *program) {
    return platform_pair_parent_open_lp(kVariable, 1, 1, program, nullptr, program, static_cast<char *>(nullptr));
}

} // namespace

// platform_pair_kill_child waits for ever for this companion.
TEST(Pitfall, AKillThatNeverReturned) {
    PairHandle *pair = start_by_newcomer(companion_path("pair_stubborn").c_str());
    int32_t ready;
    ASSERT_EQ(platform_pair_recv(pair, &ready, sizeof ready), static_cast<int32_t>(sizeof ready));
    EXPECT_EQ(platform_pair_stop(pair, 100), 1);
    EXPECT_EQ(platform_pair_child_term_signal(pair), SIGKILL);
    platform_pair_close(pair);
    EXPECT_FALSE(has_children());
}

// platform_pair_ok is 1 after platform_pair_parent_open_lp, and the companion's status is that of any failure.
TEST(Pitfall, ACompanionThatCouldNotBeExecutedLookedHealthy) {
    PairHandle *pair = start_by_newcomer("./no-such-companion");
    EXPECT_EQ(platform_pair_ok(pair), 1);
    EXPECT_EQ(platform_pair_wait(pair, -1), 1);
    EXPECT_EQ(platform_pair_exec_error(pair), ENOENT);
    platform_pair_close(pair);

    char name[] = "companion";
    char *argv[] = {name, nullptr};
    pair = platform_pair_spawn(kVariable, "./no-such-companion", argv, nullptr);
    EXPECT_EQ(platform_pair_ok(pair), 0);
    EXPECT_STREQ(pair->error_text, "execvp failed");
    EXPECT_STREQ(platform_pair_errstr(pair), "No such file or directory");
    platform_pair_close(pair);
    EXPECT_FALSE(has_children());
}

// The companion serves as long as its stream is open, so that a wait without a limit has no end.
TEST(Pitfall, AWaitForTheCompanionHadNoTimeLimit) {
    PairHandle *pair = start_by_newcomer(companion_path("pair_echo").c_str());
    EXPECT_EQ(platform_pair_wait(pair, 20), 0);
    EXPECT_EQ(platform_pair_child_exit_status(pair), PLATFORM_PAIR_STATUS_UNKNOWN);
    EXPECT_EQ(platform_pair_stop(pair, -1), 1);
    platform_pair_close(pair);
    EXPECT_FALSE(has_children());
}
