// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// What a file costs, and a program's start with its hook.
#include "cost.h"

#include <components/platform/debug_hooks.h>
#include <components/platform/file_control.h>
#include <support/files.h>

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace {

using namespace zel::test;

// The cost of the removal of a folder with that many files.
Cost cost_of_removal(const ScratchFolder &scratch, int files) {
    return cost_of([tree = scratch.path + "/tree", files] {
        mkdir(tree.c_str(), 0777);
        for (int file = 0; file < files; ++file) {
            write_file(tree + "/" + std::to_string(file), "text");
        }
        const Counted counted;
        platform_remove_dir(tree.c_str());
    });
}

TEST(CountedFiles, AFileMoreIsAtMostTwoSystemCallsMoreToRemoveATree) {
    const ScratchFolder scratch;
    const Cost few = cost_of_removal(scratch, 10);
    const Cost many = cost_of_removal(scratch, 20);
    EXPECT_GE(many.calls.size() - few.calls.size(), 10U); // each is unlinked
    EXPECT_LE(many.calls.size() - few.calls.size(), 2U * 10U);
    EXPECT_LE(many.allocations - few.allocations, 2U * 10U);
}

TEST(CountedFiles, ACopyReadsAndWritesWithoutMemory) {
    const ScratchFolder scratch;
    const Cost cost = cost_of([from = scratch.path + "/from", to = scratch.path + "/to"] {
        write_file(from, "text");
        const Counted counted;
        platform_copy_file(from.c_str(), to.c_str());
    });
    EXPECT_EQ(cost.calls,
              (Calls{"open", "open", "stat", "stat", "ftruncate", "read", "write", "read", "close", "close"}));
    EXPECT_EQ(cost.allocations, 0U);
    EXPECT_EQ(cost.copied, 0U);
}

TEST(CountedFiles, AStampIsOneQuestion) {
    const Cost cost = cost_of([] {
        const Counted counted;
        platform_file_stamp("/dev/null");
    });
    EXPECT_EQ(cost.calls, Calls{"stat"});
    EXPECT_EQ(cost.allocations, 0U);
}

TEST(CountedStart, AHookWithoutARequestAsksNothingOfTheSystem) {
    const Cost cost = cost_of([] {
        unsetenv("ZEL_DEBUG");
        char name[] = "program";
        char word[] = "notes.txt";
        char *argv[] = {name, word, nullptr};
        int32_t argc = 2;
        const Counted counted;
        platform_debug_hooks(&argc, argv);
    });
    EXPECT_EQ(cost.calls, Calls{});
    EXPECT_EQ(cost.allocations, 0U);
}

} // namespace
