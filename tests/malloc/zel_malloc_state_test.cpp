// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The state of the memory library. The test program never allocates from the library, so
// that each child starts with the state of a new process.
#include "malloc_support.h"

#include <malloc/debug_heap.h>

#include <cstdlib>

using namespace zel::test;

namespace {

// Whether the work holds an attempt: after one the debug heap cannot be switched on.
bool counts_as_attempt(const std::function<void()> &work) {
    const Outcome outcome = run_unwrapped([&work] {
        work();
        zel_enable_malloc_debug(ZEL_MALLOC_CHECK_PTR);
        printf("on");
    });
    EXPECT_EQ(outcome.status, outcome.out == "on" ? 0 : 1) << outcome.err;
    return outcome.out != "on";
}

void request_nothing() {
    zel_malloc(0, "f", "p");
    zel_malloc_fl(0, "N", 1, "f.c");
    zel_malloc_if_room(0);
    zel_calloc(0, 1, "f", "p");
    zel_calloc(1, 0, "f", "p");
    zel_calloc_fl(0, 1, "N", 1, "f.c");
    zel_calloc_fl(1, 0, "N", 1, "f.c");
    zel_calloc_if_room(0, 1);
    zel_calloc_if_room(1, 0);
    zel_realloc(nullptr, 0, "f", "p");
    zel_realloc_fl(nullptr, 0, "N", 1, "f.c");
    zel_realloc_if_room(nullptr, 0);
    zel_strdup(nullptr, "f", "p");
    zel_strdup_fl(nullptr, "N", 1, "f.c");
    zel_free(nullptr);
}

} // namespace

TEST(MallocState, RequestsForNothingAreNoAttempts) {
    EXPECT_FALSE(counts_as_attempt(request_nothing));
}

TEST(MallocState, TheFirstAllocationIsAnAttempt) {
    EXPECT_TRUE(counts_as_attempt([] { zel_free(zel_malloc(1, "f", "p")); }));
}

TEST(MallocState, AnAllocationThatFailsIsAnAttempt) {
    EXPECT_TRUE(counts_as_attempt([] {
        const FailingRequest no_memory(0);
        zel_malloc_if_room(1);
    }));
}

TEST(MallocState, AResizeIsAnAttempt) {
    EXPECT_TRUE(counts_as_attempt([] { free(zel_realloc(malloc(8), 16, "f", "p")); }));
}

TEST(MallocState, TheTotalStartsAtZeroAndWrapsAtThirtyTwoBits) {
    const Outcome outcome = run_unwrapped([] {
        const Interposed no_memory(hook::malloc, fail_always(hook::malloc, ENOMEM, nullptr));
        printf("%lu ", zel_malloc_total_requested());
        zel_malloc_if_room(UINT32_MAX);
        printf("%lu ", zel_malloc_total_requested());
        zel_malloc_if_room(11);
        printf("%lu", zel_malloc_total_requested());
    });
    EXPECT_EQ(outcome.out, "0 4294967295 10");
}

TEST(MallocState, NoHandlerIsInstalledAtFirst) {
    const Outcome outcome = run_unwrapped([] { printf("%d", zel_malloc_set_failure_handler(nullptr) == nullptr); });
    EXPECT_EQ(outcome.out, "1");
}

TEST(MallocState, TheSettingsAreNoAttempts) {
    EXPECT_FALSE(counts_as_attempt([] {
        zel_malloc_set_failure_handler(nullptr);
        zel_malloc_total_requested();
    }));
}
