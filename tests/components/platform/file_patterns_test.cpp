// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Expanding and matching patterns.
#include <components/platform/file_control.h>

#include "file_support.h"
#include <malloc/heap_report.h>
#include <malloc/zel_malloc.h>
#include <support/child.h>
#include <support/files.h>
#include <support/interpose.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <glob.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace zel::test;

namespace {

using Glob = Files;
using Names = std::vector<std::string>;

const Names kNothing = {"nothing"};

// The names that a pattern expands to, or the one word "nothing".
Names expand(const std::string &dir, const char *pattern) {
    PlatformFileList list = {};
    if (platform_glob(dir.c_str(), pattern, &list) == 0) {
        return kNothing;
    }
    Names names(list.paths, list.paths + list.count);
    platform_glob_free(&list);
    return names;
}

} // namespace

TEST_F(Glob, APatternExpandsToThePathsThatMatchInOrder) {
    for (const char *name : {"b.txt", "a.txt", "c.dat", ".hidden"}) {
        write_file(path(name), "");
    }
    EXPECT_EQ(expand(folder.path, "*.txt"), (Names{path("a.txt"), path("b.txt")}));
    EXPECT_EQ(expand(folder.path, "?.dat"), (Names{path("c.dat")}));
    EXPECT_EQ(expand(folder.path, "*"), (Names{path("a.txt"), path("b.txt"), path("c.dat")}));
}

TEST_F(Glob, WithoutAPatternAllIsMeant) {
    write_file(path("a"), "");
    const Names all = {path("a")};
    EXPECT_EQ(expand(folder.path, nullptr), all);
    EXPECT_EQ(expand(folder.path, ""), all);
}

TEST_F(Glob, ADirectoryThatEndsInASlashGetsNoSecondOne) {
    write_file(path("a"), "");
    EXPECT_EQ(expand(folder.path + "/", nullptr), (Names{path("a")}));
    EXPECT_EQ(expand(folder.path + "//", nullptr), (Names{folder.path + "//a"}));
}

TEST_F(Glob, WhatMatchesNothingLeavesTheListUntouched) {
    char *paths[] = {nullptr};
    PlatformFileList list = {.count = 7, .paths = paths, .glob_record = paths};
    EXPECT_EQ(platform_glob(folder.path.c_str(), "*.none", &list), 0);
    EXPECT_EQ(list.count, 7U);
    EXPECT_EQ(list.paths, paths);
    EXPECT_EQ(list.glob_record, paths);
}

TEST_F(Glob, NoListAndNoDirectoryAreRefusedWithoutAnAllocation) {
    PlatformFileList list = {};
    const unsigned long before = zel_malloc_total_requested();
    EXPECT_EQ(platform_glob(folder.path.c_str(), "*", nullptr), 0);
    EXPECT_EQ(platform_glob(nullptr, "*", &list), 0);
    EXPECT_EQ(platform_glob("", "*", &list), 0);
    EXPECT_EQ(zel_malloc_total_requested(), before);
}

TEST_F(Glob, TheRecordIsTheOneThingThatStaysAllocated) {
    write_file(path("a"), "");
    PlatformFileList list = {};
    EXPECT_EQ(blocks_left_by([&] { platform_glob(folder.path.c_str(), "*.none", &list); }), 0);
    EXPECT_EQ(blocks_left_by([&] { platform_glob(folder.path.c_str(), nullptr, &list); }), 1);
    EXPECT_EQ(blocks_left_by([&] { platform_glob_free(&list); }), -1);
}

TEST_F(Glob, TheRecordIsAskedForUnderItsOwnName) {
    const Outcome outcome = run_in_child([this] {
        zel_malloc_set_failure_handler([](unsigned long, const char *message) -> void * {
            printf("%s", message);
            fflush(nullptr);
            _exit(0);
        });
        zel_malloc_fail_after(0);
        PlatformFileList list = {};
        platform_glob(folder.path.c_str(), nullptr, &list);
    });
    EXPECT_EQ(outcome.out, "components/platform/file_control:808 (via zel_malloc): Not enough memory to allocate " +
                               std::to_string(sizeof(glob_t)) + " bytes for glob_t.");
}

TEST_F(Glob, AnExpansionThatFailsAtOnceReleasesAnEmptyRecord) {
    bool empty = false;
    const Interposed failing(hook::glob, [&empty](const char *, int, int (*)(const char *, int), glob_t *record) {
        empty = record->gl_pathv == nullptr && record->gl_pathc == 0;
        return GLOB_NOSPACE;
    });
    const Interposed dirty(hook::malloc, [](size_t size) { return memset(hook::malloc.real(size), 0x55, size); });
    PlatformFileList list = {};
    EXPECT_EQ(platform_glob(folder.path.c_str(), nullptr, &list), 0);
    EXPECT_TRUE(empty);
}

TEST_F(Glob, ReleasingNothingDoesNothing) {
    platform_glob_free(nullptr);
    PlatformFileList list = {};
    platform_glob_free(&list);
    EXPECT_EQ(list.glob_record, nullptr);
}

TEST_F(Glob, AListMayBeReleasedTwice) {
    write_file(path("a"), "");
    PlatformFileList list = {};
    ASSERT_EQ(platform_glob(folder.path.c_str(), nullptr, &list), 1);
    platform_glob_free(&list);
    platform_glob_free(&list);
    EXPECT_EQ(list.count, 0U);
}

TEST(Match, NamesMatchShellPatterns) {
    EXPECT_EQ(platform_match("name.txt", "*.txt"), 1);
    EXPECT_EQ(platform_match("name.txt", "*.dat"), 0);
    EXPECT_EQ(platform_match("a", "[a-c]"), 1);
    EXPECT_EQ(platform_match(".hidden", "*"), 1) << "without flags a leading dot is a character like any other";
    EXPECT_EQ(platform_match("a/b", "*"), 1) << "and so is a slash";
}

TEST(Match, WithoutAPatternAllMatchesButANullName) {
    EXPECT_EQ(platform_match("anything", nullptr), 1);
    EXPECT_EQ(platform_match("", ""), 1);
    EXPECT_EQ(platform_match(nullptr, "*"), 0);
    EXPECT_EQ(platform_match(nullptr, nullptr), 0);
}

TEST_F(Glob, TheListHasCountPathsAndRecordInThisOrder) {
    write_file(path("a"), "");
    write_file(path("b"), "");
    PlatformFileList list = {};
    static_assert(offsetof(PlatformFileList, count) == 0);
    static_assert(offsetof(PlatformFileList, paths) == sizeof(void *));
    static_assert(offsetof(PlatformFileList, glob_record) == 2 * sizeof(void *));
    ASSERT_EQ(platform_glob(folder.path.c_str(), "*", &list), 1);
    const auto *record = static_cast<const glob_t *>(list.glob_record);
    EXPECT_EQ(list.count, 2U);
    EXPECT_EQ(list.count, record->gl_pathc);
    EXPECT_EQ(list.paths, record->gl_pathv);
    platform_glob_free(&list);
    EXPECT_EQ(list.paths, nullptr);
    EXPECT_EQ(list.glob_record, nullptr);
}

TEST_F(Glob, ManyNamesStandInOrder) {
    Names expected;
    for (const int number : {17, 4, 25, 9, 30, 11, 2, 28, 13, 6, 21, 15, 8, 23, 19, 10}) {
        write_file(path(std::to_string(100 + number)), "");
        expected.push_back(path(std::to_string(100 + number)));
    }
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expand(folder.path, "*"), expected);
}

TEST_F(Glob, TheExpansionHasNoFlags) {
    ASSERT_EQ(mkdir(path("dir").c_str(), 0755), 0);
    write_file(path("a"), "");
    write_file(path("*"), "");
    EXPECT_EQ(expand(folder.path, "d*"), Names{path("dir")}) << "no slash behind a directory";
    EXPECT_EQ(expand(folder.path, "\\*"), Names{path("*")}) << "a backslash takes the meaning from what follows";
    EXPECT_EQ(expand(folder.path, "{a,dir}"), kNothing) << "braces are characters like any other";
    EXPECT_EQ(expand(folder.path, "missing"), kNothing) << "a name without a pattern must be there too";
    EXPECT_EQ(expand(path("a"), "*"), kNothing);
}

TEST_F(Glob, AFolderThatCannotBeReadHidesNothingElse) {
    for (const char *name : {"1", "2", "3"}) {
        ASSERT_EQ(mkdir(path(name).c_str(), 0755), 0);
        write_file(path(name) + "/file", "");
    }
    ASSERT_EQ(chmod(path("2").c_str(), 0), 0);
    open_to_all();
    const Outcome outcome = run_in_child([this] {
        give_up_root();
        for (const std::string &name : expand(folder.path, "*/f*")) {
            printf("%s ", name.substr(folder.path.size()).c_str());
        }
    });
    EXPECT_EQ(outcome.out, "/1/file /3/file ");
    ASSERT_EQ(chmod(path("2").c_str(), 0755), 0);
}

TEST_F(Glob, PatternsInTheDirectoryAreExpandedToo) {
    for (const char *name : {"one", "two"}) {
        ASSERT_EQ(mkdir(path(name).c_str(), 0755), 0);
        write_file(path(name) + "/file", "");
    }
    EXPECT_EQ(expand(path("*"), "f*"), (Names{path("one/file"), path("two/file")}));
}

TEST_F(Glob, OnlyTheRecordIsAnAllocationOfTheProgram) {
    write_file(path("a"), "");
    for (const char *pattern : {"*", "*.none"}) {
        const unsigned long before = zel_malloc_total_requested();
        expand(folder.path, pattern);
        EXPECT_EQ(zel_malloc_total_requested() - before, sizeof(glob_t)) << pattern;
    }
}

TEST_F(Glob, WithoutARecordNothingIsExpandedWhenAFailureHandlerLetsItPass) {
    write_file(path("a"), "");
    const Outcome outcome = run_in_child([this] {
        zel_malloc_set_failure_handler([](unsigned long, const char *) -> void * { return nullptr; });
        const Interposed failing(hook::malloc, [](size_t size) -> void * {
            return size == sizeof(glob_t) ? nullptr : hook::malloc.real(size);
        });
        PlatformFileList list = {.count = 7, .paths = nullptr, .glob_record = nullptr};
        int result = 1;
        const int blocks = blocks_left_by([&] { result = platform_glob(folder.path.c_str(), nullptr, &list); });
        printf("%d %u %d", result, list.count, blocks);
    });
    EXPECT_EQ(outcome.out, "0 7 0");
}

TEST(Match, MatchingHasNoFlags) {
    EXPECT_EQ(platform_match("*", "\\*"), 1) << "a backslash takes the meaning from what follows";
    EXPECT_EQ(platform_match("name", "\\*"), 0);
    EXPECT_EQ(platform_match("a/b", "a"), 0) << "the whole name must match";
    EXPECT_EQ(platform_match("A", "a"), 0) << "letters have their case";
    EXPECT_EQ(platform_match("a/.b", "a/*"), 1);
    EXPECT_EQ(platform_match("ab", "+(a|b)"), 0);
}
