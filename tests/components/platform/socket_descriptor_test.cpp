// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The idioms of descriptors, where a public call does not reach each rule.
#include "socket_support.h"

#include <components/platform/base/descriptor.h>
#include <support/interpose.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace zel::test;
namespace hook = zel::test::hook;

bool same_file(int first, int second) {
    struct stat one = {};
    struct stat other = {};
    return fstat(first, &one) == 0 && fstat(second, &other) == 0 && one.st_ino == other.st_ino;
}

TEST(DescriptorIdioms, TheTemporaryErrorsAreEintrAndEagain) {
    EXPECT_TRUE(zel::is_temporary(EINTR));
    EXPECT_TRUE(zel::is_temporary(EAGAIN));
    EXPECT_FALSE(zel::is_temporary(0));
    EXPECT_FALSE(zel::is_temporary(EBADF));
}

TEST(DescriptorIdioms, ClosingKeepsErrno) {
    const Interposed failing(hook::close, fail_always(hook::close, EIO, -1));
    errno = ENOENT;
    zel::close_keeping_errno(77);
    EXPECT_EQ(errno, ENOENT);
}

TEST(DescriptorIdioms, CloseOnExecKeepsErrno) {
    errno = ENOENT;
    zel::set_close_on_exec(-1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(DescriptorIdioms, ADescriptorAboveTheStandardOnesStaysWhereItIs) {
    const SocketPair pair;
    EXPECT_EQ(zel::above_standard(pair.ours.fd), pair.ours.fd);
}

TEST(DescriptorIdioms, AStandardDescriptorIsMovedAbove) {
    const Outcome outcome = run_in_child([] {
        for (int fd = 0; fd <= STDERR_FILENO; ++fd) {
            const SocketPair pair;
            dup2(pair.ours.fd, fd);
            const int moved = zel::above_standard(fd);
            const bool good = moved > STDERR_FILENO && !is_open(fd) && same_file(moved, pair.ours.fd);
            close(moved);
            if (!good) {
                _exit(10 + fd);
            }
        }
    });
    EXPECT_EQ(outcome.status, 0);
}

TEST(DescriptorIdioms, AStandardDescriptorThatCannotBeMovedStaysOpen) {
    const Outcome outcome = run_in_child([] {
        const Interposed failing(hook::fcntl, [](int, int, long) {
            errno = EMFILE;
            return -1;
        });
        const int moved = zel::above_standard(0);
        _exit(moved == -1 && errno == EMFILE && fstat(0, std::make_unique<struct stat>().get()) == 0 ? 0 : 1);
    });
    EXPECT_EQ(outcome.status, 0);
}

TEST(DescriptorIdioms, ACopyStandsAboveTheStandardDescriptors) {
    const Outcome outcome = run_in_child([] {
        const SocketPair pair;
        close(STDIN_FILENO);
        const int copy = zel::dup_above_standard(pair.ours.fd);
        _exit(copy > STDERR_FILENO && same_file(copy, pair.ours.fd) ? 0 : 1);
    });
    EXPECT_EQ(outcome.status, 0);
}

TEST(DescriptorIdioms, WaitingForNoDescriptorFailsWithItsError) {
    errno = 0;
    EXPECT_EQ(zel::wait_readable(-1, 0, 0), zel::Readiness::failed);
    EXPECT_EQ(errno, EBADF);
}

} // namespace
