// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The name of the distribution.
#include "environment_support.h"

#include <cstdlib>
#include <filesystem>

using namespace zel::test;

namespace {

// A root folder with this text in its DISTRIBUTION.
struct Distribution {
    explicit Distribution(const std::string &text) {
        std::filesystem::create_directory(folder.path + "/dist");
        set(text);
    }
    void set(const std::string &text) const { write_file(path, text); }

    ScratchFolder folder;
    std::string path = folder.path + "/dist/DISTRIBUTION";
};

void print_name() {
    const char *name = platform_dist_name();
    printf("%s\n", name == nullptr ? "null" : (std::string("'") + name + "'").c_str());
}

std::string name_in(const std::string &text) {
    const Distribution distribution(text);
    return run_with({{"ZEL_DIST", distribution.folder.path}}, print_name).out;
}

} // namespace

TEST(PlatformDistName, IsTheFirstWordOfTheFile) {
    EXPECT_EQ(name_in("rel-4.2 final"), "'rel-4.2'\n");
    EXPECT_EQ(name_in("rel-4.2"), "'rel-4.2'\n");
    EXPECT_EQ(name_in("rel-4.2\nsecond line\n"), "'rel-4.2'\n");
    EXPECT_EQ(name_in("rel-4.2\tfinal"), "'rel-4.2'\n");
    EXPECT_EQ(name_in("100%s"), "'100%s'\n");
}

TEST(PlatformDistName, WhiteSpaceAheadOfTheWordIsSkipped) {
    EXPECT_EQ(name_in(" \t\n rel-4.2 final"), "'rel-4.2'\n");
}

TEST(PlatformDistName, AFileWithoutAWordGivesTheEmptyName) {
    EXPECT_EQ(name_in(""), "''\n");
    EXPECT_EQ(name_in(" \n\t "), "''\n");
}

// The size that this holds: 255 characters of the name are kept.
TEST(PlatformDistName, ALongWordIsCut) {
    EXPECT_EQ(name_in(std::string(255, 'a')), "'" + std::string(255, 'a') + "'\n");
    EXPECT_EQ(name_in(std::string(256, 'a')), "'" + std::string(255, 'a') + "'\n");
    EXPECT_EQ(name_in(std::string(100000, 'a')), "'" + std::string(255, 'a') + "'\n");
}

TEST(PlatformDistName, ThereIsNoNameWithoutTheVariable) {
    EXPECT_EQ(run_with({}, print_name).out, "null\n");
}

TEST(PlatformDistName, ThereIsNoNameAndNoReportWithoutTheFile) {
    const ScratchFolder folder;
    const Outcome outcome = run_with({{"ZEL_DIST", folder.path}, {"ZEL_PERROR", "1"}}, print_name);
    EXPECT_EQ(outcome.out, "null\n");
    EXPECT_EQ(outcome.err, "");
}

TEST(PlatformDistName, TheFileIsReadBelowTheDirectoryThatTheVariableNames) {
    const auto opened_for = [](const std::string &root) {
        return run_with({{"ZEL_DIST", root}},
                        [] {
                            const NoFiles files;
                            print_name();
                        })
            .out;
    };
    EXPECT_EQ(opened_for("/opt/zel"), "open r /opt/zel/dist/DISTRIBUTION\nnull\n");
    EXPECT_EQ(opened_for(""), "open r /dist/DISTRIBUTION\nnull\n");
}

// The size that this holds: a path has at most 4096 characters.
TEST(PlatformDistName, APathTooLongForItsBufferIsRefused) {
    const std::string longest(4096 - std::string("/dist/DISTRIBUTION").size(), 'd');
    const auto opens = [](const std::string &root) {
        return run_with({{"ZEL_DIST", root}}, [] {
                   const NoFiles files;
                   print_name();
               }).out != "null\n";
    };
    EXPECT_TRUE(opens(longest));
    EXPECT_FALSE(opens(longest + "d"));
}

TEST(PlatformDistName, EveryCallReadsAgainIntoTheSameBuffer) {
    const Distribution distribution("first");
    const Outcome outcome = run_with({{"ZEL_DIST", distribution.folder.path}}, [&distribution] {
        const char *first = platform_dist_name();
        printf("%s ", first);
        distribution.set("second");
        const char *second = platform_dist_name();
        printf("%s %d ", first, first == second);
        distribution.set("");
        printf("'%s'", platform_dist_name());
    });
    EXPECT_EQ(outcome.out, "first second 1 ''");
}

TEST(PlatformDistName, TheFileStaysOpen) {
    const Distribution distribution("rel-4.2");
    const Outcome outcome = run_with({{"ZEL_DIST", distribution.folder.path}}, [&distribution] {
        platform_dist_name();
        platform_dist_name();
        for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code ignored;
            printf("%s", std::filesystem::read_symlink(entry, ignored) == distribution.path ? "open\n" : "");
        }
    });
    EXPECT_EQ(outcome.out, "open\nopen\n");
}
