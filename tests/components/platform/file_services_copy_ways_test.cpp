// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The ways in which the checked copy moves bytes, and what takes the place of one that fails.
#include "file_services_support.h"

#include <components/platform/file_services.h>
#include <support/interpose.h>

#include <algorithm>
#include <cerrno>
#include <unistd.h>

using namespace zel::test;

namespace {

// A source of a few parts, and the copy of it.
struct CopyWays : CopiedFiles {
    CopyWays() : text(long_text(300'001)), from(with_text("from", text)), to(path("to")) {}

    int copy() const { return platform_copy_checked(from.c_str(), to.c_str(), nullptr, nullptr); }

    // Whether the copy is made and whole.
    bool is_whole() const {
        unlink(to.c_str());
        return copy() == 1 && read_file(to) == text;
    }

    const std::string text;
    const std::string from;
    const std::string to;
};

constexpr int kNotOffered[] = {EXDEV, EINVAL, ENOSYS, EOPNOTSUPP, EPERM, EBADF, ETXTBSY, EIO};

auto failing_range(int error) {
    return fail_always(hook::copy_file_range, error, -1);
}

auto failing_sendfile(int error) {
    return fail_always(hook::sendfile, error, -1);
}

// Every other call is interrupted.
template <typename Result, typename... Arguments>
std::function<Result(Arguments...)> interrupted(Hook<Result(Arguments...)> &hook) {
    return [&hook, calls = 0](Arguments... arguments) mutable -> Result {
        if (calls++ % 2 == 0) {
            errno = EINTR;
            return static_cast<Result>(-1);
        }
        return hook.real(arguments...);
    };
}

} // namespace

TEST_F(CopyWays, TheKernelMovesTheContentWithoutTheProcess) {
    const Names names = calls_of([this] { EXPECT_EQ(copy(), 1); });
    EXPECT_EQ(std::count(names.begin(), names.end(), "write"), 0);
    EXPECT_EQ(std::count(names.begin(), names.end(), "read"), 1); // finds the end
}

TEST_F(CopyWays, SharedBlocksAreOnePart) {
    const Interposed offering(hook::ioctl, [this](int target, unsigned long, void *) {
        EXPECT_EQ(write(target, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        return 0;
    });
    std::vector<int64_t> parts;
    const auto note = [](int64_t copied, int64_t size, void *user) {
        EXPECT_EQ(copied, size);
        static_cast<std::vector<int64_t> *>(user)->push_back(copied);
        return 1;
    };
    const Names names = calls_of([&] { EXPECT_EQ(platform_copy_checked(from.c_str(), to.c_str(), note, &parts), 1); });
    EXPECT_EQ(parts, (std::vector<int64_t>{300'001}));
    EXPECT_EQ(std::count(names.begin(), names.end(), "copy_file_range"), 0);
    EXPECT_TRUE(read_file(to) == text);
}

TEST_F(CopyWays, WhatTheFileSystemsDoNotOfferIsDoneAnotherWay) {
    for (const int error : kNotOffered) {
        const Interposed range(hook::copy_file_range, failing_range(error));
        EXPECT_TRUE(is_whole()) << error;
        const Interposed sending(hook::sendfile, failing_sendfile(error));
        EXPECT_TRUE(is_whole()) << error;
    }
}

TEST_F(CopyWays, AWayThatFailsInTheMiddleIsGoneOnFrom) {
    const Interposed range(hook::copy_file_range,
                           [calls = 0](int in, off_t *a, int out, off_t *b, size_t, unsigned) mutable -> ssize_t {
                               errno = EXDEV;
                               return calls++ < 3 ? hook::copy_file_range.real(in, a, out, b, 1000, 0) : -1;
                           });
    EXPECT_TRUE(is_whole());
    const Interposed sending(hook::sendfile, [calls = 0](int out, int in, off_t *offset, size_t) mutable -> ssize_t {
        errno = EINVAL;
        return calls++ < 3 ? hook::sendfile.real(out, in, offset, 1000) : -1;
    });
    EXPECT_TRUE(is_whole());
}

TEST_F(CopyWays, AWayThatEndsAtOnceIsNotBelieved) {
    const Interposed range(hook::copy_file_range, [](auto...) { return ssize_t{0}; });
    EXPECT_TRUE(is_whole());
    const Interposed sending(hook::sendfile, [](auto...) { return ssize_t{0}; });
    EXPECT_TRUE(is_whole());
}

TEST_F(CopyWays, AnInterruptionLosesNothingOnAnyWay) {
    const Interposed range(hook::copy_file_range, interrupted(hook::copy_file_range));
    EXPECT_EQ(std::ranges::count(calls_of([this] { EXPECT_TRUE(is_whole()); }), "write"), 0);
    const Interposed no_range(hook::copy_file_range, failing_range(EXDEV));
    const Interposed sending(hook::sendfile, interrupted(hook::sendfile));
    EXPECT_EQ(std::ranges::count(calls_of([this] { EXPECT_TRUE(is_whole()); }), "write"), 0);
    const Interposed no_sending(hook::sendfile, failing_sendfile(EINVAL));
    const Interposed reading(hook::read, interrupted(hook::read));
    const Interposed writing(hook::write, interrupted(hook::write));
    EXPECT_TRUE(is_whole());
}

TEST_F(CopyWays, AWriteThatIsCutShortIsRepeated) {
    const Interposed range(hook::copy_file_range, failing_range(EXDEV));
    const Interposed sending(hook::sendfile, failing_sendfile(EINVAL));
    const Interposed writing(hook::write, [](int fd, const void *data, size_t size) {
        return hook::write.real(fd, data, std::min<size_t>(size, 777));
    });
    EXPECT_TRUE(is_whole());
}

TEST_F(CopyWays, AFullDiskIsTold) {
    write_file(to, "old");
    const Interposed range(hook::copy_file_range, failing_range(ENOSPC));
    const Interposed sending(hook::sendfile, failing_sendfile(ENOSPC));
    const Interposed writing(hook::write, fail_nth(hook::write, 2, ENOSPC, -1));
    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(read_file(to), "old");
    EXPECT_EQ(entries(folder.path), (std::set<std::string>{"from", "to"}));
}

TEST_F(CopyWays, AWriteThatTakesNothingIsAnError) {
    const Interposed range(hook::copy_file_range, failing_range(EXDEV));
    const Interposed sending(hook::sendfile, failing_sendfile(EINVAL));
    const Interposed writing(hook::write, [](int, const void *, size_t) { return ssize_t{0}; });
    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(errno, EIO);
}

TEST_F(CopyWays, AReadThatFailsIsTold) {
    const Interposed range(hook::copy_file_range, failing_range(EIO));
    const Interposed sending(hook::sendfile, failing_sendfile(EIO));
    const Interposed reading(hook::read, fail_nth(hook::read, 1, EIO, -1));
    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(entries(folder.path), (std::set<std::string>{"from"}));
}
