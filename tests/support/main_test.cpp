// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The look at the world after each test: who leaves something behind has failed, in its own line and in the summary.
#include <support/child.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <fcntl.h>
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

// Tests that are there only for a run that asks for them.
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
    return run_program({"env", std::string(kWanted) + "=1", self, "--gtest_filter=Leaving.*", "--gtest_color=no"});
}

// The line in which the printer says how a test ended, behind what was found.
std::string end_of(const std::string &name, const std::string &found) {
    return found + "\n[  FAILED  ] Leaving." + name + " (";
}

} // namespace

TEST(CleanWorld, ATestThatLeavesSomethingBehindFailsInItsOwnLineAndInTheSummary) {
    const Outcome outcome = run_leaving();
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.out.find("[       OK ] Leaving.Nothing ("), std::string::npos);
    EXPECT_NE(outcome.out.find(end_of("ADescriptor", "descriptors that the test left behind")), std::string::npos);
    EXPECT_NE(outcome.out.find(end_of("AVariable", "variables that the test left behind")), std::string::npos);
    EXPECT_NE(outcome.out.find(end_of("AChild", "children that the test left behind")), std::string::npos);
    EXPECT_NE(outcome.out.find("[  PASSED  ] 1 test.\n[  FAILED  ] 3 tests, listed below:\n"), std::string::npos);
}
