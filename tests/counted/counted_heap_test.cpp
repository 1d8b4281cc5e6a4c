// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// What a block of the memory library costs.
#include "cost.h"

#include <malloc/debug_heap.h>
#include <malloc/zel_malloc.h>

#include <gtest/gtest.h>

#include <algorithm>

namespace {

using namespace zel::test;

constexpr int kModes[] = {0, ZEL_MALLOC_CHECK_PTR, ZEL_MALLOC_VERIFY_HEAP};
constexpr size_t kSmall = 64;
constexpr size_t kOutsideTheHeap = 16 << 20;

void *allocate(size_t size = kSmall) {
    void *block = zel_malloc(size, "allocate", "a block");
    require(block != nullptr, "zel_malloc");
    return block;
}

// A heap in that mode, with some blocks that live and storage for more.
void set_up(int mode) {
    constexpr int kBlocks = 50;
    zel_enable_malloc_debug(mode);
    void *blocks[kBlocks];
    for (void *&block : blocks) {
        block = allocate();
        allocate();
    }
    std::for_each(std::begin(blocks), std::end(blocks), zel_free);
}

// In each mode the work on a block takes and gives back so many blocks. It makes no system
// call and copies nothing.
void expect_blocks_in_each_mode(size_t taken, size_t given_back, void (*work)(void *block)) {
    for (const int mode : kModes) {
        const Cost cost = cost_of([mode, work] {
            set_up(mode);
            void *block = allocate();
            const Counted counted;
            work(block);
        });
        EXPECT_EQ(cost.calls, Calls{}) << mode;
        EXPECT_EQ(cost.allocations, taken) << mode;
        EXPECT_EQ(cost.releases, given_back) << mode;
        EXPECT_EQ(cost.copied, 0U) << mode;
    }
}

TEST(CountedHeap, ARequestIsOneBlockInEachMode) {
    expect_blocks_in_each_mode(1, 0, [](void * /*block*/) { allocate(); });
}

TEST(CountedHeap, AReleaseGivesOneBlockBackInEachMode) {
    expect_blocks_in_each_mode(0, 1, zel_free);
}

TEST(CountedHeap, AResizeIsOneRequestInEachMode) {
    expect_blocks_in_each_mode(1, 0, [](void *block) { zel_realloc(block, 2 * kSmall, "test", "a block"); });
}

TEST(CountedHeap, ATextIsCopiedOnceIntoOneBlockInEachMode) {
    for (const int mode : kModes) {
        const Cost cost = cost_of([mode] {
            set_up(mode);
            const Counted counted;
            zel_strdup("/home/guest", "test", "a path");
        });
        EXPECT_EQ(cost.calls, Calls{}) << mode;
        EXPECT_EQ(cost.allocations, 1U) << mode;
        EXPECT_LE(cost.copied, sizeof "/home/guest") << mode;
    }
}

// The record table holds 1024 blocks at first.
TEST(CountedHeap, ABlockTakesNoMemoryButItsOwnWhileRecordsAreFree) {
    constexpr int kBlocks = 900;
    for (const int mode : kModes) {
        const Cost cost = cost_of([mode] {
            set_up(mode);
            const Counted counted;
            for (int block = 0; block < kBlocks; ++block) {
                allocate();
            }
        });
        EXPECT_EQ(cost.allocations, size_t{kBlocks}) << mode;
    }
}

TEST(CountedHeap, SwitchingTheModeTakesNoMemory) {
    for (const int mode : {ZEL_MALLOC_CHECK_PTR, ZEL_MALLOC_VERIFY_HEAP}) {
        const Cost cost = cost_of([mode] {
            set_up(mode);
            const Counted counted;
            zel_enable_malloc_debug(ZEL_MALLOC_CHECK_PTR + ZEL_MALLOC_VERIFY_HEAP - mode);
        });
        EXPECT_EQ(cost.calls, Calls{}) << mode;
        EXPECT_EQ(cost.allocations, 0U) << mode;
    }
}

// Whether storage outside the system's heap can be read, the system is asked by futex:
// once for the header and once for the trailer.
TEST(CountedHeap, AVerificationAsksTwiceForABlockOutsideTheHeap) {
    const Cost cost = cost_of([] {
        set_up(ZEL_MALLOC_VERIFY_HEAP);
        allocate(kOutsideTheHeap);
        const Counted counted;
        allocate();
    });
    EXPECT_EQ(cost.calls, (Calls{"futex", "futex"}));
}

TEST(CountedHeap, AReleaseAsksAtMostThreeTimesForABlockOutsideTheHeap) {
    const Cost cost = cost_of([] {
        set_up(ZEL_MALLOC_CHECK_PTR);
        void *block = allocate(kOutsideTheHeap);
        const Counted counted;
        zel_free(block);
    });
    EXPECT_LE(std::count(cost.calls.begin(), cost.calls.end(), "futex"), 3);
    EXPECT_EQ(cost.calls.back(), "munmap");
}

} // namespace
