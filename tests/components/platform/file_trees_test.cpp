// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Trees on a real file system, left to the tools of the system: removed, copied, moved.
#include <components/platform/file_control.h>

#include "file_trees_support.h"
#include <support/child.h>
#include <support/files.h>

#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

using namespace zel::test;

namespace {

using RemoveTree = Trees;
using CopyTree = Trees;
using MoveTree = Trees;

} // namespace

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
    make_sparse(path("tree/large"), 5LL << 30);
    ASSERT_EQ(chmod(path("tree/large").c_str(), 0640), 0);
    set_times(path("tree/large"), kIn2050, kIn2050);
    EXPECT_EQ(platform_copy_tree(path("tree").c_str(), path("copy").c_str()), 1);
    EXPECT_EQ(platform_file_size(path("copy/large").c_str()), 5LL << 30);
    EXPECT_EQ(platform_mtime(path("copy/large").c_str()), kIn2050);
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
    open_to_all();
    const Outcome outcome = run_in_child([this] {
        give_up_root();
        int result = 1;
        const int forks = forks_during([&] { result = platform_move_tree(path("tree").c_str(), path("m").c_str()); });
        printf("%d %d", result, forks);
    });
    EXPECT_EQ(outcome.out, "0 0");
    EXPECT_TRUE(exists("tree"));
}
