// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Status and access tests, stamps, and small changes to files and directories.
#include <components/platform/file_control.h>

#include <components/platform/environment.h>
#include <support/child.h>
#include <support/files.h>
#include <support/interpose.h>

#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/un.h>
#include <unistd.h>

using namespace zel::test;

namespace {

struct FileStatus : testing::Test {
    std::string path(const char *name) const { return folder.path + "/" + name; }
    std::string with_text(const char *name, const std::string &text = "") const {
        write_file(path(name), text);
        return path(name);
    }
    ScratchFolder folder;
};

using FileStampTest = FileStatus;
using ModeTest = FileStatus;

void set_times(const std::string &path, int64_t access, int64_t modify) {
    const timespec times[2] = {{.tv_sec = access, .tv_nsec = 0}, {.tv_sec = modify, .tv_nsec = 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

constexpr int64_t kIn2050 = 2524608000; // does not fit 31 bits

// Sets a file's size without storing it.
void make_sparse(const std::string &path, int64_t size) {
    write_file(path, "");
    ASSERT_EQ(truncate(path.c_str(), size), 0);
}

bool differ_in(uint32_t FileStamp::*word) {
    FileStamp a = {};
    a.check = 0x404040;
    FileStamp b = a;
    b.*word += 1;
    return platform_stamps_differ(a, b) == 1 && platform_stamps_differ(b, a) == 1;
}

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

TEST_F(FileStatus, AccessIsThatOfTheProcess) {
    const std::string file = with_text("file");
    ASSERT_EQ(chmod(folder.path.c_str(), 0755), 0);
    const int modes[] = {0444, 0222, 0111, 0000, 0777};
    std::string expected;
    std::string seen;
    for (const int mode : modes) {
        ASSERT_EQ(chmod(file.c_str(), static_cast<mode_t>(mode)), 0);
        const Outcome outcome = run_in_child([&file] {
            if (geteuid() == 0 && setuid(65534) != 0) {
                exit(2);
            }
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

TEST_F(FileStatus, OnlyADirectoryIsOne) {
    EXPECT_EQ(platform_is_dir(folder.path.c_str()), 1);
    EXPECT_EQ(platform_is_dir(with_text("file").c_str()), 0);
    EXPECT_EQ(platform_is_dir(path("missing").c_str()), 0);
    ASSERT_EQ(symlink(".", path("link").c_str()), 0);
    EXPECT_EQ(platform_is_dir(path("link").c_str()), 1);
}

TEST_F(FileStatus, TheModificationTimeIsInSecondsAlsoAfter2038) {
    const std::string file = with_text("file");
    set_times(file, 1, kIn2050);
    EXPECT_EQ(platform_mtime(file.c_str()), kIn2050);
    set_times(file, 1, 1000000000);
    EXPECT_EQ(platform_mtime(file.c_str()), 1000000000);
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
    ASSERT_NE(self, nullptr);
    const std::string name = self->pw_name;
    EXPECT_STREQ(platform_file_owner(with_text("file").c_str()), name.c_str());
    EXPECT_EQ(platform_file_owner(path("missing").c_str()), nullptr);
}

TEST_F(FileStatus, AnOwnerWithoutAnEntryIsNull) {
    const Interposed unknown(hook::getpwuid, [](uid_t) -> passwd * { return nullptr; });
    EXPECT_EQ(platform_file_owner(with_text("file").c_str()), nullptr);
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
    const mode_t before = umask(027);
    for (const auto make : {platform_mkdir, platform_make_dir}) {
        EXPECT_EQ(make(path("made").c_str()), 1);
        struct stat status;
        ASSERT_EQ(stat(path("made").c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, 0750U);
        EXPECT_EQ(make(path("made").c_str()), 0) << "it is there already";
        EXPECT_EQ(platform_rmdir(path("made").c_str()), 1);
    }
    umask(before);
}

TEST_F(FileStatus, OnlyAnEmptyDirectoryIsRemovedByItself) {
    ASSERT_EQ(mkdir(path("full").c_str(), 0755), 0);
    with_text("full/file");
    EXPECT_EQ(platform_rmdir(path("full").c_str()), 0);
    EXPECT_EQ(platform_rmdir(path("missing").c_str()), 0);
    EXPECT_EQ(platform_rmdir(with_text("file").c_str()), 0);
}

TEST_F(FileStatus, FreeSpaceIsWhatUnprivilegedProcessesMayStillWrite) {
    struct statvfs status;
    ASSERT_EQ(statvfs("/proc", &status), 0);
    EXPECT_EQ(platform_free_space("/proc"), 0) << "a file system without blocks";
    ASSERT_EQ(statvfs(folder.path.c_str(), &status), 0);
    const auto expected = static_cast<int64_t>(uint64_t{status.f_frsize} * status.f_bavail);
    const int64_t seen = platform_free_space(folder.path.c_str());
    // Others write to the same disk meanwhile.
    EXPECT_NEAR(static_cast<double>(seen), static_cast<double>(expected), 0.02 * static_cast<double>(expected) + 1e9);
    EXPECT_GT(seen, 0);
}

TEST_F(FileStatus, FreeSpaceOfNoPathAndOfAPathThatCannotBeAsked) {
    EXPECT_EQ(platform_free_space(nullptr), -1);
    EXPECT_EQ(platform_free_space(""), -1);
    EXPECT_EQ(platform_free_space(path("missing").c_str()), -2);
}

TEST_F(FileStampTest, ItHoldsTheStatusInElevenWords) {
    const std::string file = with_text("file", "12345");
    set_times(file, 1000000001, 1000000002);
    struct stat status;
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    const FileStamp stamp = platform_file_stamp(file.c_str());
    uint32_t words[11];
    static_assert(sizeof words == sizeof stamp);
    memcpy(words, &stamp, sizeof words);
    EXPECT_EQ(words[0], status.st_gid);
    EXPECT_EQ(words[1], static_cast<uint32_t>(status.st_ctime));
    EXPECT_EQ(words[2], 1000000002U);
    EXPECT_EQ(words[3], 1000000001U);
    EXPECT_EQ(words[4], static_cast<uint32_t>(status.st_dev));
    EXPECT_EQ(words[5], static_cast<uint32_t>(status.st_ino));
    EXPECT_EQ(words[6], status.st_mode);
    EXPECT_EQ(words[7], 5U);
    EXPECT_EQ(words[8], 0U);
    EXPECT_EQ(words[9], 5U ^ 0x404040U);
    EXPECT_EQ(words[10], 0U);
}

TEST_F(FileStampTest, LargeSizesAndLateTimesKeepTheirLowWords) {
    make_sparse(path("large"), (5LL << 30) + 7);
    set_times(path("large"), 1, kIn2050 + (1LL << 32));
    const FileStamp stamp = platform_file_stamp(path("large").c_str());
    EXPECT_EQ(stamp.size_low, (1U << 30) + 7);
    EXPECT_EQ(stamp.size_high, 1U);
    EXPECT_EQ(stamp.check, ((1U << 30) + 7) ^ 0x404040U);
    EXPECT_EQ(stamp.modify_time, static_cast<uint32_t>(kIn2050));
}

TEST(FileStamp, TheFirstWordIsTheGroupAndNotTheOwner) {
    struct stat status = {};
    std::string found;
    for (const char *path : {"/etc/shadow", "/dev/tty", "/var/mail", "/var/local"}) {
        if (stat(path, &status) == 0 && status.st_uid != status.st_gid) {
            found = path;
            break;
        }
    }
    ASSERT_FALSE(found.empty()) << "no file whose owner and group have different numbers";
    EXPECT_EQ(platform_file_stamp(found.c_str()).group, status.st_gid);
}

TEST_F(FileStampTest, PathDescriptorAndStreamGiveTheSame) {
    const std::string file = with_text("file", "text");
    FILE *stream = fopen(file.c_str(), "r");
    ASSERT_NE(stream, nullptr);
    const FileStamp stamp = platform_file_stamp(file.c_str());
    const FileStamp by_fd = platform_fd_stamp(fileno(stream));
    const FileStamp by_stream = platform_stream_stamp(stream);
    EXPECT_EQ(memcmp(&stamp, &by_fd, sizeof stamp), 0);
    EXPECT_EQ(memcmp(&stamp, &by_stream, sizeof stamp), 0);
    EXPECT_EQ(platform_fd_changed(fileno(stream), stamp), 0);
    EXPECT_EQ(platform_stream_changed(stream, stamp), 0);
    fclose(stream);
}

TEST_F(FileStampTest, WithoutAStatusAllWordsAreZeroAndItIsNotValid) {
    const FileStamp none = {};
    for (const FileStamp &stamp : {platform_file_stamp(path("missing").c_str()), platform_fd_stamp(-1)}) {
        EXPECT_EQ(memcmp(&stamp, &none, sizeof none), 0);
        EXPECT_EQ(platform_stamp_valid(stamp), 0);
    }
}

TEST_F(FileStampTest, ValidityIsTheCheckWordAndTheZero) {
    FileStamp stamp = platform_file_stamp(folder.path.c_str());
    EXPECT_EQ(platform_stamp_valid(stamp), 1);
    stamp.zero = 1;
    EXPECT_EQ(platform_stamp_valid(stamp), 0);
    stamp.zero = 0;
    stamp.check ^= 1;
    EXPECT_EQ(platform_stamp_valid(stamp), 0);
}

TEST_F(FileStampTest, EachWordButTheAccessTimeAndTheCheckWordsCounts) {
    EXPECT_TRUE(differ_in(&FileStamp::group));
    EXPECT_TRUE(differ_in(&FileStamp::change_time));
    EXPECT_TRUE(differ_in(&FileStamp::modify_time));
    EXPECT_FALSE(differ_in(&FileStamp::access_time));
    EXPECT_TRUE(differ_in(&FileStamp::device));
    EXPECT_TRUE(differ_in(&FileStamp::inode));
    EXPECT_TRUE(differ_in(&FileStamp::mode));
    EXPECT_TRUE(differ_in(&FileStamp::size_low));
    EXPECT_TRUE(differ_in(&FileStamp::size_high));
    EXPECT_FALSE(differ_in(&FileStamp::check));
    EXPECT_FALSE(differ_in(&FileStamp::zero));
}

TEST_F(FileStampTest, ReadingIsNoChange) {
    const std::string file = with_text("file", "text");
    const FileStamp stamp = platform_file_stamp(file.c_str());
    EXPECT_EQ(read_file(file), "text");
    EXPECT_EQ(platform_file_changed(file.c_str(), stamp), 0);
}

TEST_F(FileStampTest, OneByteMoreIsAChange) {
    const std::string file = with_text("file", "text");
    const FileStamp stamp = platform_file_stamp(file.c_str());
    write_file(file, "text!");
    EXPECT_EQ(platform_file_changed(file.c_str(), stamp), 1);
    const int fd = open(file.c_str(), O_RDONLY);
    EXPECT_EQ(platform_fd_changed(fd, stamp), 1);
    close(fd);
}

TEST_F(FileStampTest, AFileThatIsGoneHasChanged) {
    const std::string file = with_text("file");
    const FileStamp stamp = platform_file_stamp(file.c_str());
    ASSERT_EQ(unlink(file.c_str()), 0);
    EXPECT_EQ(platform_file_changed(file.c_str(), stamp), 1);
}

TEST_F(ModeTest, TheLowBitsChooseTheKind) {
    const std::string socket_path = path("socket");
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, socket_path.c_str(), socket_path.size() + 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    close(fd);
    const FileStamp stamps[] = {platform_file_stamp(with_text("file").c_str()),
                                platform_file_stamp(folder.path.c_str()), platform_file_stamp(socket_path.c_str())};
    for (uint32_t kind = 0; kind < 3; ++kind) {
        EXPECT_EQ(platform_mode_test(stamps[kind], 0), 1);
        for (uint32_t asked = 1; asked <= 3; ++asked) {
            EXPECT_EQ(platform_mode_test(stamps[kind], asked), asked == kind + 1 ? 1 : 0) << kind << " " << asked;
        }
    }
}

TEST_F(ModeTest, AllPermissionsAskedForMustBeThereForTheOwner) {
    const std::string file = with_text("file");
    for (uint32_t owner = 0; owner < 8; ++owner) {
        // The others have what the owner has not: theirs must not count.
        const auto mode = static_cast<mode_t>(owner << 6 | (~owner & 7) << 3 | (~owner & 7));
        ASSERT_EQ(chmod(file.c_str(), mode), 0);
        const uint32_t has =
            ((owner & 4) != 0 ? 0x100U : 0) | ((owner & 2) != 0 ? 0x200U : 0) | ((owner & 1) != 0 ? 0x400U : 0);
        const FileStamp stamp = platform_file_stamp(file.c_str());
        for (uint32_t asked = 0; asked <= 0x700; asked += 0x100) {
            EXPECT_EQ(platform_mode_test(stamp, asked), (asked & ~has) == 0 ? 1 : 0) << owner << " " << asked;
            EXPECT_EQ(platform_mode_test(stamp, asked | 1), (asked & ~has) == 0 ? 1 : 0);
            EXPECT_EQ(platform_mode_test(stamp, asked | 2), 0);
        }
    }
}

TEST_F(ModeTest, OtherBitsOfTheFlagsDoNotCount) {
    const FileStamp stamp = platform_file_stamp(folder.path.c_str());
    EXPECT_EQ(platform_mode_test(stamp, 0xFFFFF8FC), 1);
}

TEST_F(FileStampTest, AStreamWhoseFileHasGrownHasChanged) {
    const std::string file = with_text("file", "text");
    FILE *stream = fopen(file.c_str(), "a");
    ASSERT_NE(stream, nullptr);
    const FileStamp stamp = platform_stream_stamp(stream);
    fputs("more", stream);
    fflush(stream);
    EXPECT_EQ(platform_stream_changed(stream, stamp), 1);
    fclose(stream);
}

TEST_F(FileStampTest, AFileThatWasMissingAndIsHasNotChanged) {
    const FileStamp stamp = platform_file_stamp(path("missing").c_str());
    EXPECT_EQ(platform_file_changed(path("missing").c_str(), stamp), 0);
    const FileStamp none = platform_stream_stamp(nullptr);
    EXPECT_EQ(platform_stamp_valid(none), 0);
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
    EXPECT_EQ(platform_copy_file("x", nullptr), 0);
    EXPECT_EQ(platform_stamp_valid(platform_file_stamp(nullptr)), 0);
}
