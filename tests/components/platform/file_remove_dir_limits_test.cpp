// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Removal of a directory at its limits: depth, descriptors, memory, calls that fail, and paths that are refused.
#include <components/platform/file_control.h>

#include "file_trees_support.h"
#include <malloc/zel_malloc.h>
#include <support/census.h>
#include <support/child.h>
#include <support/files.h>
#include <support/interpose.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <glob.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

using namespace zel::test;
namespace fs = std::filesystem;

namespace {

struct RemoveDirLimits : Trees {
    int remove(const std::string &name) const { return platform_remove_dir(path(name).c_str()); }

    // A tree of four levels with files, links to what stands outside it, and a hidden folder.
    void make_small_tree() const {
        make_folder("tree");
        make_chain("tree", 3);
        make_folder("tree/.hidden");
        make_file("tree/.hidden/file");
        make_link(path("outside"), "tree/b");
        make_link(path("outside"), "tree/d/.link");
    }

    void make_outside() const {
        make_folder("outside");
        make_file("outside/precious");
    }

    // Fails the n-th call of a function for n = 0, 1, 2 ..., until the removal makes no such call. Returns how many
    // calls it makes.
    template <typename Function, typename Result>
    int sweep(Function &function, int error, Result failed) const {
        for (int nth = 0;; ++nth) {
            fs::remove_all(path("tree"));
            make_small_tree();
            const auto descriptors = open_descriptors();
            int result = 0;
            int calls = 0;
            const int blocks = blocks_left_by([&] {
                auto failing_call = fail_nth(function, nth, error, failed);
                const Interposed failing(function, [&](auto... arguments) {
                    ++calls;
                    return failing_call(arguments...);
                });
                result = remove("tree");
            });
            EXPECT_EQ(blocks, 0) << "call " << nth;
            EXPECT_EQ(open_descriptors(), descriptors) << "call " << nth;
            EXPECT_TRUE(exists("outside/precious")) << "call " << nth;
            EXPECT_EQ(exists("tree"), result == 0) << "call " << nth;
            if (calls <= nth) {
                EXPECT_EQ(result, 1);
                return nth;
            }
        }
    }
};

} // namespace

TEST_F(RemoveDirLimits, ARemovalOutsideTheTestsFolderWouldEndTheTest) {
    const ScratchFolder other;
    write_file(other.path + "/precious", "");
    const Outcome outcome = run_in_child([&other] {
        const int fd = open(other.path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        const Interposed forwarding(hook::unlinkat, [](int directory, const char *name, int flags) {
            return hook::unlinkat.real(directory, name, flags);
        });
        unlinkat(fd, "precious", 0);
    });
    EXPECT_EQ(outcome.signal, SIGABRT);
    EXPECT_EQ(outcome.err, "precious would be removed outside " + folder.path + "\n");
    EXPECT_EQ(platform_exists((other.path + "/precious").c_str()), 1);
}

TEST_F(RemoveDirLimits, FiveThousandLevelsAreRemovedOnASmallStack) {
    make_folder("tree");
    make_chain("tree", 5000);
    const Outcome outcome = run_in_child([this] {
        const rlimit small = {.rlim_cur = 512 << 10, .rlim_max = 512 << 10};
        setrlimit(RLIMIT_STACK, &small);
        printf("%d", remove("tree"));
    });
    EXPECT_EQ(outcome.out, "1");
    EXPECT_FALSE(exists("tree"));
}

TEST_F(RemoveDirLimits, AtMost32DirectoriesAreHeldByDescriptor) {
    make_folder("tree");
    make_chain("tree", 100);
    const size_t before = open_descriptors().size();
    size_t most = 0;
    const Interposed counting(hook::openat, [&most](int fd, const char *name, int flags, mode_t mode) {
        const int opened = hook::openat.real(fd, name, flags, mode);
        most = std::max(most, open_descriptors().size());
        return opened;
    });
    EXPECT_EQ(remove("tree"), 1);
    EXPECT_GT(most, before);
    EXPECT_LE(most, before + 32);
}

TEST_F(RemoveDirLimits, ALevelThatIsAnotherOneOnTheWayBackEndsTheWalk) {
    make_folder("tree");
    make_chain("tree", 40);
    make_folder("outside");
    make_file("outside/later");
    bool moved = false;
    // At the first directory that is removed, the lowest, the highest ones have been let go.
    const Interposed moving(hook::unlinkat, [this, &moved](int fd, const char *name, int flags) {
        if (!moved && flags == AT_REMOVEDIR) {
            moved = rename(path("tree/d/d/d/d").c_str(), path("outside/d").c_str()) == 0;
        }
        return hook::unlinkat.real(fd, name, flags);
    });
    EXPECT_EQ(remove("tree"), 0);
    EXPECT_TRUE(moved);
    EXPECT_TRUE(exists("outside/later"));
    EXPECT_TRUE(exists("outside/d")) << "it has been emptied, and is not removed from where it does not belong";
    EXPECT_TRUE(exists("tree/d/d/d/later")) << "the walk went no further";
}

TEST_F(RemoveDirLimits, WhatIsMountedInTheTreeIsEmptiedAndStopsTheWalk) {
    make_folder("tree");
    make_folder("tree/m");
    make_file("tree/z");
    const Outcome outcome = run_in_child([this] {
        // A user without root's rights cannot mount, and is told instead that the directory is in use.
        const bool mounted = unshare(CLONE_NEWNS) == 0 &&
                             mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                             mount("none", path("tree/m").c_str(), "tmpfs", 0, nullptr) == 0;
        const Interposed busy(hook::unlinkat, [mounted](int fd, const char *name, int flags) {
            return !mounted && std::string(name) == "m" ? -1 : hook::unlinkat.real(fd, name, flags);
        });
        make_chain("tree/m", 40);
        const int result = remove("tree");
        printf("%d %d", result, exists("tree/m/d"));
    });
    EXPECT_EQ(outcome.out, "0 0");
    EXPECT_TRUE(exists("tree/m"));
    EXPECT_TRUE(exists("tree/z"));
}

TEST_F(RemoveDirLimits, WithoutDescriptorsTheResultIs0AndNothingIsLost) {
    make_outside();
    make_small_tree();
    std::string out = "0";
    rlim_t limit = 3;
    for (; out == "0" && limit < 100; ++limit) {
        const Outcome outcome = run_in_child([this, limit] {
            const rlimit few = {.rlim_cur = limit, .rlim_max = limit};
            setrlimit(RLIMIT_NOFILE, &few);
            printf("%d", remove("tree"));
        });
        out = outcome.out;
        ASSERT_TRUE(exists("outside/precious"));
        ASSERT_EQ(exists("tree"), out != "1");
    }
    EXPECT_EQ(out, "1");
    EXPECT_GT(limit, rlim_t{6});
}

TEST_F(RemoveDirLimits, WithoutProcNothingIsRemoved) {
    make_folder("tree");
    make_file("tree/file");
    const Outcome outcome = run_in_child([this] {
        // A user without root's rights cannot leave /proc behind, and is told instead that it is not there.
        const Interposed missing(hook::access, [](const char *name, int mode) {
            return std::string(name).starts_with("/proc/") ? -1 : hook::access.real(name, mode);
        });
        const bool confined = chroot(folder.path.c_str()) == 0 && chdir("/") == 0;
        printf("%d", platform_remove_dir(confined ? "/tree" : path("tree").c_str()));
    });
    EXPECT_EQ(outcome.out, "0");
    EXPECT_TRUE(exists("tree/file"));
}

TEST_F(RemoveDirLimits, AnyCallThatFailsLeavesNoDescriptorAndNoStorage) {
    make_outside();
    EXPECT_GT(sweep(hook::openat, EMFILE, -1), 4);
    EXPECT_GT(sweep(hook::fstat, EIO, -1), 4);
    EXPECT_GT(sweep(hook::unlinkat, EPERM, -1), 10);
    EXPECT_GT(sweep(hook::access, EACCES, -1), 4);
    EXPECT_GT(sweep(hook::glob, ENOMEM, GLOB_NOSPACE), 4);
    EXPECT_EQ(sweep(hook::fstatat, EIO, -1), 4); // one for each folder below
}

TEST_F(RemoveDirLimits, WithoutTheRecordOfAnExpansionTheResultIs0) {
    make_outside();
    const auto handler = zel_malloc_set_failure_handler([](unsigned long, const char *) -> void * { return nullptr; });
    int result = 0;
    int rounds = 0;
    for (; result == 0 && rounds < 100; ++rounds) {
        fs::remove_all(path("tree"));
        make_small_tree();
        const auto descriptors = open_descriptors();
        int records = 0;
        const Interposed failing(hook::malloc, [rounds, &records](size_t size) -> void * {
            return size == sizeof(glob_t) && records++ == rounds ? nullptr : hook::malloc.real(size);
        });
        EXPECT_EQ(blocks_left_by([&] { result = remove("tree"); }), 0) << rounds;
        EXPECT_EQ(open_descriptors(), descriptors) << rounds;
    }
    zel_malloc_set_failure_handler(handler);
    EXPECT_EQ(result, 1);
    EXPECT_GT(rounds, 4);
    EXPECT_TRUE(exists("outside/precious"));
}

TEST_F(RemoveDirLimits, APathThatEndsInADotIsRefusedBeforeAnythingIsRemoved) {
    make_folder("tree");
    make_folder("tree/below");
    make_file("tree/below/file");
    make_file("tree/file");
    const auto before = contents_of(folder.path);
    for (const char *name : {"tree/.", "tree/./", "tree/..", "tree/below/..", "tree/below/..///", "tree/below/././/"}) {
        EXPECT_EQ(remove(name), 0) << name;
    }
    EXPECT_EQ(contents_of(folder.path), before);
}

TEST_F(RemoveDirLimits, TheWorkingDirectoryAndItsParentAreNoNamesToRemove) {
    make_folder("a");
    make_folder("a/b");
    make_folder("a/b/c");
    make_file("a/b/c/file");
    const Outcome outcome = run_in_child([this] {
        for (const char *name : {".", "./", "..", "../", "", "../."}) {
            if (chdir(path("a/b/c").c_str()) != 0) {
                exit(2); // nothing may be removed from anywhere else
            }
            printf("%d", platform_remove_dir(name));
        }
    });
    EXPECT_EQ(outcome.out, "000000");
    EXPECT_TRUE(exists("a/b/c/file"));
}

TEST_F(RemoveDirLimits, TheRootIsRefusedBeforeAnythingIsLookedFor) {
    // Should it be gone into all the same, it is found empty, and no entry can be removed.
    int calls = 0;
    const Interposed empty(hook::glob, [&calls](const char *, int, int (*)(const char *, int), glob_t *) {
        ++calls;
        return GLOB_NOMATCH;
    });
    const Interposed stuck(hook::unlinkat, [&calls](int, const char *, int) {
        ++calls;
        return -1;
    });
    for (const char *name : {"/", "//", "///", "/.", "/..", "/./", "/../..//"}) {
        EXPECT_EQ(platform_remove_dir(name), 0) << name;
        EXPECT_EQ(calls, 0) << name;
    }
}

TEST_F(RemoveDirLimits, ADirectoryBehindLinksAndSlashesIsRemoved) {
    make_folder("real");
    make_link("real", "link");
    for (const char *name : {"link/tree", "link//tree", "real/../link/tree///", "./link/./tree/"}) {
        make_folder("real/tree");
        make_file("real/tree/file");
        EXPECT_EQ(remove(name), 1) << name;
        EXPECT_FALSE(exists("real/tree")) << name;
    }
    EXPECT_TRUE(exists("link"));
}

TEST_F(RemoveDirLimits, AFailureLeavesItsReasonInErrno) {
    make_folder("tree");
    make_file("tree/file");
    const Interposed stuck(hook::unlinkat, fail_always(hook::unlinkat, EROFS, -1));
    errno = 0;
    EXPECT_EQ(remove("tree"), 0);
    EXPECT_EQ(errno, EROFS);
}
