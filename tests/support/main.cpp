// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The main function of every test program. A test that leaves descriptors, children or
// variables behind fails.
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

// A request that no system provides returns null, as without the sanitizer. A list of the
// suppressed leaks would stand in the standard error of a child, which tests compare.
extern "C" const char *__asan_default_options();
extern "C" const char *__asan_default_options() {
    return "allocator_may_return_null=1:print_suppressions=0";
}

// No list of the suppressed leaks.
extern "C" const char *__lsan_default_options();
extern "C" const char *__lsan_default_options() {
    return "print_suppressions=0";
}

int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    umask(022); // files for other users are readable under any mask of the caller
    // Listeners hear of the end of a test in reverse order: the last one checks the test
    // before the printer writes its result.
    testing::UnitTest::GetInstance()->listeners().Append(new CleanWorld);
    return RUN_ALL_TESTS();
}
