// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Links on the way to a file that is replaced: which are followed, and how far.
#include "file_services_support.h"

#include <components/platform/file_services.h>
#include <support/interpose.h>

#include <cerrno>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

using namespace zel::test;

namespace {

struct ReplacedLinks : Files {
    void link(const std::string &text, const std::string &name) const {
        ASSERT_EQ(symlink(text.c_str(), path(name).c_str()), 0);
    }

    // Replaces the file of that name. Returns 0, or the error.
    int replace(const std::string &name, const std::string &text = "new") const {
        return platform_replace_file(path(name).c_str(), text.data(), text.size(), 0644) == 1 ? 0 : errno;
    }

    std::string text_of_link(const std::string &name) const { return std::filesystem::read_symlink(path(name)); }
};

// In its scope a link belongs to a stranger, and a directory too if that is asked for.
struct Stranger {
    explicit Stranger(bool owns_directories)
        : owning(hook::fstat, [owns_directories](int fd, struct stat *status) {
              const int result = hook::fstat.real(fd, status);
              const bool is_his = S_ISLNK(status->st_mode) || (owns_directories && S_ISDIR(status->st_mode));
              status->st_uid += is_his ? 1 : 0;
              return result;
          }) {}
    Interposed<int(int, struct stat *)> owning;
};

} // namespace

TEST_F(ReplacedLinks, AreFollowedAndStayLinks) {
    with_text("file", "old");
    ASSERT_EQ(mkdir(path("dir").c_str(), 0777), 0);
    link("file", "plain");
    link(path("file"), "absolute");
    link("../plain", "dir/up");
    link("dir/up", "chain");
    for (const char *name : {"plain", "absolute", "dir/up", "chain"}) {
        EXPECT_EQ(replace(name, name), 0);
        EXPECT_EQ(read_file(path("file")), name);
    }
    EXPECT_EQ(text_of_link("plain"), "file");
    EXPECT_EQ(text_of_link("chain"), "dir/up");
    EXPECT_EQ(entries(path("dir")), (std::set<std::string>{"up"}));
}

TEST_F(ReplacedLinks, ThatLeadToNoFileYetCreateIt) {
    link("later", "link");
    EXPECT_EQ(replace("link"), 0);
    EXPECT_EQ(read_file(path("later")), "new");
    EXPECT_EQ(text_of_link("link"), "later");
    link("missing/later", "astray");
    EXPECT_EQ(replace("astray"), ENOENT);
}

TEST_F(ReplacedLinks, ToADirectoryOrAFifoAreRefused) {
    ASSERT_EQ(mkfifo(path("fifo").c_str(), 0666), 0);
    link(".", "dir");
    link("fifo", "link");
    EXPECT_EQ(replace("dir"), EISDIR);
    EXPECT_EQ(replace("link"), EINVAL);
    EXPECT_TRUE(std::filesystem::is_fifo(path("fifo")));
}

TEST_F(ReplacedLinks, AreFollowedFortyTimes) {
    with_text("0", "old");
    for (int number = 1; number <= 41; ++number) {
        link(std::to_string(number - 1), std::to_string(number));
    }
    EXPECT_EQ(replace("40"), 0);
    EXPECT_EQ(read_file(path("0")), "new");
    EXPECT_EQ(replace("41", "newer"), ELOOP);
    EXPECT_EQ(read_file(path("0")), "new");
}

TEST_F(ReplacedLinks, ThatLeadInACircleAreRefused) {
    link("two", "one");
    link("one", "two");
    EXPECT_EQ(replace("one"), ELOOP);
    EXPECT_EQ(entries(folder.path), (std::set<std::string>{"one", "two"}));
}

TEST_F(ReplacedLinks, OfAStrangerInASharedDirectoryAreNotFollowed) {
    with_text("precious", "old");
    link("precious", "link");
    const Stranger stranger(false);
    for (const mode_t mode : {01777U, 01775U, 0777U}) {
        ASSERT_EQ(chmod(folder.path.c_str(), mode), 0);
        const bool is_shared = mode == 01777;
        EXPECT_EQ(replace("link"), is_shared ? EACCES : 0) << mode;
        EXPECT_EQ(read_file(path("precious")), is_shared ? "old" : "new") << mode;
    }
}

TEST_F(ReplacedLinks, OfTheCallerOrTheDirectorysOwnerAreFollowed) {
    with_text("file", "old");
    link("file", "link");
    ASSERT_EQ(chmod(folder.path.c_str(), 01777), 0);
    EXPECT_EQ(replace("link", "mine"), 0);
    const Stranger stranger(true);
    EXPECT_EQ(replace("link", "owner's"), 0);
    EXPECT_EQ(read_file(path("file")), "owner's");
}
