// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The working directory, resolved and relative paths, and the parts of a path.
#include <components/platform/file_control.h>

#include "file_support.h"
#include <malloc/zel_malloc.h>
#include <msg/msg.h>
#include <support/child.h>
#include <support/files.h>
#include <support/interpose.h>

#include <climits>
#include <cstdlib>
#include <gtest/gtest.h>
#include <optional>
#include <random>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace zel::test;

namespace {

std::string relative(const char *base, const char *target) {
    return take(platform_relative_path(base, target, nullptr)).value_or("(null)");
}

// The same way found by another road: split into components, drop the common ones, count what is left of the base. The
// last component of either path is never common, unless the paths are equal.
std::vector<std::string> components_of(const std::string &path) {
    std::vector<std::string> parts(1);
    for (const char character : path.substr(1)) {
        if (character == '/') {
            parts.emplace_back();
        } else {
            parts.back() += character;
        }
    }
    return parts;
}

std::string naive_relative(const std::string &base, const std::string &target) {
    if (base == target) {
        return ".";
    }
    const std::vector<std::string> from = components_of(base);
    const std::vector<std::string> to = components_of(target);
    size_t common = 0;
    while (common + 1 < from.size() && common + 1 < to.size() && from[common] == to[common]) {
        ++common;
    }
    std::string way;
    for (size_t step = common; step < from.size(); ++step) {
        way += "../";
    }
    for (size_t step = common; step < to.size(); ++step) {
        way += to[step] + (step + 1 < to.size() ? "/" : "");
    }
    return way;
}

std::string random_text(std::mt19937 &generator, const std::string &characters, size_t longest) {
    std::string text(generator() % (longest + 1), '\0');
    for (char &character : text) {
        character = characters[generator() % characters.size()];
    }
    return text;
}

} // namespace

TEST(WorkingDirectory, TheCallersBufferReceivesTheDirectory) {
    const ScratchFolder folder;
    const InFolder inside(folder.path);
    char buffer[PATH_MAX] = {};
    EXPECT_EQ(platform_get_cwd(buffer, sizeof buffer), buffer);
    EXPECT_EQ(std::string(buffer), folder.path);
}

TEST(WorkingDirectory, WithoutABufferTheMemoryLibraryAllocatesOne) {
    const ScratchFolder folder;
    const InFolder inside(folder.path);
    const unsigned long before = zel_malloc_total_requested();
    char *path = platform_get_cwd(nullptr, 1);
    EXPECT_EQ(zel_malloc_total_requested() - before, 4097U);
    EXPECT_EQ(take(path), folder.path);
}

TEST(WorkingDirectory, ABufferThatIsTooSmallGivesNull) {
    char buffer[1];
    EXPECT_EQ(platform_get_cwd(buffer, sizeof buffer), nullptr);
    EXPECT_EQ(errno, ERANGE);
}

TEST(WorkingDirectory, TheDirectoryIsChanged) {
    const ScratchFolder folder;
    const InFolder anywhere("/");
    EXPECT_EQ(platform_set_cwd(folder.path.c_str()), 1);
    EXPECT_EQ(take(platform_get_cwd(nullptr, 0)), folder.path);
}

TEST(WorkingDirectory, AChangeThatFailsIsReported) {
    const Outcome outcome = run_in_child([] {
        msg_add_stream(MSG_DIAG, stderr);
        printf("%d", platform_set_cwd("/there/is/no/such/place"));
    });
    EXPECT_EQ(outcome.out, "0");
    EXPECT_EQ(outcome.err, "platform_set_cwd: No such file or directory\n");
}

TEST(Resolve, LinksAndDotsAreRemoved) {
    const ScratchFolder folder;
    ASSERT_EQ(mkdir((folder.path + "/real").c_str(), 0755), 0);
    ASSERT_EQ(symlink("real", (folder.path + "/link").c_str()), 0);
    EXPECT_EQ(take(platform_resolve((folder.path + "/./link/../link/.").c_str(), nullptr)), folder.path + "/real");
    char buffer[4097];
    EXPECT_EQ(platform_resolve((folder.path + "/link").c_str(), buffer), buffer);
    EXPECT_EQ(std::string(buffer), folder.path + "/real");
}

TEST(Resolve, APathThatCannotBeResolvedGivesNullAndNothingIsLost) {
    int freed = 0;
    const Interposed counting(hook::free, [&freed](void *pointer) {
        freed += pointer != nullptr ? 1 : 0;
        hook::free.real(pointer);
    });
    EXPECT_EQ(platform_resolve("/there/is/no/such/place", nullptr), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(freed, 1);
}

TEST(Resolve, InADirectoryThePathIsTakenFromThereAndTheProcessComesBack) {
    const ScratchFolder folder;
    write_file(folder.path + "/file", "");
    const InFolder anywhere("/");
    EXPECT_EQ(take(platform_resolve_in(folder.path.c_str(), "file", nullptr)), folder.path + "/file");
    EXPECT_EQ(take(platform_get_cwd(nullptr, 0)), "/");
}

TEST(Resolve, InADirectoryThatIsMissingTheChangeIsReportedAndTheWorkGoesOn) {
    const Outcome outcome = run_in_child([] {
        msg_add_stream(MSG_DIAG, stderr);
        platform_set_cwd("/");
        char *path = platform_resolve_in("/there/is/no/such/place", "tmp", nullptr);
        printf("%s", path);
        zel_free(path);
    });
    EXPECT_EQ(outcome.out, "/tmp");
    EXPECT_EQ(outcome.err, "platform_set_cwd: No such file or directory\n");
}

TEST(Resolve, AWayBackThatIsClosedIsReportedToo) {
    const ScratchFolder folder;
    const std::string closed = folder.path + "/closed";
    ASSERT_EQ(mkdir(closed.c_str(), 0755), 0);
    ASSERT_EQ(mkdir((closed + "/inside").c_str(), 0755), 0);
    const Outcome outcome = run_in_child([&closed] {
        msg_add_stream(MSG_DIAG, stderr);
        platform_set_cwd((closed + "/inside").c_str());
        chmod(closed.c_str(), 0);
        give_up_root();
        char *path = platform_resolve_in("/", "tmp", nullptr);
        printf("%s", path);
        zel_free(path);
    });
    ASSERT_EQ(chmod(closed.c_str(), 0755), 0);
    EXPECT_EQ(outcome.out, "/tmp");
    EXPECT_EQ(outcome.err, "platform_set_cwd: Permission denied\n");
}

TEST(Resolve, TheStaticBufferIsSharedByAllCalls) {
    const char *first = platform_resolve_static("/tmp/..");
    EXPECT_STREQ(first, "/");
    EXPECT_EQ(platform_resolve_static("/./tmp"), first);
    EXPECT_STREQ(first, "/tmp");
}

TEST(Resolve, OnFailureTheStaticFormGivesThePathItself) {
    const char *path = "/there/is/no/such/place";
    EXPECT_EQ(platform_resolve_static(path), path);
}

TEST(Resolve, OnlyAPathThatBeginsWithASlashIsAbsolute) {
    EXPECT_EQ(platform_is_absolute("/a"), 1);
    EXPECT_EQ(platform_is_absolute("/"), 1);
    EXPECT_EQ(platform_is_absolute("a/b"), 0);
    EXPECT_EQ(platform_is_absolute(""), 0);
    EXPECT_EQ(platform_is_absolute(nullptr), 0);
}

TEST(RelativePath, EqualPathsGiveADot) {
    EXPECT_EQ(relative("/a/b", "/a/b"), ".");
    EXPECT_EQ(relative("/", "/"), ".");
}

TEST(RelativePath, EachSlashBehindTheCommonPartIsAStepUp) {
    EXPECT_EQ(relative("/a/b/c", "/a/x"), "../../x");
    EXPECT_EQ(relative("/a/b", "/c"), "../../c");
    EXPECT_EQ(relative("/a/bc", "/a/bd"), "../bd");
    EXPECT_EQ(relative("/a", "/a/b"), "../a/b");
    EXPECT_EQ(relative("/a/b/c/d", "/a"), "../../../../a");
}

TEST(RelativePath, ASlashAtTheEndOfTheBaseIsOneMoreStep) {
    EXPECT_EQ(relative("/a/b", "/a/x"), "../x");
    EXPECT_EQ(relative("/a/b/", "/a/x"), "../../x");
    EXPECT_EQ(relative("/a/b//", "/a/x"), "../../../x");
    EXPECT_EQ(relative("/a/b/", "/a/b/x"), "../x");
    EXPECT_EQ(relative("/a/b/", "/a/b"), "../../b");
    EXPECT_EQ(relative("/", "/x"), "../x");
}

TEST(RelativePath, PathsThatAreNotAbsoluteAreResolvedFirst) {
    const ScratchFolder folder;
    const InFolder inside(folder.path);
    ASSERT_EQ(mkdir("a", 0755), 0);
    ASSERT_EQ(mkdir("b", 0755), 0);
    ASSERT_EQ(symlink("b", "link"), 0);
    EXPECT_EQ(relative("a", "link"), "../b");
    EXPECT_EQ(relative("a", (folder.path + "/link").c_str()), "../link") << "an absolute path is used as it stands";
}

TEST(RelativePath, APathThatCannotBeResolvedGivesNull) {
    EXPECT_EQ(relative("there/is/none", "/a"), "(null)");
    EXPECT_EQ(relative("/a", "there/is/none"), "(null)");
}

TEST(RelativePath, AWayTooLongForABufferIsRefused) {
    std::string deep;
    for (int level = 0; level < 1400; ++level) {
        deep += "/d";
    }
    char buffer[4097];
    EXPECT_EQ(platform_relative_path(deep.c_str(), "/x", buffer), nullptr);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(relative(deep.c_str(), "/x"), "(null)");
}

TEST(RelativePath, TheLongestWayThatFitsIsWritten) {
    const std::string name(4096 - 3, 'n');
    char buffer[4097];
    ASSERT_EQ(platform_relative_path("/x", ("/" + name).c_str(), buffer), buffer);
    EXPECT_EQ(std::string(buffer), "../" + name);
    EXPECT_EQ(platform_relative_path("/x", ("/" + name + "n").c_str(), buffer), nullptr);
}

TEST(RelativePath, AllocatedResultsTake4097Bytes) {
    const unsigned long before = zel_malloc_total_requested();
    char *way = platform_relative_path("/a", "/b", nullptr);
    EXPECT_EQ(zel_malloc_total_requested() - before, 4097U);
    zel_free(way);
}

TEST(RelativePath, GeneratedPathsAgreeWithAnotherWayOfFindingIt) {
    std::mt19937 generator(20);
    for (int round = 0; round < 20000; ++round) {
        const std::string common = "/" + random_text(generator, "ab/", 6);
        const std::string base = common + random_text(generator, "abc/", 8);
        const std::string target = common + random_text(generator, "abc/", 8);
        ASSERT_EQ(relative(base.c_str(), target.c_str()), naive_relative(base, target)) << base << " to " << target;
    }
}

namespace {

struct Parts {
    const char *path;
    std::string dirname;
    std::string basename;
    std::optional<std::string> extension;
    std::string stem;
};

void expect_parts(const Parts &parts) {
    EXPECT_EQ(take(platform_dirname(parts.path, nullptr)), parts.dirname) << parts.path;
    EXPECT_EQ(take(platform_basename(parts.path, nullptr)), parts.basename) << parts.path;
    EXPECT_EQ(take(platform_extension(parts.path, nullptr)), parts.extension) << parts.path;
    EXPECT_EQ(take(platform_stem(parts.path, nullptr)), parts.stem) << parts.path;
}

// Another way of splitting: character by character, from the front.
Parts naive_parts(const std::string &path) {
    Parts parts = {.path = path.c_str(), .dirname = "", .basename = "", .extension = {}, .stem = ""};
    std::string passed;
    for (const char character : path) {
        if (character == '/') {
            parts.dirname = passed;
            parts.basename.clear();
            parts.stem.clear();
            parts.extension.reset();
        } else {
            if (character == '.' && !parts.basename.empty()) {
                parts.stem = parts.basename;
                parts.extension = "";
            }
            parts.basename += character;
            if (parts.extension.has_value()) {
                *parts.extension += character;
            } else {
                parts.stem += character;
            }
        }
        passed += character;
    }
    return parts;
}

} // namespace

TEST(PathParts, EachServiceGivesItsPart) {
    expect_parts({.path = "/a/b.c/name.tar.gz",
                  .dirname = "/a/b.c",
                  .basename = "name.tar.gz",
                  .extension = ".gz",
                  .stem = "name.tar"});
    expect_parts(
        {.path = "/a/b.c/.profile", .dirname = "/a/b.c", .basename = ".profile", .extension = {}, .stem = ".profile"});
    expect_parts({.path = "/a/.b.c", .dirname = "/a", .basename = ".b.c", .extension = ".c", .stem = ".b"});
    expect_parts({.path = "name", .dirname = "", .basename = "name", .extension = {}, .stem = "name"});
    expect_parts({.path = "/name", .dirname = "", .basename = "name", .extension = {}, .stem = "name"});
    expect_parts({.path = "a/", .dirname = "a", .basename = "", .extension = {}, .stem = ""});
    expect_parts({.path = "", .dirname = "", .basename = "", .extension = {}, .stem = ""});
    expect_parts({.path = "a.", .dirname = "", .basename = "a.", .extension = ".", .stem = "a"});
    expect_parts({.path = "..", .dirname = "", .basename = "..", .extension = ".", .stem = "."});
    expect_parts({.path = ".", .dirname = "", .basename = ".", .extension = {}, .stem = "."});
}

TEST(PathParts, ANullPathGivesNull) {
    EXPECT_EQ(platform_dirname(nullptr, nullptr), nullptr);
    EXPECT_EQ(platform_basename(nullptr, nullptr), nullptr);
    EXPECT_EQ(platform_extension(nullptr, nullptr), nullptr);
    EXPECT_EQ(platform_stem(nullptr, nullptr), nullptr);
}

TEST(PathParts, WithoutABufferPreciselyTheLengthAndOneMoreIsAllocated) {
    const unsigned long before = zel_malloc_total_requested();
    EXPECT_EQ(take(platform_dirname("/abc/d.ef", nullptr)), "/abc");
    EXPECT_EQ(zel_malloc_total_requested() - before, 5U);
    EXPECT_EQ(take(platform_basename("/abc/d.ef", nullptr)), "d.ef");
    EXPECT_EQ(zel_malloc_total_requested() - before, 10U);
    EXPECT_EQ(take(platform_extension("/abc/d.ef", nullptr)), ".ef");
    EXPECT_EQ(zel_malloc_total_requested() - before, 14U);
    EXPECT_EQ(take(platform_stem("/abc/d.ef", nullptr)), "d");
    EXPECT_EQ(zel_malloc_total_requested() - before, 16U);
}

TEST(PathParts, TheCallersBufferIsUsedAndMayBeThePathItself) {
    char buffer[] = "/abc/d.ef";
    EXPECT_EQ(platform_basename(buffer, buffer), buffer);
    EXPECT_STREQ(buffer, "d.ef");
    EXPECT_EQ(platform_extension(buffer, buffer), buffer);
    EXPECT_STREQ(buffer, ".ef");
}

TEST(PathParts, GeneratedPathsAgreeWithAnotherWayOfSplitting) {
    std::mt19937 generator(21);
    for (int round = 0; round < 20000; ++round) {
        const std::string path = random_text(generator, "ab./", 10);
        expect_parts(naive_parts(path));
    }
}
