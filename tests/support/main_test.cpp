// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The check after each test for things left behind, and the child in which a body runs.
#include <support/child.h>

#include <gtest/gtest.h>

#include <climits>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <stdexcept>
#include <string>
#include <unistd.h>

namespace {

using namespace zel::test;

constexpr const char *kWanted = "ZEL_TEST_LEAVING";

void leave_nothing() {}

void leave_descriptor() {
    open("/dev/null", O_RDONLY | O_CLOEXEC);
}

void leave_variable() {
    setenv("ZEL_TEST_LEFT", "", 1);
}

void leave_child() {
    if (fork() == 0) {
        _exit(0);
    }
}

class Leaving : public testing::Test {
public:
    explicit Leaving(void (*body)()) : body_(body) {}

private:
    void TestBody() override { body_(); }
    void (*body_)();
};

// These tests exist only in a run that asks for them.
void add_leaving(const char *name, void (*body)()) {
    testing::RegisterTest("Leaving", name, nullptr, nullptr, __FILE__, __LINE__,
                          [body]() -> testing::Test * { return new Leaving(body); });
}

[[maybe_unused]] const bool added = [] {
    if (getenv(kWanted) == nullptr) {
        return false;
    }
    add_leaving("Nothing", leave_nothing);
    add_leaving("ADescriptor", leave_descriptor);
    add_leaving("AVariable", leave_variable);
    add_leaving("AChild", leave_child);
    return true;
}();

Outcome run_leaving() {
    std::string self(PATH_MAX, '\0');
    const ssize_t length = readlink("/proc/self/exe", self.data(), self.size());
    self.resize(length < 0 ? 0 : static_cast<size_t>(length));
    // All of them, also where this program runs a part of its tests.
    return run_program({"env", "-u", "GTEST_TOTAL_SHARDS", "-u", "GTEST_SHARD_INDEX", std::string(kWanted) + "=1", self,
                        "--gtest_filter=Leaving.*", "--gtest_color=no"});
}

// Whether the printer writes the finding and then the failure in the test's own line.
bool failed_by(const std::string &out, const std::string &name, const std::string &found) {
    const size_t begin = out.find("[ RUN      ] Leaving." + name + "\n");
    const size_t end = out.find("[  FAILED  ] Leaving." + name + " (", begin);
    return end != std::string::npos && out.substr(begin, end - begin).find(found) != std::string::npos;
}

} // namespace

TEST(CleanWorld, ATestThatLeavesSomethingFailsInItsLineAndInTheSummary) {
    const Outcome outcome = run_leaving();
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.out.find("[       OK ] Leaving.Nothing ("), std::string::npos);
    EXPECT_TRUE(failed_by(outcome.out, "ADescriptor", "descriptors that the test left behind")) << outcome.out;
    EXPECT_TRUE(failed_by(outcome.out, "AVariable", "variables that the test left behind")) << outcome.out;
    EXPECT_TRUE(failed_by(outcome.out, "AChild", "children that the test left behind")) << outcome.out;
    EXPECT_NE(outcome.out.find("[  PASSED  ] 1 test.\n[  FAILED  ] 3 tests, listed below:\n"), std::string::npos);
}

TEST(RunInChild, ABodyThatThrowsEndsTheChildAndNoOtherTestRunsThere) {
    const Outcome outcome = run_in_child([] { throw std::runtime_error("thrown by the body"); });
    EXPECT_EQ(outcome.signal, SIGABRT);
    EXPECT_EQ(outcome.out, "");
}
