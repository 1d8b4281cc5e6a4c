// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Replacing the content of a file: old or new, never a part.
#include "file_services_support.h"

#include <components/platform/file_services.h>
#include <support/child.h>
#include <support/interpose.h>

#include <algorithm>
#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

using namespace zel::test;

namespace {

struct ReplaceFile : Files {
    int replace(const std::string &name, const std::string &text, mode_t mode = 0644) const {
        return platform_replace_file(path(name).c_str(), text.data(), text.size(), mode);
    }
};

} // namespace

TEST_F(ReplaceFile, CreatesOrReplacesTheWholeContent) {
    for (const size_t length : std::initializer_list<size_t>{0, 1, 1'000'000, 3}) {
        const std::string text = long_text(length);
        EXPECT_EQ(replace("file", text), 1);
        EXPECT_TRUE(read_file(path("file")) == text);
    }
    EXPECT_EQ(platform_replace_file(path("file").c_str(), nullptr, 0, 0644), 1);
    EXPECT_EQ(read_file(path("file")), "");
    EXPECT_EQ(entries(folder.path), (std::set<std::string>{"file"}));
}

TEST_F(ReplaceFile, SetsThePermissionsWhateverTheMaskIs) {
    const Mask mask(077);
    for (const mode_t mode : {0600U, 0666U, 0400U, 0U}) {
        EXPECT_EQ(replace("file", "text", mode), 1);
        EXPECT_EQ(permissions(path("file")), mode);
    }
}

TEST_F(ReplaceFile, LeavesTheOldContentToThoseWhoReadIt) {
    with_text("file", "old");
    FILE *reader = fopen(path("file").c_str(), "r");
    EXPECT_EQ(replace("file", "new content"), 1);
    char text[16] = {};
    EXPECT_NE(fgets(text, sizeof text, reader), nullptr);
    fclose(reader);
    EXPECT_STREQ(text, "old");
}

TEST_F(ReplaceFile, SyncsTheFileBeforeItsNameAndTheDirectoryAfterIt) {
    Names names = calls_of([this] { EXPECT_EQ(replace("file", "text"), 1); });
    std::erase_if(names, [](const std::string &name) {
        return name != "write" && name != "fchmod" && name != "fsync" && name != "renameat";
    });
    EXPECT_EQ(names, (Names{"write", "fchmod", "fsync", "renameat", "fsync"}));
}

TEST_F(ReplaceFile, SyncsTheDirectoryOfTheFile) {
    struct stat synced = {};
    const Interposed syncing(hook::fsync, [&synced](int fd) {
        EXPECT_EQ(fstat(fd, &synced), 0);
        return hook::fsync.real(fd);
    });
    struct stat expected = {};
    ASSERT_EQ(stat(folder.path.c_str(), &expected), 0);
    EXPECT_EQ(replace("file", "text"), 1);
    EXPECT_EQ(synced.st_ino, expected.st_ino);
}

TEST_F(ReplaceFile, IsDoneWhereDirectoriesCannotBeSynced) {
    const Interposed syncing(hook::fsync, fail_nth(hook::fsync, 1, EINVAL, -1));
    EXPECT_EQ(replace("file", "new"), 1);
    EXPECT_EQ(read_file(path("file")), "new");
}

TEST_F(ReplaceFile, LeavesTheOldContentWhereTheFileCannotBeSynced) {
    with_text("file", "old");
    for (const int error : {EINVAL, EIO, ENOSPC}) {
        const Interposed syncing(hook::fsync, fail_nth(hook::fsync, 0, error, -1));
        EXPECT_EQ(replace("file", "new"), 0);
        EXPECT_EQ(errno, error);
        EXPECT_EQ(read_file(path("file")), "old");
        EXPECT_EQ(entries(folder.path), (std::set<std::string>{"file"}));
    }
}

TEST_F(ReplaceFile, GoesOnAfterAnInterruption) {
    const std::string text = long_text(100'000);
    const Interposed writing(hook::write, [calls = 0](int fd, const void *data, size_t size) mutable -> ssize_t {
        errno = EINTR;
        return calls++ % 2 == 0 ? -1 : hook::write.real(fd, data, std::min<size_t>(size, 3001));
    });
    const Interposed syncing(hook::fsync, [calls = 0](int fd) mutable {
        errno = EINTR;
        return calls++ % 2 == 0 ? -1 : hook::fsync.real(fd);
    });
    EXPECT_EQ(replace("file", text), 1);
    EXPECT_TRUE(read_file(path("file")) == text);
}

TEST_F(ReplaceFile, IsRefusedInADirectoryThatCannotBeReadOrWritten) {
    with_text("file", "old");
    for (const mode_t mode : {0333U, 0555U}) {
        ASSERT_EQ(chmod(folder.path.c_str(), mode), 0);
        const Outcome outcome = run_in_child([this] {
            give_up_root();
            const int result = replace("file", "new");
            printf("%d %d", result, errno);
        });
        EXPECT_EQ(outcome.out, "0 " + std::to_string(EACCES)) << mode;
        ASSERT_EQ(chmod(folder.path.c_str(), 0777), 0);
        EXPECT_EQ(read_file(path("file")), "old");
        EXPECT_EQ(entries(folder.path), (std::set<std::string>{"file"}));
    }
}

// ---- A process that is killed ---------------------------------------------------------------------------------------

namespace {

// Kills a child ahead of each system call of the service, and after the last one. After each death the file holds the
// old text or the new one; both are seen.
void kill_at_each_call(const std::string &file, const std::string &old_text, const std::string &new_text,
                       const std::function<void()> &service) {
    const auto calls = static_cast<int>(calls_of(service).size());
    std::set<std::string> seen;
    for (int nth = 0; nth <= calls; ++nth) {
        write_file(file, old_text);
        run_in_child([&] {
            with_calls(service, nth, [](const std::string &) {
                raise(SIGKILL);
                return false;
            });
        });
        const std::string found = read_file(file);
        EXPECT_TRUE(found == old_text || found == new_text) << nth << ": " << found.size() << " bytes";
        seen.insert(found);
    }
    EXPECT_EQ(seen.size(), 2U);
}

} // namespace

TEST_F(ReplaceFile, LeavesTheOldOrTheNewContentWhereverTheProcessIsKilled) {
    const std::string text = long_text(200'000);
    kill_at_each_call(path("file"), "old", text, [&] { replace("file", text); });
}

TEST_F(ReplaceFile, ACopyLeavesTheOldOrTheNewContentWhereverItIsKilled) {
    const std::string text = long_text(200'000);
    const std::string from = with_text("from", text);
    const std::string to = path("to");
    kill_at_each_call(to, "old", text, [&] { platform_copy_checked(from.c_str(), to.c_str(), nullptr, nullptr); });
}
