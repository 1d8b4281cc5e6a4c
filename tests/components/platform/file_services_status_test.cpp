// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The status of a file in full width.
#include "file_services_support.h"

#include <components/platform/file_services.h>
#include <support/interpose.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace zel::test;

namespace {

using FullStatus = Files;

PlatformFileStatus status_of(const std::string &path) {
    PlatformFileStatus status = {};
    EXPECT_EQ(platform_file_status(path.c_str(), &status), 1) << path;
    return status;
}

// Whether a change of one field is seen.
template <typename Field>
bool is_seen(Field PlatformFileStatus::*field) {
    const PlatformFileStatus before = {};
    PlatformFileStatus after = before;
    after.*field += 1;
    return platform_file_status_differs(&before, &after) == 1 && platform_file_status_differs(&after, &before) == 1;
}

} // namespace

TEST_F(FullStatus, IsWhatTheSystemSays) {
    const std::string file = with_text("file", "text");
    ASSERT_EQ(link(file.c_str(), path("name").c_str()), 0);
    ASSERT_EQ(chmod(file.c_str(), 0640), 0);
    const timespec times[2] = {{.tv_sec = 1, .tv_nsec = 2}, {.tv_sec = kIn2050, .tv_nsec = 123'456'789}};
    ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
    struct stat expected = {};
    ASSERT_EQ(stat(file.c_str(), &expected), 0);
    const PlatformFileStatus status = status_of(file);
    EXPECT_EQ(status.size, 4);
    EXPECT_EQ(status.modify_seconds, expected.st_mtim.tv_sec);
    EXPECT_EQ(status.modify_nanoseconds, expected.st_mtim.tv_nsec);
    EXPECT_EQ(status.change_seconds, expected.st_ctim.tv_sec);
    EXPECT_EQ(status.change_nanoseconds, expected.st_ctim.tv_nsec);
    EXPECT_EQ(status.device, expected.st_dev);
    EXPECT_EQ(status.inode, expected.st_ino);
    EXPECT_EQ(status.mode, S_IFREG | 0640U);
    EXPECT_EQ(status.owner, getuid());
    EXPECT_EQ(status.group, expected.st_gid);
    EXPECT_EQ(status.links, 2U);
}

TEST_F(FullStatus, HoldsNumbersOf64Bits) {
    const Interposed telling(hook::stat, [](const char *, struct stat *status) {
        *status = {};
        status->st_size = INT64_MAX;
        status->st_ino = UINT64_MAX;
        status->st_dev = UINT64_MAX - 1;
        status->st_mtim = {.tv_sec = -(int64_t{1} << 40), .tv_nsec = 999'999'999};
        status->st_ctim = {.tv_sec = int64_t{1} << 40, .tv_nsec = 1};
        return 0;
    });
    const PlatformFileStatus status = status_of("any");
    EXPECT_EQ(status.size, INT64_MAX);
    EXPECT_EQ(status.inode, UINT64_MAX);
    EXPECT_EQ(status.device, UINT64_MAX - 1);
    EXPECT_EQ(status.modify_seconds, -(int64_t{1} << 40));
    EXPECT_EQ(status.modify_nanoseconds, 999'999'999U);
    EXPECT_EQ(status.change_seconds, int64_t{1} << 40);
    EXPECT_EQ(status.change_nanoseconds, 1U);
}

TEST_F(FullStatus, OfAFileAboveFourGigabytesIsWhole) {
    make_sparse(path("file"), 5'000'000'001);
    EXPECT_EQ(status_of(path("file")).size, 5'000'000'001);
}

TEST_F(FullStatus, FollowsLinks) {
    const std::string file = with_text("file", "text");
    ASSERT_EQ(symlink("file", path("link").c_str()), 0);
    EXPECT_EQ(status_of(path("link")).inode, status_of(file).inode);
}

TEST_F(FullStatus, IsLeftAsItWasWhenThereIsNoFile) {
    PlatformFileStatus status;
    memset(&status, '~', sizeof status);
    const PlatformFileStatus before = status;
    EXPECT_EQ(platform_file_status(path("missing").c_str(), &status), 0);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(platform_file_status(nullptr, &status), 0);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(memcmp(&status, &before, sizeof status), 0);
}

TEST_F(FullStatus, DiffersWhenTheFileChangedWithinOneSecond) {
    const std::string file = with_text("file", "text");
    const timespec times[2] = {{.tv_sec = 5, .tv_nsec = 0}, {.tv_sec = 5, .tv_nsec = 0}};
    const timespec later[2] = {{.tv_sec = 5, .tv_nsec = 0}, {.tv_sec = 5, .tv_nsec = 1}};
    ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
    PlatformFileStatus before = status_of(file);
    EXPECT_EQ(platform_file_status_differs(&before, &before), 0);
    ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), later, 0), 0);
    PlatformFileStatus after = status_of(file);
    after.change_seconds = before.change_seconds;
    after.change_nanoseconds = before.change_nanoseconds;
    EXPECT_EQ(platform_file_status_differs(&before, &after), 1);
}

TEST_F(FullStatus, DiffersByWhatTellsFilesAndTheirContentsApart) {
    EXPECT_TRUE(is_seen(&PlatformFileStatus::size));
    EXPECT_TRUE(is_seen(&PlatformFileStatus::device));
    EXPECT_TRUE(is_seen(&PlatformFileStatus::inode));
    EXPECT_TRUE(is_seen(&PlatformFileStatus::modify_seconds));
    EXPECT_TRUE(is_seen(&PlatformFileStatus::modify_nanoseconds));
    EXPECT_TRUE(is_seen(&PlatformFileStatus::change_seconds));
    EXPECT_TRUE(is_seen(&PlatformFileStatus::change_nanoseconds));
    EXPECT_FALSE(is_seen(&PlatformFileStatus::links)); // such a change changes the time of change too
}
