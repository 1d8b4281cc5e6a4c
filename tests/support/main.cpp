// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The entry of every test program. After each test the world must be as it was: descriptors, children, environment.
#include <support/census.h>

#include <gtest/gtest.h>

#include <leaks_on_purpose.h> // made from support/leaks_on_purpose.txt
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

std::vector<std::string> environment() {
    std::vector<std::string> entries;
    for (char **entry = environ; *entry != nullptr; ++entry) {
        entries.emplace_back(*entry);
    }
    return entries;
}

class CleanWorld : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo & /*test*/) override {
        descriptors_ = zel::test::open_descriptors();
        environment_ = environment();
    }

    void OnTestEnd(const testing::TestInfo & /*test*/) override {
        EXPECT_EQ(zel::test::open_descriptors(), descriptors_) << "descriptors that the test left behind";
        EXPECT_FALSE(zel::test::has_children()) << "children that the test left behind";
        EXPECT_EQ(environment(), environment_) << "variables that the test left behind";
    }

    std::set<int> descriptors_;
    std::vector<std::string> environment_;
};

} // namespace

// The leaks that the sanitizer does not report.
extern "C" const char *__lsan_default_suppressions();
extern "C" const char *__lsan_default_suppressions() {
    return kLeaksOnPurpose;
}

// A request that no system provides fails like without the sanitizer, and nothing is added to what a child writes.
extern "C" const char *__asan_default_options();
extern "C" const char *__asan_default_options() {
    return "allocator_may_return_null=1:print_suppressions=0";
}

// A list of what was suppressed would stand in the standard error of a child, which tests compare.
extern "C" const char *__lsan_default_options();
extern "C" const char *__lsan_default_options() {
    return "print_suppressions=0";
}

int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    umask(022); // what tests make for others to read is readable, whatever mask the user has
    // Behind the printer: the end of a test is told to the listeners in reverse order, so that the test has been looked
    // at when the printer says how it ended.
    testing::UnitTest::GetInstance()->listeners().Append(new CleanWorld);
    return RUN_ALL_TESTS();
}
