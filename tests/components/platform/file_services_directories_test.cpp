// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Directories made with those above them.
#include "file_services_support.h"

#include <components/platform/file_services.h>
#include <support/child.h>
#include <support/interpose.h>

#include <cerrno>
#include <climits>
#include <filesystem>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace zel::test;

namespace {

struct MakeDirs : Files {
    // Makes directories in the folder. Returns 0, or the error.
    int make(const std::string &name, mode_t mode = 0777) const {
        return platform_make_dirs(path(name).c_str(), mode) == 1 ? 0 : errno;
    }
    bool is_dir(const std::string &name) const { return std::filesystem::is_directory(path(name)); }
};

} // namespace

TEST_F(MakeDirs, MakesWhatIsMissing) {
    EXPECT_EQ(make("a/b/c"), 0);
    EXPECT_TRUE(is_dir("a/b/c"));
    EXPECT_EQ(make("a/b/d"), 0);
    EXPECT_TRUE(is_dir("a/b/d"));
    EXPECT_EQ(make("a/b/d"), 0); // it is there
}

TEST_F(MakeDirs, TakesSlashesAndDotsAnywhere) {
    for (const char *name : {"a//b///c/", "d/./e/.", "f/../g/h//", "i/j/.."}) {
        EXPECT_EQ(make(name), 0) << name;
    }
    EXPECT_TRUE(is_dir("a/b/c"));
    EXPECT_TRUE(is_dir("d/e"));
    EXPECT_TRUE(is_dir("g/h"));
    EXPECT_TRUE(is_dir("i/j"));
    for (const char *there : {"/", "//", ".", "..", "./", "/.."}) {
        EXPECT_EQ(platform_make_dirs(there, 0777), 1) << there;
    }
}

TEST_F(MakeDirs, TakesARelativePath) {
    const InFolder in(folder.path);
    EXPECT_EQ(platform_make_dirs("a/b", 0777), 1);
    EXPECT_TRUE(is_dir("a/b"));
    EXPECT_EQ(platform_make_dirs("c", 0777), 1);
    EXPECT_TRUE(is_dir("c"));
}

TEST_F(MakeDirs, GivesEachDirectoryTheModeLessTheMask) {
    const Mask mask(027);
    ASSERT_EQ(make("old", 0700), 0);
    EXPECT_EQ(make("old/a/b", 0777), 0);
    EXPECT_EQ(permissions(path("old")), 0700U);
    EXPECT_EQ(permissions(path("old/a")), 0750U);
    EXPECT_EQ(permissions(path("old/a/b")), 0750U);
}

TEST_F(MakeDirs, FollowsLinksToDirectories) {
    ASSERT_EQ(make("real"), 0);
    ASSERT_EQ(symlink("real", path("link").c_str()), 0);
    EXPECT_EQ(make("link/a"), 0);
    EXPECT_EQ(make("link"), 0);
    EXPECT_TRUE(is_dir("real/a"));
}

TEST_F(MakeDirs, SomethingElseInTheWayIsNoDirectory) {
    with_text("file");
    ASSERT_EQ(symlink("nowhere", path("astray").c_str()), 0);
    for (const char *name : {"file", "file/a", "file/", "astray", "astray/a"}) {
        EXPECT_EQ(make(name), ENOTDIR) << name;
    }
    EXPECT_EQ(entries(folder.path), (std::set<std::string>{"astray", "file"}));
}

TEST_F(MakeDirs, APathThatIsNoneIsRefused) {
    EXPECT_EQ(platform_make_dirs("", 0777), 0);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(platform_make_dirs(nullptr, 0777), 0);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(make(std::string(NAME_MAX + 1, 'n')), ENAMETOOLONG);
    EXPECT_EQ(make(std::string(4097, '/')), ENAMETOOLONG);
}

TEST_F(MakeDirs, ADirectoryThatMayNotBeWrittenOrSearchedIsTold) {
    ASSERT_EQ(make("readable/there"), 0);
    ASSERT_EQ(make("closed/there"), 0);
    open_to_all();
    ASSERT_EQ(chmod(path("readable").c_str(), 0555), 0);
    ASSERT_EQ(chmod(path("closed").c_str(), 0), 0);
    const Outcome outcome = run_in_child([this] {
        give_up_root();
        printf("%d %d %d %d", make("readable/new") == EACCES, make("readable/there"), make("closed/there") == EACCES,
               make("closed"));
    });
    EXPECT_EQ(outcome.out, "1 0 1 0");
    ASSERT_EQ(chmod(path("closed").c_str(), 0777), 0);
}

TEST_F(MakeDirs, AnotherMakerIsNoFailure) {
    const Interposed making(hook::mkdir, [](const char *path, mode_t mode) {
        hook::mkdir.real(path, mode); // somebody else is ahead
        return hook::mkdir.real(path, mode);
    });
    EXPECT_EQ(make("a/b/c"), 0);
    EXPECT_TRUE(is_dir("a/b/c"));
}

TEST_F(MakeDirs, ManyMakersAtOnceAllSucceed) {
    std::string deep = "deep";
    for (int level = 0; level < 100; ++level) {
        deep += "/d";
    }
    int go[2];
    ASSERT_EQ(pipe(go), 0);
    for (int maker = 0; maker < 8; ++maker) {
        if (fork() == 0) {
            char byte;
            close(go[1]);
            const ssize_t ended = read(go[0], &byte, 1); // all begin at the end of the pipe
            _exit(ended == 0 ? make(deep) : 1);
        }
    }
    close(go[0]);
    close(go[1]);
    for (int maker = 0; maker < 8; ++maker) {
        int status = -1;
        EXPECT_GT(wait(&status), 0);
        EXPECT_EQ(status, 0);
    }
    EXPECT_TRUE(is_dir(deep));
}
