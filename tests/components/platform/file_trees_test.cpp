// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Trees on a real file system: removed, copied, moved; and that nothing outside them is ever touched.
#include <components/platform/file_control.h>

#include "file_support.h"
#include <support/child.h>
#include <support/files.h>
#include <support/interpose.h>

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace zel::test;
namespace fs = std::filesystem;

namespace {

// Names that a careless program trips over.
const std::vector<std::string> kTreacherousNames = {
    "plain", "with blank",  " leading",  "trailing ", "new\nline", "-rf",      "--",        "-",      "*",
    "?",     "[a-z]",       "[",         "]",         "\\",        "back\\*",  "quote'\"",  "$HOME",  "`x`",
    ";",     ".hidden",     "..twodots", "...",       "~",         "\xFF\xFE", "\xC3\xA9t", "tab\tx", "a*b",
    "{a,b}", "name.tar.gz", "#",         "%s%n",      "&&",        "|",        "!",         "=",      "\x01"};

struct Trees : Files {
    void make_folder(const std::string &name) const { ASSERT_EQ(mkdir(path(name).c_str(), 0755), 0) << name; }
    void make_file(const std::string &name, const std::string &text = "text") const { write_file(path(name), text); }
    void make_link(const std::string &target, const std::string &name) const {
        ASSERT_EQ(symlink(target.c_str(), path(name).c_str()), 0) << name;
    }

    // A tree with every kind of entry under every treacherous name.
    void make_tree(const std::string &name) const {
        make_folder(name);
        for (const std::string &entry : kTreacherousNames) {
            make_folder(name + "/" + entry);
            make_file(name + "/" + entry + "/" + entry);
            make_link("nowhere", name + "/" + entry + "/" + "dangling" + entry);
            make_file(name + "/f" + entry, entry);
        }
        make_folder(name + "/empty");
        ASSERT_EQ(mkfifo(path(name + "/fifo").c_str(), 0600), 0);
    }

    bool exists(const std::string &name) const {
        struct stat status;
        return lstat(path(name).c_str(), &status) == 0;
    }
};

using RemoveDir = Trees;
using RemoveTree = Trees;
using CopyTree = Trees;
using MoveTree = Trees;

// What a tree holds: each entry's name, and its text, its target or its kind.
std::map<std::string, std::string> contents_of(const std::string &root) {
    std::map<std::string, std::string> contents;
    for (const fs::directory_entry &entry : fs::recursive_directory_iterator(root)) {
        const std::string name = entry.path().string().substr(root.size());
        if (entry.is_symlink()) {
            contents[name] = "link " + fs::read_symlink(entry.path()).string();
        } else if (entry.is_directory()) {
            contents[name] = "folder";
        } else if (entry.is_regular_file()) {
            contents[name] = "file " + read_file(entry.path().string());
        } else {
            contents[name] = "other";
        }
    }
    return contents;
}

} // namespace

TEST_F(RemoveDir, ATreeOfTreacherousNamesIsRemovedWhole) {
    make_tree("tree");
    EXPECT_EQ(platform_remove_dir(path("tree").c_str()), 1);
    EXPECT_FALSE(exists("tree"));
}

TEST_F(RemoveDir, ItStartsNoProgram) {
    make_tree("tree");
    EXPECT_EQ(forks_during([this] { platform_remove_dir(path("tree").c_str()); }), 0);
    EXPECT_FALSE(exists("tree"));
}

TEST_F(RemoveDir, ATreeUnderEachTreacherousNameIsRemovedAndItsNeighboursStay) {
    // As a pattern, each of these matches others of them.
    const std::vector<std::string> names = {"*",  "?",   "[a-z]", "a",  "a*b", "axb",
                                            "\\", "\\*", "-rf",   ".*", ".a",  "new\nline"};
    for (const std::string &name : names) {
        const ScratchFolder scratch;
        for (const std::string &neighbour : names) {
            fs::create_directory(scratch.path + "/" + neighbour);
            write_file(scratch.path + "/" + neighbour + "/inside", "mine");
            write_file(scratch.path + "/" + neighbour + "/.inside", "mine");
        }
        auto expected = contents_of(scratch.path);
        expected.erase("/" + name);
        expected.erase("/" + name + "/inside");
        expected.erase("/" + name + "/.inside");
        EXPECT_EQ(platform_remove_dir((scratch.path + "/" + name).c_str()), 1) << name;
        EXPECT_EQ(contents_of(scratch.path), expected) << name;
    }
}

TEST_F(RemoveDir, WhatLinksPointToIsNotTouched) {
    make_folder("outside");
    make_file("outside/precious", "do not lose me");
    make_folder("outside/folder");
    make_file("outside/folder/deep", "nor me");
    const auto before = contents_of(path("outside"));
    make_folder("tree");
    make_link("../outside", "tree/link to folder");
    make_link("../outside/precious", "tree/link to file");
    make_link("../outside/nothing", "tree/dangling");
    make_link(path("outside"), "tree/.absolute");
    make_link(".", "tree/self");
    make_link("..", "tree/parent");
    EXPECT_EQ(platform_remove_dir(path("tree").c_str()), 1);
    EXPECT_FALSE(exists("tree"));
    EXPECT_EQ(contents_of(path("outside")), before);
}

TEST_F(RemoveDir, APathThatIsItselfALinkIsLeftAlone) {
    make_folder("outside");
    make_file("outside/precious");
    make_link("outside", "link");
    EXPECT_EQ(platform_remove_dir(path("link").c_str()), 0);
    EXPECT_EQ(platform_remove_dir(path("link/").c_str()), 0);
    EXPECT_EQ(platform_remove_dir(path("link///").c_str()), 0);
    EXPECT_TRUE(exists("outside/precious"));
    EXPECT_TRUE(exists("link"));
}

TEST_F(RemoveDir, AFileAndAMissingPathAreNoDirectories) {
    make_file("file");
    EXPECT_EQ(platform_remove_dir(path("file").c_str()), 0);
    EXPECT_TRUE(exists("file"));
    EXPECT_EQ(platform_remove_dir(path("missing").c_str()), 0);
}

TEST_F(RemoveDir, HiddenFilesAloneAreRemovedWithTheirDirectory) {
    make_folder("tree");
    make_file("tree/.a");
    make_file("tree/..b");
    make_folder("tree/.c");
    make_file("tree/.c/.d");
    EXPECT_EQ(platform_remove_dir(path("tree").c_str()), 1);
    EXPECT_FALSE(exists("tree"));
}

TEST_F(RemoveDir, AnEmptyDirectoryIsRemovedAlsoWithASlashBehindIt) {
    make_folder("empty");
    EXPECT_EQ(platform_remove_dir(path("empty/").c_str()), 1);
    EXPECT_FALSE(exists("empty"));
}

TEST_F(RemoveDir, TheFirstEntryThatCannotBeRemovedStopsTheWalk) {
    make_folder("tree");
    make_file("tree/a");
    make_folder("tree/b");
    make_file("tree/b/kept");
    make_file("tree/c");
    make_file("tree/.z");
    ASSERT_EQ(chmod(path("tree/b").c_str(), 0555), 0);
    ASSERT_EQ(chmod(path("tree").c_str(), 0777), 0);
    ASSERT_EQ(chmod(folder.path.c_str(), 0777), 0);
    const Outcome outcome = run_in_child([this] {
        give_up_root();
        printf("%d", platform_remove_dir(path("tree").c_str()));
    });
    EXPECT_EQ(outcome.out, "0");
    EXPECT_FALSE(exists("tree/a")) << "what stood before it is gone";
    EXPECT_TRUE(exists("tree/b/kept"));
    EXPECT_TRUE(exists("tree/c")) << "what stands behind it stays";
    EXPECT_TRUE(exists("tree/.z")) << "hidden entries come after the others";
    ASSERT_EQ(chmod(path("tree/b").c_str(), 0755), 0);
}

TEST_F(RemoveDir, AFileThatCannotBeRemovedStopsTheWalk) {
    make_folder("tree");
    make_file("tree/a");
    make_file("tree/b");
    make_file("tree/c");
    const Interposed refusing(
        hook::remove, [this](const char *name) { return name == path("tree/b") ? -1 : hook::remove.real(name); });
    EXPECT_EQ(platform_remove_dir(path("tree").c_str()), 0);
    EXPECT_FALSE(exists("tree/a"));
    EXPECT_TRUE(exists("tree/b"));
    EXPECT_TRUE(exists("tree/c"));
}

TEST_F(RemoveDir, ADirectoryThatMayNotBeWrittenIsRefused) {
    make_folder("tree");
    make_file("tree/a");
    ASSERT_EQ(chmod(path("tree").c_str(), 0555), 0);
    ASSERT_EQ(chmod(folder.path.c_str(), 0777), 0);
    const Outcome outcome = run_in_child([this] {
        give_up_root();
        printf("%d", platform_remove_dir(path("tree").c_str()));
    });
    EXPECT_EQ(outcome.out, "0");
    EXPECT_TRUE(exists("tree/a"));
    ASSERT_EQ(chmod(path("tree").c_str(), 0755), 0);
}

TEST_F(RemoveDir, TwentyThousandEntriesAreRemoved) {
    make_folder("many");
    for (int entry = 0; entry < 20000; ++entry) {
        const int fd = open(path("many/" + std::to_string(entry)).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
        ASSERT_NE(fd, -1);
        close(fd);
    }
    EXPECT_EQ(platform_remove_dir(path("many").c_str()), 1);
    EXPECT_FALSE(exists("many"));
}

TEST_F(RemoveDir, ATreeOfManyLevelsIsRemoved) {
    std::string deep = "d";
    make_folder(deep);
    for (int level = 0; level < 500; ++level) {
        deep += "/d";
        make_folder(deep);
    }
    EXPECT_EQ(platform_remove_dir(path("d").c_str()), 1);
    EXPECT_FALSE(exists("d"));
}

TEST_F(RemoveDir, ATreeAsDeepAsAPathCanNameIsRemoved) {
    const std::string name(100, '*');
    std::string deep = name;
    make_folder(deep);
    while (path(deep).size() + name.size() < 4000) {
        deep += "/" + name;
        make_folder(deep);
    }
    EXPECT_EQ(platform_remove_dir(path(name).c_str()), 1);
    EXPECT_FALSE(exists(name));
}

TEST_F(RemoveDir, ADirectoryInTheWorkingDirectoryIsRemovedByItsBareName) {
    const Outcome outcome = run_in_child([this] {
        if (chdir(folder.path.c_str()) != 0 || mkdir("-rf", 0755) != 0) {
            exit(2);
        }
        write_file("-rf/file", "");
        printf("%d", platform_remove_dir("-rf"));
    });
    EXPECT_EQ(outcome.out, "1");
    EXPECT_FALSE(exists("-rf"));
}

TEST_F(RemoveTree, ATreeOfTreacherousNamesIsRemovedByTheTool) {
    make_tree("tree");
    int result = 0;
    EXPECT_EQ(forks_during([&] { result = platform_remove_tree(path("tree").c_str()); }), 1);
    EXPECT_EQ(result, 1);
    EXPECT_FALSE(exists("tree"));
}

TEST_F(RemoveTree, AMissingPathIsNoFailureOfTheTool) {
    EXPECT_EQ(platform_remove_tree(path("missing").c_str()), 1);
}

TEST_F(CopyTree, ACopyHoldsTheSameUnderTheSameNames) {
    make_tree("tree");
    EXPECT_EQ(platform_copy_tree(path("tree").c_str(), path("copy").c_str()), 1);
    EXPECT_EQ(contents_of(path("copy")), contents_of(path("tree")));
}

TEST_F(CopyTree, TimesPermissionsAndLargeSparseFilesAreKept) {
    make_folder("tree");
    make_file("tree/large");
    ASSERT_EQ(truncate(path("tree/large").c_str(), 5LL << 30), 0);
    ASSERT_EQ(chmod(path("tree/large").c_str(), 0640), 0);
    const timespec times[2] = {{.tv_sec = 2524608000, .tv_nsec = 0}, {.tv_sec = 2524608000, .tv_nsec = 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path("tree/large").c_str(), times, 0), 0);
    EXPECT_EQ(platform_copy_tree(path("tree").c_str(), path("copy").c_str()), 1);
    EXPECT_EQ(platform_file_size(path("copy/large").c_str()), 5LL << 30);
    EXPECT_EQ(platform_mtime(path("copy/large").c_str()), 2524608000);
    EXPECT_EQ(platform_file_stamp(path("copy/large").c_str()).mode & 07777, 0640U);
}

TEST_F(CopyTree, ASourceThatIsMissingIsAFailureThatTheToolExplains) {
    const Outcome outcome =
        run_in_child([this] { printf("%d", platform_copy_tree(path("missing").c_str(), path("copy").c_str())); });
    EXPECT_EQ(outcome.out, "0");
    EXPECT_NE(outcome.err.find("missing"), std::string::npos) << outcome.err;
}

TEST_F(MoveTree, ATreeIsMovedWithAllItHolds) {
    make_tree("tree");
    const auto before = contents_of(path("tree"));
    EXPECT_EQ(platform_move_tree(path("tree").c_str(), path("moved").c_str()), 1);
    EXPECT_FALSE(exists("tree"));
    EXPECT_EQ(contents_of(path("moved")), before);
}

TEST_F(MoveTree, APlainFileIsNotMovedAndNothingRuns) {
    make_file("file");
    int result = 1;
    EXPECT_EQ(forks_during([&] { result = platform_move_tree(path("file").c_str(), path("moved").c_str()); }), 0);
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(exists("file"));
    EXPECT_FALSE(exists("moved"));
}

TEST_F(MoveTree, ADirectoryThatMayNotBeWrittenIsNotMovedAndNothingRuns) {
    make_folder("tree");
    ASSERT_EQ(chmod(path("tree").c_str(), 0555), 0);
    ASSERT_EQ(chmod(folder.path.c_str(), 0777), 0);
    const Outcome outcome = run_in_child([this] {
        give_up_root();
        int result = 1;
        const int forks = forks_during([&] { result = platform_move_tree(path("tree").c_str(), path("m").c_str()); });
        printf("%d %d", result, forks);
    });
    EXPECT_EQ(outcome.out, "0 0");
    EXPECT_TRUE(exists("tree"));
}

TEST_F(RemoveDir, BothListsAreReleasedAlsoWhenAnEntryStopsTheWalk) {
    make_folder("tree");
    make_file("tree/a");
    const Interposed stuck(hook::remove, fail_always(hook::remove, EPERM, -1));
    int result = 1;
    EXPECT_EQ(blocks_left_by([&] { result = platform_remove_dir(path("tree").c_str()); }), 0);
    EXPECT_EQ(result, 0);
}

TEST_F(RemoveDir, ItKeepsNoStorageOfATreeOfSeveralLevels) {
    make_folder("tree");
    make_folder("tree/below");
    make_file("tree/below/file");
    make_file("tree/.hidden");
    EXPECT_EQ(blocks_left_by([this] { platform_remove_dir(path("tree").c_str()); }), 0);
    EXPECT_FALSE(exists("tree"));
}

TEST_F(RemoveDir, ADirectoryThatMayNotBeReadIsRemovedWhenItIsEmptyAndElseLeft) {
    make_folder("empty");
    make_folder("full");
    make_file("full/file");
    ASSERT_EQ(chmod(path("empty").c_str(), 0333), 0);
    ASSERT_EQ(chmod(path("full").c_str(), 0333), 0);
    open_to_all();
    const Outcome outcome = run_in_child([this] {
        give_up_root();
        printf("%d", platform_remove_dir(path("empty").c_str()));
        printf("%d", platform_remove_dir(path("full").c_str()));
    });
    EXPECT_EQ(outcome.out, "10");
    EXPECT_FALSE(exists("empty"));
    EXPECT_TRUE(exists("full/file"));
    ASSERT_EQ(chmod(path("full").c_str(), 0755), 0);
}

TEST_F(RemoveDir, AnEntryThatIsGoneMeanwhileIsNoFailure) {
    make_folder("tree");
    make_file("tree/a");
    make_file("tree/b");
    make_file("tree/c");
    const Interposed taking(hook::remove, [this](const char *name) {
        unlink(path("tree/b").c_str());
        return hook::remove.real(name);
    });
    EXPECT_EQ(platform_remove_dir(path("tree").c_str()), 1);
    EXPECT_FALSE(exists("tree"));
}

TEST_F(RemoveDir, AFolderBelowThatMayNotBeWrittenStopsTheWalkAlsoWhenItIsEmpty) {
    make_folder("tree");
    make_folder("tree/empty");
    make_file("tree/later");
    ASSERT_EQ(chmod(path("tree/empty").c_str(), 0555), 0);
    ASSERT_EQ(chmod(path("tree").c_str(), 0777), 0);
    open_to_all();
    const Outcome outcome = run_in_child([this] {
        give_up_root();
        printf("%d", platform_remove_dir(path("tree").c_str()));
    });
    EXPECT_EQ(outcome.out, "0");
    EXPECT_TRUE(exists("tree/empty"));
    EXPECT_TRUE(exists("tree/later"));
}

TEST_F(RemoveDir, ADirectoryThatIsEmptiedAndCannotItselfBeRemovedIsAFailure) {
    make_folder("tree");
    make_file("tree/file");
    ASSERT_EQ(chmod(path("tree").c_str(), 0777), 0);
    ASSERT_EQ(chmod(folder.path.c_str(), 0755), 0);
    const Outcome outcome = run_in_child([this] {
        if (geteuid() != 0 && chmod(folder.path.c_str(), 0555) != 0) {
            exit(2);
        }
        give_up_root();
        printf("%d", platform_remove_dir(path("tree").c_str()));
    });
    ASSERT_EQ(chmod(folder.path.c_str(), 0755), 0);
    EXPECT_EQ(outcome.out, "0");
    EXPECT_TRUE(exists("tree"));
    EXPECT_FALSE(exists("tree/file"));
}

TEST_F(RemoveDir, APathTooLongToBeNamedIsRefused) {
    EXPECT_EQ(platform_remove_dir(std::string(5000, 'd').c_str()), 0);
    std::string roundabout = folder.path;
    while (roundabout.size() <= 4096) {
        roundabout += "/.";
    }
    EXPECT_EQ(platform_remove_dir(roundabout.c_str()), 0);
    EXPECT_TRUE(exists("."));
}

TEST_F(RemoveDir, WithoutMemoryForThePatternTheProcessEnds) {
    make_folder("tree");
    const Outcome outcome = run_in_child([this] {
        const size_t size = 2 * path("tree").size() + 1;
        const Interposed failing(hook::malloc, [size](size_t asked) -> void * {
            return asked == size ? nullptr : hook::malloc.real(asked);
        });
        platform_remove_dir(path("tree").c_str());
    });
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "Error: platform_remove_dir: Not enough memory to allocate " +
                               std::to_string(2 * path("tree").size() + 1) + " bytes.\n");
    EXPECT_TRUE(exists("tree"));
}
