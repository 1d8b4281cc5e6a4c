// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Stamps: what they hold, how they are compared, and the test of their mode.
#include <components/platform/file_control.h>

#include "file_support.h"
#include <support/files.h>

#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using namespace zel::test;

namespace {

using FileStampTest = Files;
using ModeTest = Files;

bool differ_in(uint32_t FileStamp::*word) {
    FileStamp a = {};
    a.check = 0x404040;
    FileStamp b = a;
    b.*word += 1;
    return platform_stamps_differ(a, b) == 1 && platform_stamps_differ(b, a) == 1;
}

} // namespace

TEST_F(FileStampTest, AStampHoldsTheStatusInElevenWords) {
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
    const std::string found = path_of_other_group();
    struct stat status;
    ASSERT_EQ(stat(found.c_str(), &status), 0);
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

TEST_F(FileStampTest, WithoutAStatusAllWordsAreZeroAndTheStampIsNotValid) {
    const FileStamp none = {};
    for (const FileStamp &stamp :
         {platform_file_stamp(path("missing").c_str()), platform_fd_stamp(-1), platform_stream_stamp(nullptr)}) {
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
        EXPECT_EQ(platform_mode_test(stamps[kind], PLATFORM_MODE_ANY), 1);
        for (uint32_t asked = PLATFORM_MODE_REGULAR; asked <= PLATFORM_MODE_SOCKET; ++asked) {
            EXPECT_EQ(platform_mode_test(stamps[kind], asked), asked == kind + 1 ? 1 : 0) << kind << " " << asked;
        }
    }
}

TEST_F(ModeTest, TheNumbersOfTheFlagsAreThoseOfTheirNames) {
    const std::string file = with_text("file");
    const FileStamp folder_stamp = platform_file_stamp(folder.path.c_str());
    constexpr std::pair<mode_t, uint32_t> kPermissions[] = {{0400, 0x100}, {0200, 0x200}, {0100, 0x400}};
    for (const auto &[mode, number] : kPermissions) {
        ASSERT_EQ(chmod(file.c_str(), mode), 0);
        const FileStamp stamp = platform_file_stamp(file.c_str());
        EXPECT_EQ(platform_mode_test(stamp, number), 1) << number;
        EXPECT_EQ(platform_mode_test(stamp, number | 1), 1) << number;
        EXPECT_EQ(platform_mode_test(stamp, 0x700 - number), 0) << number;
    }
    EXPECT_EQ(platform_mode_test(folder_stamp, 2), 1);
    EXPECT_EQ(platform_mode_test(folder_stamp, 3), 0);
    EXPECT_EQ(uint32_t{PLATFORM_MODE_SOCKET}, 3U);
}

TEST_F(ModeTest, AllPermissionsAskedForMustBeThereForTheOwner) {
    constexpr uint32_t kAllPermissions = PLATFORM_MODE_READ | PLATFORM_MODE_WRITE | PLATFORM_MODE_EXECUTE;
    const std::string file = with_text("file");
    for (uint32_t owner = 0; owner < 8; ++owner) {
        // The others have what the owner has not: theirs must not count.
        const auto mode = static_cast<mode_t>(owner << 6 | (~owner & 7) << 3 | (~owner & 7));
        ASSERT_EQ(chmod(file.c_str(), mode), 0);
        const uint32_t has = ((owner & 4) != 0 ? uint32_t{PLATFORM_MODE_READ} : 0) |
                             ((owner & 2) != 0 ? uint32_t{PLATFORM_MODE_WRITE} : 0) |
                             ((owner & 1) != 0 ? uint32_t{PLATFORM_MODE_EXECUTE} : 0);
        const FileStamp stamp = platform_file_stamp(file.c_str());
        for (uint32_t asked = 0; asked <= kAllPermissions; asked += PLATFORM_MODE_READ) {
            EXPECT_EQ(platform_mode_test(stamp, asked), (asked & ~has) == 0 ? 1 : 0) << owner << " " << asked;
            EXPECT_EQ(platform_mode_test(stamp, asked | PLATFORM_MODE_REGULAR), (asked & ~has) == 0 ? 1 : 0);
            EXPECT_EQ(platform_mode_test(stamp, asked | PLATFORM_MODE_DIR), 0);
        }
    }
}

TEST_F(ModeTest, OtherBitsOfTheFlagsDoNotCount) {
    const FileStamp stamp = platform_file_stamp(folder.path.c_str());
    constexpr uint32_t kOtherBits = 0xFFFFF8FC;
    EXPECT_EQ(platform_mode_test(stamp, kOtherBits), 1);
    EXPECT_EQ(platform_mode_test(stamp, kOtherBits | PLATFORM_MODE_REGULAR), 0);
    EXPECT_EQ(platform_mode_test(stamp, kOtherBits | PLATFORM_MODE_DIR), 1);
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

TEST_F(FileStampTest, AFileThatWasMissingAndStillIsHasNotChanged) {
    const FileStamp stamp = platform_file_stamp(path("missing").c_str());
    EXPECT_EQ(platform_file_changed(path("missing").c_str(), stamp), 0);
}

TEST_F(FileStampTest, ALinkHasTheStampOfWhatItPointsTo) {
    const std::string file = with_text("file", "text");
    ASSERT_EQ(symlink("file", path("link").c_str()), 0);
    EXPECT_EQ(platform_file_changed(path("link").c_str(), platform_file_stamp(file.c_str())), 0);
}

TEST_F(FileStampTest, ADescriptorOrStreamThatCannotBeReadAnyLongerHasChanged) {
    const FileStamp stamp = platform_file_stamp(with_text("file").c_str());
    EXPECT_EQ(platform_fd_changed(-1, stamp), 1);
    EXPECT_EQ(platform_stream_changed(nullptr, stamp), 1);
}

TEST_F(ModeTest, AStampThatCouldNotBeTakenIsOfNoKindAndHasNoPermissions) {
    const FileStamp none = platform_file_stamp(path("missing").c_str());
    EXPECT_EQ(platform_mode_test(none, PLATFORM_MODE_ANY), 1) << "nothing is asked for";
    for (const PlatformMode flags : {PLATFORM_MODE_REGULAR, PLATFORM_MODE_DIR, PLATFORM_MODE_SOCKET, PLATFORM_MODE_READ,
                                     PLATFORM_MODE_WRITE, PLATFORM_MODE_EXECUTE}) {
        EXPECT_EQ(platform_mode_test(none, flags), 0) << flags;
    }
}
