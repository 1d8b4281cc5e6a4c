// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Removal of a directory with all that it holds, in the process itself; and that nothing outside is ever touched.
#include <components/platform/file_control.h>

#include "file_trees_support.h"
#include <malloc/zel_malloc.h>
#include <support/child.h>
#include <support/files.h>
#include <support/interpose.h>

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <glob.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace zel::test;
namespace fs = std::filesystem;

namespace {

struct RemoveDir : Trees {
    // The result of the removal for a user whom permissions bind, as text.
    std::string remove_without_root(const std::string &name) const {
        open_to_all();
        const Outcome outcome = run_in_child([&] {
            give_up_root();
            printf("%d", platform_remove_dir(path(name).c_str()));
        });
        return outcome.out;
    }
};

} // namespace

TEST_F(RemoveDir, ATreeOfTreacherousNamesIsRemovedWhole) {
    make_tree("tree");
    EXPECT_EQ(platform_remove_dir(path("tree").c_str()), 1);
    EXPECT_FALSE(exists("tree"));
}

TEST_F(RemoveDir, RemovalStartsNoProgram) {
    make_tree("tree");
    EXPECT_EQ(forks_during([this] { platform_remove_dir(path("tree").c_str()); }), 0);
    EXPECT_FALSE(exists("tree"));
}

TEST_F(RemoveDir, ATreeUnderEachTreacherousNameIsRemovedAndItsNeighboursStay) {
    // As a pattern, each of these matches others of them.
    const std::vector<std::string> names = {"*",  "?",   "[a-z]", "a",  "a*b", "axb",
                                            "\\", "\\*", "-rf",   ".*", ".a",  "new\nline"};
    for (const std::string &name : names) {
        make_folder("names");
        for (const std::string &neighbour : names) {
            make_folder("names/" + neighbour);
            make_file("names/" + neighbour + "/inside");
            make_file("names/" + neighbour + "/.inside");
        }
        auto expected = contents_of(path("names"));
        expected.erase("/" + name);
        expected.erase("/" + name + "/inside");
        expected.erase("/" + name + "/.inside");
        EXPECT_EQ(platform_remove_dir(path("names/" + name).c_str()), 1) << name;
        EXPECT_EQ(contents_of(path("names")), expected) << name;
        fs::remove_all(path("names"));
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
    EXPECT_EQ(remove_without_root("tree"), "0");
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
    const Interposed refusing(hook::unlinkat, [](int fd, const char *name, int flags) {
        return std::string(name) == "b" ? -1 : hook::unlinkat.real(fd, name, flags);
    });
    EXPECT_EQ(platform_remove_dir(path("tree").c_str()), 0);
    EXPECT_FALSE(exists("tree/a"));
    EXPECT_TRUE(exists("tree/b"));
    EXPECT_TRUE(exists("tree/c"));
}

TEST_F(RemoveDir, ADirectoryThatMayNotBeWrittenIsRefused) {
    make_folder("tree");
    make_file("tree/a");
    ASSERT_EQ(chmod(path("tree").c_str(), 0555), 0);
    EXPECT_EQ(remove_without_root("tree"), "0");
    EXPECT_TRUE(exists("tree/a"));
    ASSERT_EQ(chmod(path("tree").c_str(), 0755), 0);
}

TEST_F(RemoveDir, TheRightsThatCountAreThoseOfTheRealUser) {
    make_folder("closed");
    make_file("closed/file");
    ASSERT_EQ(chmod(path("closed").c_str(), 0555), 0);
    make_folder("open");
    make_file("open/file");
    ASSERT_EQ(chmod(path("open").c_str(), 0777), 0);
    open_to_all();
    const Outcome outcome = run_in_child([this] {
        // As in a program that runs with its owner's rights; for a user without root's they are his own.
        if (geteuid() == 0 && setresuid(65534, 0, 0) != 0) {
            exit(2);
        }
        prctl(PR_SET_DUMPABLE, 0);
        printf("%d", platform_remove_dir(path("closed").c_str()));
        printf("%d", platform_remove_dir(path("open").c_str()));
    });
    EXPECT_EQ(outcome.out, "01");
    EXPECT_TRUE(exists("closed/file"));
    EXPECT_FALSE(exists("open"));
    ASSERT_EQ(chmod(path("closed").c_str(), 0755), 0);
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

TEST_F(RemoveDir, ADirectoryIsReachedByARelativePathFromWhereverItStands) {
    const Outcome outcome = run_in_child([this] {
        for (const std::string name : {"b", "./b/", "../a/b", ".././a//b//", "../a/c/../b"}) {
            make_folder("a");
            make_folder("a/b");
            make_folder("a/b/b");
            make_folder("a/c");
            make_file("a/b/file");
            const InFolder inside(path("a"));
            const int result = platform_remove_dir(name.c_str());
            printf("%d%d%d ", result, exists("a/b"), exists("a/c"));
            fs::remove_all(path("a"));
        }
    });
    EXPECT_EQ(outcome.out, "101 101 101 101 101 ");
}

TEST_F(RemoveDir, BothListsAreReleasedAlsoWhenAnEntryStopsTheWalk) {
    make_folder("tree");
    make_file("tree/a");
    const Interposed stuck(hook::unlinkat, fail_always(hook::unlinkat, EPERM, -1));
    int result = 1;
    EXPECT_EQ(blocks_left_by([&] { result = platform_remove_dir(path("tree").c_str()); }), 0);
    EXPECT_EQ(result, 0);
}

TEST_F(RemoveDir, RemovalKeepsNoStorageOfATreeOfSeveralLevels) {
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
    EXPECT_EQ(remove_without_root("empty"), "1");
    EXPECT_EQ(remove_without_root("full"), "0");
    EXPECT_FALSE(exists("empty"));
    EXPECT_TRUE(exists("full/file"));
    ASSERT_EQ(chmod(path("full").c_str(), 0755), 0);
}

TEST_F(RemoveDir, DirectoriesAreHeldWithoutBeingReadFollowedOrInherited) {
    make_folder("tree");
    make_folder("tree/below");
    std::vector<std::string> names;
    const Interposed holding(hook::openat, [&names](int fd, const char *name, int flags, mode_t mode) {
        const int hold = O_PATH | O_DIRECTORY | O_CLOEXEC;
        EXPECT_EQ(flags, names.empty() ? hold : hold | O_NOFOLLOW) << name;
        names.emplace_back(name);
        return hook::openat.real(fd, name, flags, mode);
    });
    EXPECT_EQ(platform_remove_dir(path("tree").c_str()), 1);
    EXPECT_EQ(names[0], folder.path);
    EXPECT_EQ(names[1], "tree");
    EXPECT_EQ(names[2], "below");
}

TEST_F(RemoveDir, AnEntryThatIsGoneMeanwhileIsNoFailure) {
    make_folder("tree");
    make_file("tree/a");
    make_file("tree/b");
    make_file("tree/c");
    const Interposed taking(hook::unlinkat, [this](int fd, const char *name, int flags) {
        unlink(path("tree/b").c_str());
        return hook::unlinkat.real(fd, name, flags);
    });
    EXPECT_EQ(platform_remove_dir(path("tree").c_str()), 1);
    EXPECT_FALSE(exists("tree"));
}

TEST_F(RemoveDir, OnlyWhatCannotBeUnlinkedIsLookedAt) {
    make_folder("tree");
    make_folder("tree/below");
    make_file("tree/below/file");
    make_file("tree/file");
    make_link("below", "tree/link");
    std::vector<std::string> looked_at;
    const Interposed looking(hook::fstatat, [&looked_at](int fd, const char *name, struct stat *status, int flags) {
        EXPECT_EQ(flags, AT_SYMLINK_NOFOLLOW) << name;
        looked_at.emplace_back(name);
        return hook::fstatat.real(fd, name, status, flags);
    });
    EXPECT_EQ(platform_remove_dir(path("tree").c_str()), 1);
    EXPECT_EQ(looked_at, std::vector<std::string>{"below"});
    EXPECT_FALSE(exists("tree"));
}

TEST_F(RemoveDir, ADirectoryBelowIsNoErrorThatStaysInErrno) {
    make_folder("tree");
    make_folder("tree/below");
    make_file("tree/below/file");
    make_file("tree/below/.hidden");
    make_file("tree/.hidden");
    errno = ERANGE;
    EXPECT_EQ(platform_remove_dir(path("tree").c_str()), 1);
    EXPECT_EQ(errno, ERANGE);
}

TEST_F(RemoveDir, AFolderBelowThatMayNotBeWrittenStopsTheWalkAlsoWhenItIsEmpty) {
    make_folder("tree");
    make_folder("tree/empty");
    make_file("tree/later");
    ASSERT_EQ(chmod(path("tree/empty").c_str(), 0555), 0);
    ASSERT_EQ(chmod(path("tree").c_str(), 0777), 0);
    EXPECT_EQ(remove_without_root("tree"), "0");
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

TEST_F(RemoveDir, WithoutMemoryForItsLevelsTheProcessEnds) {
    make_folder("tree");
    const Outcome outcome = run_in_child([this] {
        const Interposed failing(hook::malloc, fail_nth(hook::malloc, 0, ENOMEM, nullptr));
        platform_remove_dir(path("tree").c_str());
    });
    EXPECT_EQ(outcome.status, 1);
    const std::string report = "Error: platform_remove_dir: Not enough memory to allocate ";
    EXPECT_EQ(outcome.err.substr(0, report.size()), report);
    EXPECT_TRUE(exists("tree"));
}

TEST_F(RemoveDir, OnlyTheRecordsOfItsTwoExpansionsAreAllocationsOfTheProgram) {
    make_folder("tree");
    make_file("tree/file");
    const unsigned long before = zel_malloc_total_requested();
    EXPECT_EQ(platform_remove_dir(path("tree").c_str()), 1);
    EXPECT_EQ(zel_malloc_total_requested() - before, 2 * sizeof(glob_t));
}
