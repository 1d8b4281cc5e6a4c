// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Every example calls the start-up hook first thing, and can so be stopped from outside.
#include "examples_support.h"

#include <support/files.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <string>
#include <vector>

namespace {

using namespace zel::test;

bool is_program(const std::string &source) {
    return source.find("\nint main(") != std::string::npos;
}

bool begins_with_the_hook(const std::string &source) {
    return std::regex_search(
        source, std::regex("\\nint main\\(int argc, char \\*\\*argv\\) \\{\n +platform_debug_hooks\\(&argc, argv\\);"));
}

// The examples that are programs, without the suffix of their names.
std::vector<std::string> programs() {
    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(ZEL_SOURCE_DIR "/examples")) {
        if (is_program(read_file(entry.path()))) {
            names.push_back(entry.path().stem());
        }
    }
    return names;
}

TEST(StartUpHook, IsTheFirstStatementOfEveryExample) {
    for (const auto &entry : std::filesystem::directory_iterator(ZEL_SOURCE_DIR "/examples")) {
        const std::string source = read_file(entry.path());
        EXPECT_TRUE(!is_program(source) || begins_with_the_hook(source)) << entry.path();
    }
}

TEST(StartUpHook, AProgramThatDoesSomethingBeforeItIsCaught) {
    const std::string first = "\nint main(int argc, char **argv) {\n    platform_debug_hooks(&argc, argv);\n";
    EXPECT_TRUE(is_program(first) && begins_with_the_hook(first));
    const std::string later = "\nint main(int argc, char **argv) {\n    f();\n    platform_debug_hooks(&argc, argv);\n";
    EXPECT_TRUE(is_program(later));
    EXPECT_FALSE(begins_with_the_hook(later));
    EXPECT_FALSE(begins_with_the_hook("\nint main(void) {\n    return 0;\n"));
}

TEST(StartUpHook, EveryExampleSeesARequest) {
    const std::vector<std::string> names = programs();
    EXPECT_GE(names.size(), 7U);
    for (const std::string &name : names) {
        const Outcome outcome = run_with({"ZEL_DEBUG=frob"}, {ZEL_BINARY_DIR "/examples/" + name});
        EXPECT_EQ(outcome.out, "") << name;
        EXPECT_EQ(outcome.err, "\"__ZEL_DEBUG__ frob\" not a recognized debug op.\n") << name;
        EXPECT_EQ(outcome.status, 1) << name;
    }
}

} // namespace
