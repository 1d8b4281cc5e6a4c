// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The checked copy: content, permissions, and which targets are taken.
#include "file_services_support.h"

#include <components/platform/file_services.h>
#include <support/child.h>
#include <support/interpose.h>

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace zel::test;

namespace {

using CheckedCopy = CopiedFiles;

constexpr int kTwoParts = 8'400'001; // a part has at most 8 MiB

int copy(const std::string &from, const std::string &to) {
    return platform_copy_checked(from.c_str(), to.c_str(), nullptr, nullptr);
}

// The error of a copy that fails; 0 for one that does not.
int error_of_copy(const std::string &from, const std::string &to) {
    errno = 0;
    return copy(from, to) == 0 ? errno : 0;
}

// What the progress function of a test is told, and when it cancels.
struct Progress {
    int parts = 0;
    int64_t copied = 0;
    int64_t size = -1;
    int cancel_at = -1;
};

int on_part(int64_t copied, int64_t size, void *user) {
    auto *progress = static_cast<Progress *>(user);
    EXPECT_GT(copied, progress->copied);
    progress->copied = copied;
    progress->size = size;
    return progress->parts++ != progress->cancel_at;
}

// What the caller's function does in the middle of a copy.
int run_body(int64_t, int64_t, void *user) {
    (*static_cast<std::function<void()> *>(user))();
    return 1;
}

// Copies with that done once, after the first part.
int copy_and_meanwhile(const std::string &from, const std::string &to, const std::function<void()> &action) {
    bool done = false;
    std::function<void()> once = [&] {
        if (!done) {
            done = true;
            action();
        }
    };
    return platform_copy_checked(from.c_str(), to.c_str(), run_body, &once);
}

} // namespace

TEST_F(CheckedCopy, BringsTheWholeContentIntoANewFile) {
    for (const size_t length : std::initializer_list<size_t>{0, 1, 65537, kTwoParts}) {
        const std::string text = long_text(length);
        EXPECT_EQ(copy(with_text("from", text), path("to")), 1);
        EXPECT_TRUE(read_file(path("to")) == text) << length;
    }
    EXPECT_EQ(entries(folder.path), (std::set<std::string>{"from", "to"}));
}

TEST_F(CheckedCopy, TakesAFileOfProcWhoseSizeIsZero) {
    EXPECT_EQ(copy("/proc/version", path("to")), 1);
    EXPECT_NE(read_file(path("to")), "");
    EXPECT_EQ(read_file(path("to")), read_file("/proc/version"));
}

TEST_F(CheckedCopy, TakesHolesAsZeros) {
    make_sparse(path("from"), 1'000'000);
    EXPECT_EQ(copy(path("from"), path("to")), 1);
    EXPECT_TRUE(read_file(path("to")) == std::string(1'000'000, '\0'));
}

TEST_F(CheckedCopy, NeedsNoMemory) {
    const std::string from = with_text("from", "text");
    const std::string to = path("to");
    int result = 0;
    {
        const Interposed exhausted(hook::malloc, fail_always(hook::malloc, ENOMEM, nullptr));
        result = copy(from, to);
    }
    EXPECT_EQ(result, 1);
}

// ---- Permissions ----------------------------------------------------------------------------------------------------

TEST_F(CheckedCopy, KeepsThePermissionsWhateverTheMaskIs) {
    const std::string from = with_text("from", "text");
    for (const mode_t mode : {0751U, 0444U, 0666U, 04755U, 02755U}) {
        ASSERT_EQ(chmod(from.c_str(), mode), 0);
        const Mask mask(077);
        EXPECT_EQ(copy(from, path("to")), 1);
        EXPECT_EQ(permissions(path("to")), mode);
    }
}

TEST_F(CheckedCopy, GivesNoRightsOfAnotherOwnerOrGroup) {
    const std::string from = with_text("from", "text");
    ASSERT_EQ(chmod(from.c_str(), 06755), 0);
    for (const bool other_owner : {true, false}) {
        const Interposed belonging(hook::fstat, [other_owner](int fd, struct stat *status) {
            const int result = hook::fstat.real(fd, status);
            if ((status->st_mode & 0777) == 0755 && S_ISREG(status->st_mode)) { // the source alone
                status->st_uid += other_owner ? 1 : 0;
                status->st_gid += other_owner ? 0 : 1;
            }
            return result;
        });
        EXPECT_EQ(copy(from, path("to")), 1);
        EXPECT_EQ(permissions(path("to")), other_owner ? 02755U : 04755U);
    }
}

TEST_F(CheckedCopy, IsReadByItsOwnerAloneUntilItIsComplete) {
    const std::string from = with_text("from", "text");
    ASSERT_EQ(chmod(from.c_str(), 0644), 0);
    const Mask mask(0);
    copy_and_meanwhile(from, path("to"), [this] {
        for (const std::string &name : entries(folder.path)) {
            EXPECT_EQ(permissions(path(name)), name == "from" ? 0644U : 0600U) << name;
        }
    });
}

// ---- The target -----------------------------------------------------------------------------------------------------

TEST_F(CheckedCopy, LeavesTheTargetAsItIsUntilItIsComplete) {
    const std::string from = with_text("from", "new");
    const std::string to = with_text("to", "old");
    EXPECT_EQ(copy_and_meanwhile(from, to, [&to] { EXPECT_EQ(read_file(to), "old"); }), 1);
    EXPECT_EQ(read_file(to), "new");
}

TEST_F(CheckedCopy, LeavesTheOldContentToItsOtherNames) {
    const std::string from = with_text("from", "new");
    const std::string to = with_text("to", "old");
    ASSERT_EQ(link(to.c_str(), path("other").c_str()), 0);
    EXPECT_EQ(copy(from, to), 1);
    EXPECT_EQ(read_file(to), "new");
    EXPECT_EQ(read_file(path("other")), "old");
}

TEST_F(CheckedCopy, OfAFileOntoItselfIsRefusedAndLosesNothing) {
    const std::string from = with_text("from", "text");
    ASSERT_EQ(link(from.c_str(), path("name").c_str()), 0);
    ASSERT_EQ(symlink("from", path("link").c_str()), 0);
    for (const char *to : {"from", "name", "link"}) {
        EXPECT_EQ(error_of_copy(from, path(to)), EINVAL) << to;
        EXPECT_EQ(read_file(from), "text");
    }
    EXPECT_EQ(entries(folder.path), (std::set<std::string>{"from", "link", "name"}));
}

TEST_F(CheckedCopy, TakesRegularFilesAlone) {
    const std::string file = with_text("file", "text");
    ASSERT_EQ(mkdir(path("dir").c_str(), 0777), 0);
    ASSERT_EQ(mkfifo(path("fifo").c_str(), 0666), 0);
    EXPECT_EQ(error_of_copy(path("dir"), path("to")), EINVAL);
    EXPECT_EQ(error_of_copy(path("fifo"), path("to")), EINVAL); // and nobody is waited for
    EXPECT_EQ(error_of_copy("/dev/zero", path("to")), EINVAL);
    EXPECT_EQ(error_of_copy(file, path("dir")), EISDIR);
    EXPECT_EQ(error_of_copy(file, path("new/")), EISDIR);
    EXPECT_EQ(error_of_copy(file, path("dir/..")), EISDIR);
    EXPECT_EQ(error_of_copy(file, path("fifo")), EINVAL);
    EXPECT_EQ(entries(folder.path), (std::set<std::string>{"dir", "fifo", "file"}));
}

TEST_F(CheckedCopy, SaysWhichPathDoesNotServe) {
    const std::string from = with_text("from", "text");
    EXPECT_EQ(error_of_copy(path("missing"), path("to")), ENOENT);
    EXPECT_EQ(error_of_copy(from, path("missing/to")), ENOENT);
    EXPECT_EQ(error_of_copy(from, ""), ENOENT);
    EXPECT_EQ(error_of_copy(from, path("from/to")), ENOTDIR);
    EXPECT_EQ(error_of_copy(from, path(std::string(256, 'n'))), ENAMETOOLONG);
    EXPECT_EQ(error_of_copy(from, std::string(5000, '/') + "to"), ENAMETOOLONG);
    EXPECT_EQ(platform_copy_checked(nullptr, path("to").c_str(), nullptr, nullptr), 0);
    EXPECT_EQ(platform_copy_checked(from.c_str(), nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(entries(folder.path), (std::set<std::string>{"from"}));
}

TEST_F(CheckedCopy, TakesNamesRelativeToTheCurrentDirectory) {
    with_text("from", "text");
    const InFolder in(folder.path);
    EXPECT_EQ(copy("from", "to"), 1);
    EXPECT_EQ(copy("from", std::string(255, 'n')), 1); // the longest name there is
    EXPECT_EQ(read_file(path("to")), "text");
}

// ---- Progress -------------------------------------------------------------------------------------------------------

TEST_F(CheckedCopy, TellsItsProgressUpToTheWholeSize) {
    const std::string from = with_text("from", long_text(kTwoParts));
    Progress progress;
    EXPECT_EQ(platform_copy_checked(from.c_str(), path("to").c_str(), on_part, &progress), 1);
    EXPECT_GE(progress.parts, 2);
    EXPECT_EQ(progress.copied, kTwoParts);
    EXPECT_EQ(progress.size, kTwoParts);
}

TEST_F(CheckedCopy, LeavesNothingWhenItIsCancelled) {
    const std::string from = with_text("from", long_text(kTwoParts));
    const std::string to = with_text("to", "old");
    for (const int part : {0, 1}) {
        Progress progress = {.cancel_at = part};
        EXPECT_EQ(platform_copy_checked(from.c_str(), to.c_str(), on_part, &progress), 0);
        EXPECT_EQ(errno, ECANCELED);
        EXPECT_EQ(progress.parts, part + 1);
        EXPECT_EQ(read_file(to), "old");
        EXPECT_EQ(entries(folder.path), (std::set<std::string>{"from", "to"}));
    }
}

TEST_F(CheckedCopy, HoldsNoStandardDescriptorWhileTheProgramIsCalled) {
    const std::string from = with_text("from", "text");
    const Outcome outcome = run_in_child([&] {
        for (const int fd : {0, 1, 2}) {
            close(fd);
        }
        copy_and_meanwhile(from, path("to"), [] { // the output of the program must not come into the copy
            const bool any = fcntl(0, F_GETFD) != -1 || fcntl(1, F_GETFD) != -1 || fcntl(2, F_GETFD) != -1;
            _exit(any ? 1 : 0);
        });
    });
    EXPECT_EQ(outcome.status, 0);
}

// ---- A source that is written meanwhile -----------------------------------------------------------------------------

TEST_F(CheckedCopy, BringsWhatTheSourceGainsMeanwhile) {
    const std::string text = long_text(kTwoParts);
    const std::string from = with_text("from", text);
    EXPECT_EQ(copy_and_meanwhile(from, path("to"),
                                 [&from] {
                                     FILE *file = fopen(from.c_str(), "a");
                                     fputs("more", file);
                                     fclose(file);
                                 }),
              1);
    EXPECT_TRUE(read_file(path("to")) == text + "more");
}

TEST_F(CheckedCopy, OfASourceThatGetsShorterIsRefused) {
    const std::string from = with_text("from", long_text(kTwoParts));
    for (const off_t length : {kTwoParts - 5'000, 0}) {
        EXPECT_EQ(copy_and_meanwhile(from, path("to"), [&] { EXPECT_EQ(truncate(from.c_str(), length), 0); }), 0);
        EXPECT_EQ(errno, EAGAIN);
        EXPECT_EQ(entries(folder.path), (std::set<std::string>{"from"}));
    }
}
