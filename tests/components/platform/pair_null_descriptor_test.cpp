// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The shared descriptor on the null device.
#include "pair_support.h"

#include <fcntl.h>
#include <unistd.h>

using namespace zel::test;

namespace {

bool is_open(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

} // namespace

TEST(NullDescriptor, IsOpenOnTheNullDeviceForReadingAndWriting) {
    const int fd = platform_null_fd_open();
    EXPECT_EQ(target_of(fd), "/dev/null");
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);
    char byte;
    EXPECT_EQ(write(fd, "x", 1), 1);
    EXPECT_EQ(read(fd, &byte, 1), 0);
    platform_null_fd_close(fd);
    EXPECT_FALSE(is_open(fd));
}

TEST(NullDescriptor, TheSecondCloseOfTwoOpensClosesIt) {
    const int fd = platform_null_fd_open();
    EXPECT_EQ(platform_null_fd_open(), fd);
    platform_null_fd_close(fd);
    EXPECT_TRUE(is_open(fd));
    platform_null_fd_close(fd);
    EXPECT_FALSE(is_open(fd));
}

TEST(NullDescriptor, IsOpenedOnceAsAStreamToUpdate) {
    std::string opened;
    const Interposed recorded(hook::fopen, [&opened](const char *path, const char *mode) {
        opened += std::string(path) + " " + mode + ";";
        return hook::fopen.real(path, mode);
    });
    const int fd = platform_null_fd_open();
    for (int count = 1; count < 100; ++count) {
        EXPECT_EQ(platform_null_fd_open(), fd);
    }
    EXPECT_EQ(opened, "/dev/null r+;");
    for (int count = 0; count < 100; ++count) {
        EXPECT_TRUE(is_open(fd)) << count;
        platform_null_fd_close(fd);
    }
    EXPECT_FALSE(is_open(fd));
}

TEST(NullDescriptor, AnotherDescriptorIsIgnored) {
    const int fd = platform_null_fd_open();
    const int other = dup(fd);
    platform_null_fd_close(other);
    platform_null_fd_close(-1);
    EXPECT_TRUE(is_open(other));
    EXPECT_TRUE(is_open(fd));
    close(other);
    platform_null_fd_close(fd);
    EXPECT_FALSE(is_open(fd));
}

TEST(NullDescriptor, OneCloseTooManyDoesNothing) {
    const int fd = platform_null_fd_open();
    platform_null_fd_close(fd);
    const int taken = open("/dev/null", O_RDONLY | O_CLOEXEC); // the same number now belongs to somebody else
    EXPECT_EQ(taken, fd);
    platform_null_fd_close(fd);
    platform_null_fd_close(-1);
    platform_null_fd_close(0);
    EXPECT_TRUE(is_open(taken));
    EXPECT_TRUE(is_open(0));
    close(taken);
}

TEST(NullDescriptor, CanBeOpenedAgain) {
    platform_null_fd_close(platform_null_fd_open());
    const int fd = platform_null_fd_open();
    EXPECT_EQ(target_of(fd), "/dev/null");
    platform_null_fd_close(fd);
    EXPECT_FALSE(is_open(fd));
}

TEST(NullDescriptor, AFailedOpenCountsNoReference) {
    {
        const Interposed failing(hook::fopen, fail_always(hook::fopen, EMFILE, nullptr));
        EXPECT_EQ(platform_null_fd_open(), -1);
        EXPECT_EQ(platform_null_fd_open(), -1);
    }
    const int fd = platform_null_fd_open();
    EXPECT_GE(fd, 0);
    platform_null_fd_close(fd);
    EXPECT_FALSE(is_open(fd));
}
