// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Where the path services put their results: the caller's buffer, or storage of the memory library; and what becomes of
// it when there is no result.
#include <components/platform/file_control.h>

#include "file_support.h"
#include <malloc/heap_report.h>
#include <malloc/zel_malloc.h>
#include <msg/msg.h>
#include <support/child.h>
#include <support/files.h>
#include <support/interpose.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

using namespace zel::test;

namespace {

// Makes folders in folders and enters them, until the path of the working directory has this length.
void enter_path_of_length(const std::string &start, size_t length) {
    size_t here = start.size();
    if (chdir(start.c_str()) != 0) {
        exit(2);
    }
    while (here < length) {
        const size_t left = length - here - 1;
        const std::string name(left > 200 ? 100 : left, 'd');
        if (mkdir(name.c_str(), 0755) != 0 || chdir(name.c_str()) != 0) {
            exit(3);
        }
        here += 1 + name.size();
    }
}

void fill(char *buffer, const std::string &text) {
    memcpy(buffer, text.c_str(), text.size() + 1);
}

// 2000 characters of which none is like its neighbours.
std::string long_name() {
    std::string name;
    for (int place = 0; place < 2000; ++place) {
        name += static_cast<char>('a' + place % 23);
    }
    return name;
}

// Releases like the library and spoils errno, as a program's own release may.
void free_and_spoil_errno(void *pointer) {
    hook::free.real(pointer);
    errno = EDOM;
}

} // namespace

TEST(ResolveEdges, WithoutABuffer4097BytesAreAllocated) {
    const unsigned long before = zel_malloc_total_requested();
    EXPECT_EQ(take(platform_resolve("/tmp", nullptr)), "/tmp");
    EXPECT_EQ(zel_malloc_total_requested() - before, 4097U);
    EXPECT_EQ(take(platform_resolve_in("/", "tmp", nullptr)), "/tmp");
    EXPECT_EQ(zel_malloc_total_requested() - before, 2 * 4097U);
}

TEST(ResolveEdges, FromADirectoryTheProcessComesBackAlsoWhenThePathIsMissing) {
    const InFolder anywhere("/");
    char buffer[4097];
    EXPECT_EQ(platform_resolve_in("/tmp", "there/is/none", buffer), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(take(platform_get_cwd(nullptr, 0)), "/");
    EXPECT_EQ(platform_resolve_in("/", "tmp", buffer), buffer);
    EXPECT_STREQ(buffer, "/tmp");
}

TEST(ResolveEdges, TheBufferMayBeThePathsOwn) {
    char buffer[4097] = "/tmp/../tmp/.";
    EXPECT_EQ(platform_resolve(buffer, buffer), buffer);
    EXPECT_STREQ(buffer, "/tmp");
    const char *first = platform_resolve_static("/tmp/.");
    EXPECT_STREQ(platform_resolve_static(first), "/tmp");
}

TEST(RelativePathEdges, TheBufferMayBeTheTargetsOwn) {
    char buffer[4097] = "/a/x/y";
    EXPECT_EQ(platform_relative_path("/a/b/c/d", buffer, buffer), buffer);
    EXPECT_STREQ(buffer, "../../../x/y");
}

TEST(WorkingDirectoryEdges, ANullPathIsReportedAsABadAddress) {
    const Outcome outcome = run_in_child([] {
        msg_add_stream(MSG_DIAG, stderr);
        printf("%d", platform_set_cwd(nullptr));
    });
    EXPECT_EQ(outcome.out, "0");
    EXPECT_EQ(outcome.err, "platform_set_cwd: Bad address\n");
}

namespace {

// The report of the memory library when the one allocation of a service fails. Nothing else may stay allocated.
template <typename Service>
std::string report_of(Service service) {
    const Outcome outcome = run_in_child([&service] {
        zel_malloc_set_failure_handler([](unsigned long, const char *message) -> void * {
            printf("%s", message);
            return nullptr;
        });
        zel_malloc_fail_after(0);
        printf("%s", service() == nullptr ? "" : " and a result");
    });
    EXPECT_EQ(outcome.status, 0);
    return outcome.out;
}

// The line of the unit's source that a report names.
std::string source_line(const std::string &report) {
    std::ifstream source(ZEL_SOURCE_DIR "/components/platform/file_control/paths.cpp");
    std::string line;
    for (int number = atoi(report.c_str() + report.find(", line ") + 7); number > 0; --number) {
        std::getline(source, line);
    }
    return line;
}

} // namespace

TEST(PathStorage, BuffersAndCopiesAreAskedForUnderTheirCategoryUnitAndLine) {
    const std::string unit = " in components/platform/file_control, line ";
    const std::string buffers[] = {
        report_of([] { return platform_get_cwd(nullptr, 0); }),
        report_of([] { return platform_resolve("/", nullptr); }),
        report_of([] { return platform_relative_path("/a", "/b", nullptr); }),
    };
    const std::string copies[] = {
        report_of([] { return platform_dirname("/a.b", nullptr); }),
        report_of([] { return platform_basename("/a.b", nullptr); }),
        report_of([] { return platform_extension("/a.b", nullptr); }),
        report_of([] { return platform_stem("/a.b", nullptr); }),
    };
    for (const std::string &report : buffers) {
        EXPECT_TRUE(report.starts_with("ZEL_MALLOC_ARRAY" + unit)) << report;
        EXPECT_TRUE(report.ends_with(": Not enough memory to allocate 4097 bytes.")) << report;
        EXPECT_NE(source_line(report).find("buffer_for("), std::string::npos) << report;
    }
    for (const std::string &report : copies) {
        EXPECT_TRUE(report.starts_with("ZEL_STRDUP" + unit)) << report;
        EXPECT_NE(source_line(report).find("copy_of("), std::string::npos) << report;
    }
    const std::set<std::string> different = {buffers[0], buffers[1], buffers[2], copies[0],
                                             copies[1],  copies[2],  copies[3]};
    EXPECT_EQ(different.size(), 7U) << "each service has a line of its own";
}

TEST(WorkingDirectoryEdges, AllocatedStorageTakesUpTo4095Characters) {
    for (const size_t length : {size_t{4095}, size_t{4096}}) {
        const ScratchFolder folder;
        const Outcome outcome = run_in_child([&folder, length] {
            enter_path_of_length(folder.path, length);
            char *path = platform_get_cwd(nullptr, 0);
            printf("%zu", path == nullptr ? 0 : strlen(path));
        });
        EXPECT_EQ(outcome.out, length == 4095 ? "4095" : "0");
    }
}

TEST(WorkingDirectoryEdges, WhatCannotBeToldLeavesNoStorageAndItsReason) {
    const ScratchFolder folder;
    const Outcome outcome = run_in_child([&folder] {
        if (chdir(folder.path.c_str()) != 0 || rmdir(folder.path.c_str()) != 0) {
            exit(2);
        }
        printf("%d", blocks_left_by([] { platform_get_cwd(nullptr, 0); }));
        const Interposed spoiling(hook::free, free_and_spoil_errno);
        printf(" %d %d", platform_get_cwd(nullptr, 0) == nullptr, errno == ENOENT);
    });
    EXPECT_EQ(outcome.out, "0 1 1");
}

TEST(ResolveEdges, WhatCannotBeResolvedLeavesItsReasonInErrno) {
    const Interposed spoiling(hook::free, free_and_spoil_errno);
    EXPECT_EQ(platform_resolve("/there/is/no/such/place", nullptr), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

TEST(ResolveEdges, AWayBackThatIsClosedLeavesTheReasonOfTheResolutionInErrno) {
    const ScratchFolder folder;
    const std::string closed = folder.path + "/closed";
    ASSERT_EQ(mkdir(closed.c_str(), 0755), 0);
    ASSERT_EQ(mkdir((closed + "/inside").c_str(), 0755), 0);
    const Outcome outcome = run_in_child([&closed] {
        platform_set_cwd((closed + "/inside").c_str());
        chmod(closed.c_str(), 0);
        give_up_root();
        char buffer[4097];
        printf("%d", platform_resolve_in("/", "dev/null/below", buffer) == nullptr);
        printf(" %d", errno == ENOTDIR);
    });
    ASSERT_EQ(chmod(closed.c_str(), 0755), 0);
    EXPECT_EQ(outcome.out, "1 1");
}

namespace {

// The results of platform_resolve_in for a relative and an absolute path in a directory that has no name; whether the
// process has stayed in it; and what was reported.
std::string resolved_without_way_back(const std::function<void()> &enter) {
    const Outcome outcome = run_in_child([&enter] {
        msg_add_stream(MSG_DIAG, stderr);
        enter();
        struct stat before;
        struct stat after;
        stat(".", &before);
        char buffer[4097] = "untouched";
        errno = 0;
        const bool none = platform_resolve_in("/", "tmp", buffer) == nullptr;
        printf("%d %s %s", none, errno == 0 ? "no reason" : "reason", buffer);
        printf(" %d", platform_resolve_in("/", nullptr, nullptr) == nullptr);
        printf(" %s", platform_resolve_in("/usr", "/usr/../tmp", buffer));
        printf(" %d", platform_resolve_in("/usr", "/dev/null/below", nullptr) == nullptr && errno == ENOTDIR);
        printf(" %d", stat(".", &after) == 0 && after.st_dev == before.st_dev && after.st_ino == before.st_ino);
    });
    return outcome.out + "\n" + outcome.err;
}

} // namespace

TEST(ResolveEdges, FromADirectoryThatWasRemovedTheProcessGoesNowhere) {
    const ScratchFolder folder;
    const std::string report = "platform_set_cwd: No such file or directory\n";
    EXPECT_EQ(resolved_without_way_back([&folder] {
                  if (chdir(folder.path.c_str()) != 0 || rmdir(folder.path.c_str()) != 0) {
                      exit(2);
                  }
              }),
              "1 reason untouched 1 /tmp 1 1\n" + report + report + report + report);
}

TEST(ResolveEdges, FromADirectoryTooDeepForANameTheProcessGoesNowhere) {
    const ScratchFolder folder;
    const std::string report = "platform_set_cwd: Numerical result out of range\n";
    EXPECT_EQ(resolved_without_way_back([&folder] { enter_path_of_length(folder.path, 4096); }),
              "1 reason untouched 1 /tmp 1 1\n" + report + report + report + report);
}

TEST(ResolveEdges, FromADirectoryOfTheLongestNameTheProcessComesBack) {
    const ScratchFolder folder;
    const Outcome outcome = run_in_child([&folder] {
        enter_path_of_length(folder.path, 4095);
        char buffer[4097];
        printf("%s", platform_resolve_in("/", "tmp", buffer));
        printf(" %zu", strlen(platform_get_cwd(buffer, 4096)));
    });
    EXPECT_EQ(outcome.out, "/tmp 4095");
}

TEST(ResolveEdges, NoPathGivesNoResult) {
    char buffer[4097];
    EXPECT_EQ(platform_resolve(nullptr, nullptr), nullptr);
    EXPECT_EQ(platform_resolve(nullptr, buffer), nullptr);
    EXPECT_EQ(platform_resolve_static(nullptr), nullptr);
    EXPECT_EQ(platform_resolve_in("/", nullptr, nullptr), nullptr);
    EXPECT_EQ(platform_resolve("", buffer), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

TEST(ResolveEdges, WithoutADirectoryTheChangeIsReportedAndTheWorkGoesOn) {
    const Outcome outcome = run_in_child([] {
        msg_add_stream(MSG_DIAG, stderr);
        platform_set_cwd("/");
        char buffer[4097];
        printf("%s", platform_resolve_in(nullptr, "tmp", buffer));
    });
    EXPECT_EQ(outcome.out, "/tmp");
    EXPECT_EQ(outcome.err, "platform_set_cwd: Bad address\n");
}

TEST(ResolveEdges, ThePathMayStandInTheBufferAlsoFromADirectory) {
    const InFolder anywhere("/");
    char buffer[4097] = "../tmp/.";
    EXPECT_EQ(platform_resolve_in("/", buffer, buffer), buffer);
    EXPECT_STREQ(buffer, "/tmp");
}

TEST(RelativePathEdges, TheBufferMayBeTheBasesOwnOrThatOfBoth) {
    char buffer[4097] = "/a/b/c/d";
    EXPECT_EQ(platform_relative_path(buffer, "/a/x/y", buffer), buffer);
    EXPECT_STREQ(buffer, "../../../x/y");
    fill(buffer, "/a/b");
    EXPECT_EQ(platform_relative_path(buffer, buffer, buffer), buffer);
    EXPECT_STREQ(buffer, ".");
}

TEST(RelativePathEdges, ALongTargetInTheBufferIsMovedEitherWayWhole) {
    const std::string name = long_name();
    char buffer[4097];
    fill(buffer, "/a/" + name);
    EXPECT_EQ(platform_relative_path("/a/b/c/d", buffer, buffer), buffer);
    EXPECT_EQ(std::string(buffer), "../../../" + name);
    fill(buffer, "/common/part/" + name);
    EXPECT_EQ(platform_relative_path("/common/part/b", buffer, buffer), buffer);
    EXPECT_EQ(std::string(buffer), "../" + name);
}

TEST(RelativePathEdges, NoPathGivesNoResultAndNoStorage) {
    EXPECT_EQ(blocks_left_by([] {
                  EXPECT_EQ(platform_relative_path(nullptr, "/a", nullptr), nullptr);
                  EXPECT_EQ(platform_relative_path("/a", nullptr, nullptr), nullptr);
                  EXPECT_EQ(platform_relative_path(nullptr, nullptr, nullptr), nullptr);
              }),
              0);
}

TEST(RelativePathEdges, AWayThatDoesNotFitLeavesNoStorageAndItsReason) {
    const std::string name(4096, 'n');
    char *way = nullptr;
    EXPECT_EQ(blocks_left_by([&] { way = platform_relative_path("/a", ("/" + name).c_str(), nullptr); }), 0);
    EXPECT_EQ(way, nullptr);
    const Interposed spoiling(hook::free, free_and_spoil_errno);
    EXPECT_EQ(platform_relative_path("/a", ("/" + name).c_str(), nullptr), nullptr);
    EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST(PathPartsEdges, EachPartMayStandInThePathsOwnBuffer) {
    char buffer[4097] = "/abc/de.f.g";
    EXPECT_EQ(platform_stem(buffer, buffer), buffer);
    EXPECT_STREQ(buffer, "de.f");
    fill(buffer, "/abc/de.f");
    EXPECT_EQ(platform_dirname(buffer, buffer), buffer);
    EXPECT_STREQ(buffer, "/abc");
    const std::string name = long_name();
    fill(buffer, "/" + name);
    EXPECT_EQ(platform_basename(buffer, buffer), buffer);
    EXPECT_EQ(std::string(buffer), name);
}

TEST(PathPartsEdges, ANullPathGivesNullAndLeavesTheBufferAlone) {
    char buffer[] = "before";
    EXPECT_EQ(platform_dirname(nullptr, buffer), nullptr);
    EXPECT_EQ(platform_basename(nullptr, buffer), nullptr);
    EXPECT_EQ(platform_extension(nullptr, buffer), nullptr);
    EXPECT_EQ(platform_stem(nullptr, buffer), nullptr);
    EXPECT_EQ(platform_extension("name", buffer), nullptr);
    EXPECT_STREQ(buffer, "before");
}

TEST(PathPartsEdges, APartThatIsMissingTakesNoStorage) {
    const unsigned long before = zel_malloc_total_requested();
    EXPECT_EQ(platform_extension("/a/b.c/.profile", nullptr), nullptr);
    EXPECT_EQ(zel_malloc_total_requested(), before);
}
