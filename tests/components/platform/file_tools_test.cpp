// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The tools that remove, copy and move trees: how they are found, started and waited for.
#include <components/platform/file_control.h>

#include "file_support.h"
#include <malloc/zel_malloc.h>
#include <support/child.h>
#include <support/files.h>
#include <support/interpose.h>

#include <cstdlib>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

using namespace zel::test;

namespace {

using Tools = Files;

// In the child: what would be executed is written to standard output instead.
int print_instead_of_executing(const char *file, char *const *argv) {
    dprintf(1, "%s:", file);
    for (char *const *argument = argv; *argument != nullptr; ++argument) {
        dprintf(1, " %s", *argument);
    }
    dprintf(1, "\n");
    _exit(0);
}

// The files that the standard descriptors of this process lead to.
std::string standard_descriptors() {
    std::string found;
    for (const char *link : {"/proc/self/fd/0", "/proc/self/fd/1", "/proc/self/fd/2"}) {
        char target[4096] = {};
        found += readlink(link, target, sizeof target - 1) > 0 ? target : "nothing";
        found += '\n';
    }
    return found;
}

} // namespace

TEST_F(Tools, APathThatBeginsWithADashIsNoOption) {
    const Outcome outcome = run_in_child([this] {
        if (chdir(folder.path.c_str()) != 0 || mkdir("-tree", 0755) != 0) {
            exit(2);
        }
        write_file("-tree/file", "text");
        printf("%d", platform_copy_tree("-tree", "-copy"));
        printf("%d", platform_move_tree("-copy", "--moved"));
        printf("%d", platform_remove_tree("-tree"));
        printf("%d", platform_exists("--moved/file"));
    });
    EXPECT_EQ(outcome.out, "1111");
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(platform_exists(path("-tree").c_str()), 0);
    EXPECT_EQ(platform_exists(path("-copy").c_str()), 0);
}

TEST_F(Tools, AChildThatCannotBeCreatedIsAFailureAndNobodyIsWaitedFor) {
    const Interposed refusing(hook::fork, fail_always(hook::fork, ENOMEM, -1));
    int waits = 0;
    const Interposed counting(hook::waitpid, [&waits](pid_t, int *status, int) {
        ++waits;
        *status = 0;
        return -1;
    });
    EXPECT_EQ(platform_remove_tree("x"), 0);
    EXPECT_EQ(platform_copy_tree("x", "y"), 0);
    EXPECT_EQ(platform_move_tree(folder.path.c_str(), "y"), 0);
    EXPECT_EQ(waits, 0);
}

TEST_F(Tools, TheArgumentsAreThoseOfTheTool) {
    const Outcome outcome = run_in_child([this] {
        const Interposed printing(hook::execvp, print_instead_of_executing);
        platform_remove_tree("x");
        platform_copy_tree("a", "b");
        platform_move_tree(folder.path.c_str(), "c");
    });
    EXPECT_EQ(outcome.out,
              "/bin/rm: /bin/rm -r -f x\n/bin/cp: /bin/cp -a a b\n/bin/mv: /bin/mv -f " + folder.path + " c\n");
}

TEST_F(Tools, ToolsAreLookedForInBinThenUsrBinThenAlongThePath) {
    const Outcome outcome = run_in_child([this] {
        const Interposed printing(hook::execvp, print_instead_of_executing);
        std::set<std::string> hidden = {"/bin/rm"};
        const Interposed hiding(hook::access, [&hidden](const char *path, int mode) {
            return hidden.contains(path) ? -1 : hook::access.real(path, mode);
        });
        platform_remove_tree("x");
        hidden.insert("/usr/bin/rm");
        platform_remove_tree("x");
        hidden.insert("/bin/cp");
        platform_copy_tree("x", "y");
        hidden.insert("/usr/bin/cp");
        platform_copy_tree("x", "y");
        hidden.insert({"/bin/mv", "/usr/bin/mv"});
        platform_move_tree(folder.path.c_str(), "y");
    });
    EXPECT_EQ(outcome.out, "/usr/bin/rm: /usr/bin/rm -r -f x\nrm: rm -r -f x\n/usr/bin/cp: /usr/bin/cp -a x y\n"
                           "cp: cp -a x y\nmv: mv -f " +
                               folder.path + " y\n");
}

TEST_F(Tools, OnlyAWholeStatusOfZeroIsSuccess) {
    for (const int status : {1, 3, 255}) {
        const Interposed ending(hook::execvp, [status](const char *, char *const *) -> int { _exit(status); });
        EXPECT_EQ(platform_remove_tree("x"), 0) << status;
    }
    const Interposed dying(hook::execvp, [](const char *, char *const *) -> int {
        kill(getpid(), SIGKILL);
        return 0;
    });
    EXPECT_EQ(platform_remove_tree("x"), 0);
}

TEST_F(Tools, WhatToolsNeedIsNoAllocationOfTheProgram) {
    ASSERT_EQ(mkdir(path("tree").c_str(), 0755), 0);
    const unsigned long before = zel_malloc_total_requested();
    EXPECT_EQ(platform_copy_tree(path("tree").c_str(), path("copy").c_str()), 1);
    EXPECT_EQ(platform_remove_tree(path("tree").c_str()), 1);
    EXPECT_EQ(platform_remove_tree("-there is none"), 1);
    EXPECT_EQ(zel_malloc_total_requested(), before);
}

TEST_F(Tools, ANullPathIsRefusedAndNothingRuns) {
    EXPECT_EQ(forks_during([this] {
                  EXPECT_EQ(platform_remove_tree(nullptr), 0);
                  EXPECT_EQ(platform_copy_tree(nullptr, "x"), 0);
                  EXPECT_EQ(platform_copy_tree("x", nullptr), 0);
                  EXPECT_EQ(platform_move_tree(nullptr, "x"), 0);
                  EXPECT_EQ(platform_move_tree(folder.path.c_str(), nullptr), 0);
                  EXPECT_EQ(platform_remove_dir(nullptr), 0);
              }),
              0);
}

TEST_F(Tools, WaitingGoesOnAfterAnInterruption) {
    int calls = 0;
    const Interposed interrupting(hook::waitpid, [&calls](pid_t pid, int *status, int options) {
        if (calls++ < 3) {
            errno = EINTR;
            return -1;
        }
        return hook::waitpid.real(pid, status, options);
    });
    EXPECT_EQ(platform_remove_tree(path("missing").c_str()), 1);
    EXPECT_EQ(calls, 4);
}

TEST_F(Tools, AChildThatCannotBeWaitedForIsAFailure) {
    const Interposed losing(hook::waitpid, [](pid_t pid, int *status, int options) {
        hook::waitpid.real(pid, status, options);
        errno = ECHILD;
        return -1;
    });
    EXPECT_EQ(platform_remove_tree(path("missing").c_str()), 0);
}

TEST_F(Tools, ToolsInheritAllThreeStandardDescriptors) {
    const std::string expected = standard_descriptors();
    const Interposed comparing(hook::execvp, [&expected](const char *, char *const *) -> int {
        _exit(standard_descriptors() == expected ? 0 : 1);
    });
    EXPECT_EQ(platform_remove_tree("x"), 1);
    EXPECT_EQ(platform_copy_tree("x", "y"), 1);
    EXPECT_EQ(platform_move_tree(folder.path.c_str(), "y"), 1);
}

TEST_F(Tools, OnlyADashAtTheBeginningNeedsADirectoryBeforeIt) {
    const Outcome outcome = run_in_child([this] {
        const Interposed printing(hook::execvp, print_instead_of_executing);
        platform_remove_tree("a-b");
        platform_remove_tree("./-b");
        platform_remove_tree("-");
        platform_copy_tree("-a", "b");
        platform_copy_tree("a", "--");
        platform_move_tree(folder.path.c_str(), "-t");
    });
    EXPECT_EQ(outcome.out, "/bin/rm: /bin/rm -r -f a-b\n/bin/rm: /bin/rm -r -f ./-b\n/bin/rm: /bin/rm -r -f ./-\n"
                           "/bin/cp: /bin/cp -a ./-a b\n/bin/cp: /bin/cp -a a ./--\n/bin/mv: /bin/mv -f " +
                               folder.path + " ./-t\n");
}

TEST_F(Tools, WhatAReadOnlyPlaceHoldsStaysAndIsAFailure) {
    ASSERT_EQ(mkdir(path("place").c_str(), 0755), 0);
    ASSERT_EQ(mkdir(path("place/tree").c_str(), 0777), 0);
    ASSERT_EQ(chmod(path("place/tree").c_str(), 0777), 0);
    write_file(path("place/tree/file"), "text");
    ASSERT_EQ(chmod(path("place").c_str(), 0555), 0);
    open_to_all();
    const Outcome outcome = run_in_child([this] {
        give_up_root();
        printf("%d", platform_copy_tree(path("place/tree").c_str(), path("place/copy").c_str()));
        printf("%d", platform_move_tree(path("place/tree").c_str(), path("moved").c_str()));
        printf("%d", platform_copy_tree(path("place/tree").c_str(), path("copy").c_str()));
        printf("%d", platform_remove_tree(path("place/tree").c_str()));
    });
    EXPECT_EQ(outcome.out, "0010");
    EXPECT_TRUE(platform_is_dir(path("place/tree").c_str()));
    EXPECT_EQ(read_file(path("copy/file")), "text");
    ASSERT_EQ(chmod(path("place").c_str(), 0755), 0);
}

TEST_F(Tools, ToolsKeepNoStorage) {
    const Outcome outcome = run_in_child([this] {
        if (chdir(folder.path.c_str()) != 0 || mkdir("-a", 0755) != 0) {
            exit(2);
        }
        printf("%d", blocks_left_by([] { platform_copy_tree("-a", "-b"); }));
        printf("%d", blocks_left_by([] { platform_move_tree("-b", "-c"); }));
        printf("%d", blocks_left_by([] { platform_remove_tree("-c"); }));
    });
    EXPECT_EQ(outcome.out, "000");
}

TEST_F(Tools, WithoutMemoryForAPathTheProcessEnds) {
    const Outcome outcome = run_in_child([] {
        const Interposed failing(hook::malloc, [](size_t size) -> void * {
            return size == sizeof "./-" + 300 ? nullptr : hook::malloc.real(size);
        });
        platform_remove_tree(("-" + std::string(300, 'n')).c_str());
    });
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "Error: platform_spawn: Not enough memory to allocate 304 bytes.\n");
}
