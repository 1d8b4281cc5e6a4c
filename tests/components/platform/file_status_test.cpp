// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Status and access tests, and small changes to files and directories.
#include <components/platform/file_control.h>

#include "file_support.h"
#include <components/platform/environment.h>
#include <support/child.h>
#include <support/files.h>
#include <support/interpose.h>

#include <cstdlib>
#include <gtest/gtest.h>
#include <pwd.h>
#include <string>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

using namespace zel::test;

namespace {

using FileStatus = Files;

} // namespace

TEST_F(FileStatus, WhatIsThereExistsByBothNames) {
    const std::string file = with_text("file");
    ASSERT_EQ(symlink("nowhere", path("dangling").c_str()), 0);
    for (const auto exists : {platform_exists, platform_file_exists}) {
        EXPECT_EQ(exists(file.c_str()), 1);
        EXPECT_EQ(exists(folder.path.c_str()), 1);
        EXPECT_EQ(exists(path("missing").c_str()), 0);
        EXPECT_EQ(exists(path("dangling").c_str()), 0);
    }
}

TEST_F(FileStatus, WhatMayNotBeReadExistsToo) {
    ASSERT_EQ(chmod(with_text("file").c_str(), 0), 0);
    open_to_all();
    const Outcome outcome = run_in_child([this] {
        give_up_root();
        printf("%d%d", platform_exists(path("file").c_str()), platform_file_exists(path("file").c_str()));
    });
    EXPECT_EQ(outcome.out, "11");
}

TEST_F(FileStatus, AccessIsThatOfTheProcess) {
    const std::string file = with_text("file");
    ASSERT_EQ(chmod(folder.path.c_str(), 0755), 0);
    const int modes[] = {0444, 0222, 0111, 0000, 0777};
    std::string expected;
    std::string seen;
    for (const int mode : modes) {
        ASSERT_EQ(chmod(file.c_str(), static_cast<mode_t>(mode)), 0);
        const Outcome outcome = run_in_child([&file] {
            give_up_root();
            printf("%d%d%d ", platform_is_readable(file.c_str()), platform_is_writable(file.c_str()),
                   platform_is_executable(file.c_str()));
        });
        seen += outcome.out;
    }
    EXPECT_EQ(seen, "100 010 001 000 111 ");
    EXPECT_EQ(platform_is_readable(path("missing").c_str()), 0);
    EXPECT_EQ(platform_is_writable(path("missing").c_str()), 0);
    EXPECT_EQ(platform_is_executable(path("missing").c_str()), 0);
}

TEST_F(FileStatus, OnlyADirectoryIsADirectory) {
    EXPECT_EQ(platform_is_dir(folder.path.c_str()), 1);
    EXPECT_EQ(platform_is_dir(with_text("file").c_str()), 0);
    EXPECT_EQ(platform_is_dir(path("missing").c_str()), 0);
    ASSERT_EQ(symlink(".", path("link").c_str()), 0);
    EXPECT_EQ(platform_is_dir(path("link").c_str()), 1);
    EXPECT_EQ(platform_is_dir("/dev/null"), 0);
}

TEST_F(FileStatus, TheModificationTimeIsInSecondsAlsoAfter2038) {
    const std::string file = with_text("file");
    set_times(file, 1, kIn2050);
    EXPECT_EQ(platform_mtime(file.c_str()), kIn2050);
    set_times(file, 1, 1000000000);
    EXPECT_EQ(platform_mtime(file.c_str()), 1000000000);
    set_times(file, 1, -5);
    EXPECT_EQ(platform_mtime(file.c_str()), -5) << "before 1970";
    EXPECT_EQ(platform_mtime(path("missing").c_str()), 0);
}

TEST_F(FileStatus, TheSizeIsInBytesAlsoAboveFourGibibytes) {
    EXPECT_EQ(platform_file_size(with_text("file", "12345").c_str()), 5);
    make_sparse(path("large"), 5LL << 30);
    EXPECT_EQ(platform_file_size(path("large").c_str()), 5LL << 30);
    EXPECT_EQ(platform_file_size(path("missing").c_str()), -1);
}

TEST_F(FileStatus, TheOwnerIsTheLoginNameOfTheUserDatabase) {
    const passwd *self = getpwuid(geteuid());
    const std::string name = self == nullptr ? "" : self->pw_name; // a user of a container may have no entry
    EXPECT_STREQ(platform_file_owner(with_text("file").c_str()), self == nullptr ? nullptr : name.c_str());
    EXPECT_EQ(platform_file_owner(path("missing").c_str()), nullptr);
}

TEST_F(FileStatus, AnOwnerWithoutAnEntryIsNull) {
    const Interposed unknown(hook::getpwuid, [](uid_t) -> passwd * { return nullptr; });
    EXPECT_EQ(platform_file_owner(with_text("file").c_str()), nullptr);
}

TEST_F(FileStatus, TheOwnerIsAskedForByTheUsersNumber) {
    const std::string file = path_of_other_group();
    struct stat status;
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    uid_t asked = status.st_uid + 1;
    static char name[] = "somebody";
    const Interposed answering(hook::getpwuid, [&asked](uid_t user) {
        static passwd entry;
        asked = user;
        entry.pw_name = name;
        return &entry;
    });
    EXPECT_EQ(platform_file_owner(file.c_str()), name) << "the entry's own text and no copy";
    EXPECT_EQ(asked, status.st_uid);
}

TEST_F(FileStatus, AFileIsRemovedOnceAndThenItDoesNotExist) {
    const std::string file = with_text("file");
    EXPECT_EQ(platform_remove_file(file.c_str()), 1);
    EXPECT_EQ(access(file.c_str(), F_OK), -1);
    EXPECT_EQ(platform_remove_file(file.c_str()), 0);
}

TEST_F(FileStatus, ALinkThatPointsNowhereIsRemoved) {
    ASSERT_EQ(symlink("nowhere", path("dangling").c_str()), 0);
    EXPECT_EQ(platform_remove_file(path("dangling").c_str()), 1);
    struct stat status;
    EXPECT_EQ(lstat(path("dangling").c_str(), &status), -1);
}

TEST_F(FileStatus, ADirectoryThatIsNotEmptyIsNoFileToRemove) {
    ASSERT_EQ(mkdir(path("full").c_str(), 0755), 0);
    with_text("full/file");
    EXPECT_EQ(platform_remove_file(path("full").c_str()), 0);
    EXPECT_EQ(platform_exists(path("full/file").c_str()), 1);
}

TEST_F(FileStatus, RenamingMovesTheNameAndSaysWhetherItDid) {
    const std::string file = with_text("file", "text");
    EXPECT_EQ(platform_rename(file.c_str(), path("other").c_str()), 1);
    EXPECT_EQ(read_file(path("other")), "text");
    EXPECT_EQ(platform_rename(file.c_str(), path("third").c_str()), 0);
}

TEST_F(FileStatus, ADirectoryIsMadeWithAllPermissionsThatTheMaskLeaves) {
    for (const auto make : {platform_mkdir, platform_make_dir}) {
        for (const mode_t mask : {mode_t{0}, mode_t{027}}) {
            const mode_t before = umask(mask);
            EXPECT_EQ(make(path("made").c_str()), 1);
            umask(before);
            struct stat status;
            ASSERT_EQ(stat(path("made").c_str(), &status), 0);
            EXPECT_EQ(status.st_mode & 07777, 0777U & ~mask);
            EXPECT_EQ(make(path("made").c_str()), 0) << "it is there already";
            EXPECT_EQ(platform_rmdir(path("made").c_str()), 1);
        }
    }
}

TEST_F(FileStatus, OnlyAnEmptyDirectoryIsRemovedByItself) {
    ASSERT_EQ(mkdir(path("full").c_str(), 0755), 0);
    with_text("full/file");
    EXPECT_EQ(platform_rmdir(path("full").c_str()), 0);
    EXPECT_EQ(platform_rmdir(path("missing").c_str()), 0);
    EXPECT_EQ(platform_rmdir(with_text("file").c_str()), 0);
}

TEST_F(FileStatus, FreeSpaceIsWhatUnprivilegedProcessesMayStillWrite) {
    EXPECT_EQ(platform_free_space("/proc"), 0) << "a file system without blocks";
    std::string asked;
    const Interposed answering(hook::statvfs, [&asked](const char *path, struct statvfs *status) {
        asked = path;
        *status = {};
        status->f_bsize = 1 << 20;
        status->f_frsize = 4096;
        status->f_blocks = 1LL << 36;
        status->f_bfree = 1LL << 34;
        status->f_bavail = (1LL << 33) + 5;
        return 0;
    });
    EXPECT_EQ(platform_free_space("some/path"), (1LL << 45) + 5 * 4096);
    EXPECT_EQ(asked, "some/path");
}

TEST_F(FileStatus, FreeSpaceThatExceedsTheResultIsTheMostThatItHolds) {
    uint64_t size = 0;
    uint64_t count = 0;
    const Interposed answering(hook::statvfs, [&](const char *, struct statvfs *status) {
        *status = {};
        status->f_frsize = static_cast<unsigned long>(size);
        status->f_bavail = count;
        return 0;
    });
    const auto seen = [&](uint64_t f_frsize, uint64_t f_bavail) {
        size = f_frsize;
        count = f_bavail;
        return platform_free_space("some/path");
    };
    EXPECT_EQ(seen(1, UINT64_MAX), INT64_MAX) << "its bytes are those of -1";
    EXPECT_EQ(seen(2, INT64_MAX), INT64_MAX) << "and these those of -2";
    EXPECT_EQ(seen(4096, UINT64_MAX), INT64_MAX);
    EXPECT_EQ(seen(4096, INT64_MAX / 4096 + 1), INT64_MAX);
    EXPECT_EQ(seen(4096, INT64_MAX / 4096), INT64_MAX / 4096 * 4096);
    EXPECT_EQ(seen(1, INT64_MAX), INT64_MAX);
    EXPECT_EQ(seen(0, UINT64_MAX), 0);
}

TEST_F(FileStatus, FreeSpaceOfARealFileSystemIsNeitherNoneNorMoreThanItHas) {
    struct statvfs status;
    ASSERT_EQ(statvfs(folder.path.c_str(), &status), 0);
    const int64_t seen = platform_free_space(folder.path.c_str());
    EXPECT_GT(seen, 0);
    EXPECT_LE(seen, static_cast<int64_t>(uint64_t{status.f_frsize} * status.f_blocks));
}

TEST_F(FileStatus, FreeSpaceOfNoPathAndOfAPathThatCannotBeAsked) {
    EXPECT_EQ(platform_free_space(nullptr), -1);
    EXPECT_EQ(platform_free_space(""), -1);
    EXPECT_EQ(platform_free_space(path("missing").c_str()), -2);
}

TEST_F(FileStatus, ANullPathDoesNotExist) {
    EXPECT_EQ(platform_exists(nullptr), 0);
    EXPECT_EQ(platform_is_readable(nullptr), 0);
    EXPECT_EQ(platform_is_writable(nullptr), 0);
    EXPECT_EQ(platform_is_executable(nullptr), 0);
    EXPECT_EQ(platform_is_dir(nullptr), 0);
    EXPECT_EQ(platform_is_writable_dir(nullptr), 0);
    EXPECT_EQ(platform_mtime(nullptr), 0);
    EXPECT_EQ(platform_file_size(nullptr), -1);
    EXPECT_EQ(platform_file_owner(nullptr), nullptr);
    EXPECT_EQ(platform_remove_file(nullptr), 0);
    EXPECT_EQ(platform_rename(nullptr, "x"), 0);
    EXPECT_EQ(platform_rename("x", nullptr), 0);
    EXPECT_EQ(platform_mkdir(nullptr), 0);
    EXPECT_EQ(platform_rmdir(nullptr), 0);
    EXPECT_EQ(platform_copy_file(nullptr, "x"), 0);
    EXPECT_EQ(platform_copy_file(with_text("file").c_str(), nullptr), 0);
    EXPECT_EQ(platform_stamp_valid(platform_file_stamp(nullptr)), 0);
}

TEST_F(FileStatus, RemovingALinkLeavesWhatItPointsTo) {
    const std::string file = with_text("file", "text");
    ASSERT_EQ(symlink("file", path("link").c_str()), 0);
    EXPECT_EQ(platform_remove_file(path("link").c_str()), 1);
    EXPECT_EQ(read_file(file), "text");
    ASSERT_EQ(mkdir(path("empty").c_str(), 0755), 0);
    EXPECT_EQ(platform_remove_file(path("empty").c_str()), 1);
    EXPECT_EQ(platform_exists(path("empty").c_str()), 0);
}
