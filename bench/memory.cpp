// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Allocation and release, beside malloc and free.
#include "rows.h"
#include "table.h"

#include <malloc/zel_malloc.h>

#include <array>
#include <cstdlib>

namespace bench {

namespace {

constexpr size_t kBlocks = 256;
using Blocks = std::array<void *, kBlocks>;

// 16 to 1015 bytes, in no order that an allocator could profit from.
constexpr size_t size_of(size_t index) {
    return 16 + index * 619 % 1000;
}

void zel_pair_of_calls(benchmark::State &state) {
    while (state.KeepRunning()) {
        void *block = zel_malloc(64, "zel_pair_of_calls", "a block");
        benchmark::DoNotOptimize(&block);
        zel_free(block);
    }
}

void bare_pair_of_calls(benchmark::State &state) {
    while (state.KeepRunning()) {
        void *block = malloc(64);
        benchmark::DoNotOptimize(&block);
        free(block);
    }
}

void zel_many(benchmark::State &state) {
    Blocks blocks;
    while (state.KeepRunning()) {
        for (size_t i = 0; i < kBlocks; ++i) {
            blocks[i] = zel_malloc(size_of(i), "zel_many", "a block");
        }
        benchmark::DoNotOptimize(blocks);
        for (void *block : blocks) {
            zel_free(block);
        }
    }
}

void bare_many(benchmark::State &state) {
    Blocks blocks;
    while (state.KeepRunning()) {
        for (size_t i = 0; i < kBlocks; ++i) {
            blocks[i] = malloc(size_of(i));
        }
        benchmark::DoNotOptimize(blocks);
        for (void *block : blocks) {
            free(block);
        }
    }
}

} // namespace

void add_memory_rows() {
    add_row({.name = "64 bytes, allocated and released", .clock = Clock::own, .iterations = 1000000},
            {{"zel", zel_pair_of_calls}, {"floor", bare_pair_of_calls}});
    add_row({.name = "256 blocks of mixed sizes", .clock = Clock::own, .iterations = 1500},
            {{"zel", zel_many}, {"floor", bare_many}});
}

} // namespace bench
