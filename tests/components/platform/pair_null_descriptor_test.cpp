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

TEST(NullDescriptor, TheLastCloseClosesTheDescriptor) {
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

TEST(NullDescriptor, ProgramsDoNotInheritIt) {
    const int fd = platform_null_fd_open();
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    platform_null_fd_close(fd);
}

TEST(NullDescriptor, StaysAboveTheStandardOnes) {
    const Outcome outcome = run_in_child([] {
        for (int closed = 0; closed < 3; ++closed) {
            close(closed);
            const std::set<int> before = open_descriptors();
            const int fd = platform_null_fd_open();
            const bool good = fd > 2 && target_of(fd) == "/dev/null" && fcntl(fd, F_GETFD) == FD_CLOEXEC &&
                              (fcntl(fd, F_GETFL) & O_ACCMODE) == O_RDWR && !is_open(closed);
            platform_null_fd_close(fd);
            if (!good || open_descriptors() != before) {
                _exit(10 + closed);
            }
        }
    });
    EXPECT_EQ(outcome.status, 0);
}

TEST(NullDescriptor, WithoutRoomAboveTheStandardOnesItIsNotOpen) {
    const Outcome outcome = run_in_child([] {
        close(STDIN_FILENO);
        const std::set<int> before = open_descriptors();
        const Interposed failing(hook::fcntl, fail_always(hook::fcntl, EMFILE, -1));
        errno = 0;
        const int fd = platform_null_fd_open();
        _exit(fd == -1 && errno == EMFILE && open_descriptors() == before ? 0 : 1);
    });
    EXPECT_EQ(outcome.status, 0);
}
