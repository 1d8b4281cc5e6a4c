// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Copying one file.
#include <components/platform/file_control.h>

#include "file_support.h"
#include <support/child.h>
#include <support/files.h>
#include <support/interpose.h>

#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace zel::test;

namespace {

using CopyFile = Files;

// A text of which no piece may be left out, moved or repeated unnoticed.
std::string varied_text(size_t size) {
    std::string text(size, '\0');
    for (size_t place = 0; place < size; ++place) {
        text[place] = static_cast<char>(place % 251);
    }
    return text;
}

} // namespace

TEST_F(CopyFile, TheBytesAreTheSame) {
    for (const size_t size : {size_t{0}, size_t{1}, size_t{8191}, size_t{8192}, size_t{8193}, size_t{100000}}) {
        const std::string text = varied_text(size);
        write_file(path("from"), text);
        EXPECT_EQ(platform_copy_file(path("from").c_str(), path("to").c_str()), 1);
        EXPECT_EQ(read_file(path("to")), text) << size;
    }
}

TEST_F(CopyFile, TheTargetIsCreatedWithWhatTheMaskLeavesAndTruncated) {
    write_file(path("from"), "short");
    const mode_t before = umask(027);
    EXPECT_EQ(platform_copy_file(path("from").c_str(), path("new").c_str()), 1);
    umask(before);
    EXPECT_EQ(platform_file_stamp(path("new").c_str()).mode & 07777, 0640U);
    write_file(path("old"), "a much longer text");
    EXPECT_EQ(platform_copy_file(path("from").c_str(), path("old").c_str()), 1);
    EXPECT_EQ(read_file(path("old")), "short");
}

TEST_F(CopyFile, WhatCannotBeOpenedIsAFailureThatLeavesNothingOpen) {
    write_file(path("from"), "text");
    EXPECT_EQ(platform_copy_file(path("missing").c_str(), path("to").c_str()), 0);
    EXPECT_EQ(platform_exists(path("to").c_str()), 0) << "a target is not made for a source that is missing";
    EXPECT_EQ(platform_copy_file(path("from").c_str(), path("no/such/place").c_str()), 0);
}

TEST_F(CopyFile, AFileIsNotCopiedOntoItself) {
    write_file(path("from"), "text");
    ASSERT_EQ(symlink("from", path("link").c_str()), 0);
    ASSERT_EQ(link(path("from").c_str(), path("second name").c_str()), 0);
    for (const char *to : {"from", "link", "second name"}) {
        EXPECT_EQ(platform_copy_file(path("from").c_str(), path(to).c_str()), 0) << to;
        EXPECT_EQ(read_file(path("from")), "text") << to;
    }
}

TEST_F(CopyFile, ATargetExchangedForALinkToTheSourceLosesNothing) {
    write_file(path("from"), "text");
    write_file(path("to"), "other");
    ASSERT_EQ(symlink("from", path("link").c_str()), 0);
    const Exchanger attacker(path("to"), path("link"));
    for (int round = 0; round < 20 * attack_rounds(); ++round) {
        platform_copy_file(path("from").c_str(), path("to").c_str());
        ASSERT_EQ(platform_file_size(path("from").c_str()), 4) << "in round " << round;
    }
}

TEST_F(CopyFile, AFileOfTheSameNumberOnAnotherDeviceIsAnotherFile) {
    write_file(path("from"), "text");
    write_file(path("to"), "");
    struct stat target;
    ASSERT_EQ(stat(path("to").c_str(), &target), 0);
    int calls = 0;
    const Interposed elsewhere(hook::fstat, [&target, &calls](int fd, struct stat *status) {
        const int result = hook::fstat.real(fd, status);
        if (calls++ == 0) {
            status->st_ino = target.st_ino;
            status->st_dev = target.st_dev + 1;
        }
        return result;
    });
    EXPECT_EQ(platform_copy_file(path("from").c_str(), path("to").c_str()), 1);
    EXPECT_EQ(read_file(path("to")), "text");
}

TEST_F(CopyFile, EachFileIsLookedAtOnce) {
    write_file(path("from"), "text");
    std::vector<ino_t> looked_at;
    const Interposed looking(hook::fstat, [&looked_at](int fd, struct stat *status) {
        const int result = hook::fstat.real(fd, status);
        looked_at.push_back(status->st_ino);
        return result;
    });
    EXPECT_EQ(platform_copy_file(path("from").c_str(), path("to").c_str()), 1);
    ASSERT_EQ(looked_at.size(), 2U);
    EXPECT_NE(looked_at[0], looked_at[1]);
}

TEST_F(CopyFile, AReadThatFailsEndsTheCopy) {
    // A folder can be opened for reading and not read.
    EXPECT_EQ(platform_copy_file(folder.path.c_str(), path("to").c_str()), 1);
    EXPECT_EQ(read_file(path("to")), "");
}

TEST_F(CopyFile, AFullDiskDoesNotShowInTheResult) {
    write_file(path("from"), "text");
    EXPECT_EQ(platform_copy_file(path("from").c_str(), "/dev/full"), 1);
}

TEST_F(CopyFile, InterruptionsLoseNothing) {
    write_file(path("from"), varied_text(50000));
    int reads = 0;
    const Interposed reading(hook::read, [&reads](int fd, void *buffer, size_t size) -> ssize_t {
        if (reads++ % 2 == 0) {
            errno = EINTR;
            return -1;
        }
        return hook::read.real(fd, buffer, size);
    });
    int writes = 0;
    const Interposed writing(hook::write, [&writes](int fd, const void *buffer, size_t size) -> ssize_t {
        if (writes++ % 2 == 0) {
            errno = EINTR;
            return -1;
        }
        return hook::write.real(fd, buffer, size);
    });
    EXPECT_EQ(platform_copy_file(path("from").c_str(), path("to").c_str()), 1);
    EXPECT_TRUE(read_file(path("to")) == varied_text(50000));
}

TEST_F(CopyFile, ChunksHaveAtMost8192Bytes) {
    write_file(path("from"), std::string(20000, 'x'));
    std::vector<size_t> sizes;
    const Interposed reading(hook::read, [&sizes](int fd, void *buffer, size_t size) {
        sizes.push_back(size);
        return hook::read.real(fd, buffer, size);
    });
    EXPECT_EQ(platform_copy_file(path("from").c_str(), path("to").c_str()), 1);
    EXPECT_EQ(sizes, (std::vector<size_t>{8192, 8192, 8192, 8192}));
}

TEST_F(CopyFile, DevicesHaveNothingToLose) {
    EXPECT_EQ(platform_copy_file("/dev/null", "/dev/null"), 1);
}

TEST_F(CopyFile, AWriteThatIsCutShortIsNotRepeatedAndDoesNotShowInTheResult) {
    write_file(path("from"), std::string(8192, 'a') + std::string(8192, 'b') + "c");
    const Interposed halving(hook::write, [](int fd, const void *buffer, size_t size) {
        return hook::write.real(fd, buffer, size == 1 ? size : size / 2);
    });
    EXPECT_EQ(platform_copy_file(path("from").c_str(), path("to").c_str()), 1);
    EXPECT_EQ(read_file(path("to")), std::string(4096, 'a') + std::string(4096, 'b') + "c");
}

TEST_F(CopyFile, AReadThatFailsOnTheWayLeavesWhatWasReadBefore) {
    write_file(path("from"), varied_text(20000));
    const Interposed failing(hook::read, fail_nth(hook::read, 1, EIO, -1));
    EXPECT_EQ(platform_copy_file(path("from").c_str(), path("to").c_str()), 1);
    EXPECT_TRUE(read_file(path("to")) == varied_text(8192));
}

TEST_F(CopyFile, ReadingIsAskedOfTheSourceAndWritingOfTheTargetAndNothingElse) {
    write_file(path("readable"), "text");
    write_file(path("writable"), "");
    write_file(path("closed"), "secret");
    ASSERT_EQ(chmod(path("readable").c_str(), 0444), 0);
    ASSERT_EQ(chmod(path("writable").c_str(), 0222), 0);
    ASSERT_EQ(chmod(path("closed").c_str(), 0), 0);
    open_to_all();
    const Outcome outcome = run_in_child([this] {
        give_up_root();
        printf("%d", platform_copy_file(path("readable").c_str(), path("writable").c_str()));
        printf("%d", platform_copy_file(path("closed").c_str(), path("new").c_str()));
        printf("%d", platform_copy_file(path("readable").c_str(), path("closed").c_str()));
    });
    EXPECT_EQ(outcome.out, "100");
    ASSERT_EQ(chmod(path("writable").c_str(), 0666), 0);
    EXPECT_EQ(read_file(path("writable")), "text");
    EXPECT_FALSE(platform_exists(path("new").c_str())) << "a target is not made for a source that cannot be read";
}

TEST_F(CopyFile, ClosingTheSourceLeavesTheReasonInErrno) {
    write_file(path("from"), "text");
    const Interposed closing(hook::close, [](int fd) {
        const int result = hook::close.real(fd);
        errno = EIO;
        return result;
    });
    EXPECT_EQ(platform_copy_file(path("from").c_str(), path("no/such/place").c_str()), 0);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(CopyFile, ALinkIsCopiedAsWhatItPointsTo) {
    write_file(path("from"), "text");
    ASSERT_EQ(symlink("from", path("link").c_str()), 0);
    EXPECT_EQ(platform_copy_file(path("link").c_str(), path("to").c_str()), 1);
    struct stat status;
    ASSERT_EQ(lstat(path("to").c_str(), &status), 0);
    EXPECT_TRUE(S_ISREG(status.st_mode));
    EXPECT_EQ(read_file(path("to")), "text");
}
