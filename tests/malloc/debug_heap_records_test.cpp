// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The record table: its indices, reuse, growth and bytes in use.
#include "debug_heap_support.h"

#include <malloc/internal/debug_heap_state.h>
#include <msg/base/limits.h>
#include <support/interpose.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <vector>

using namespace zel::test;

namespace {

// The ID of an allocation, read from its header.
uint32_t id_of(const void *pointer) {
    return word_at(pointer, kIndexAt);
}

void *allocate() {
    return zel_malloc(1, "f", "p");
}

std::vector<void *> allocate_many(size_t count) {
    std::vector<void *> pointers(count);
    for (void *&pointer : pointers) {
        pointer = allocate();
    }
    return pointers;
}

// The number of requests for a larger table while the body ran.
int table_requests(const std::function<void()> &body) {
    static int requests;
    requests = 0;
    const Interposed counted(hook::realloc, [](void *table, size_t size) {
        ++requests;
        return hook::realloc.real(table, size);
    });
    body();
    return requests;
}

} // namespace

TEST(DebugHeapRecords, IndicesCountUpFromZero) {
    const Outcome outcome = run_heap(1, [] {
        for (int i = 0; i < 5; ++i) {
            printf("%u ", id_of(allocate()));
        }
    });
    EXPECT_EQ(outcome.out, "0 1 2 3 4 ");
}

TEST(DebugHeapRecords, TheRecordReleasedLastIsReusedFirst) {
    const Outcome outcome = run_heap(1, [] {
        const std::vector<void *> pointers = allocate_many(5);
        for (const size_t index : {1U, 3U, 2U}) {
            zel_free(pointers[index]);
        }
        for (int i = 0; i < 4; ++i) {
            printf("%u ", id_of(allocate()));
        }
    });
    EXPECT_EQ(outcome.out, "2 3 1 5 ");
}

TEST(DebugHeapRecords, AResizeTakesTheRecordThatItReleased) {
    const Outcome outcome = run_heap(1, [] {
        const std::vector<void *> pointers = allocate_many(3);
        zel_free(pointers[2]);
        printf("%u ", id_of(zel_realloc(pointers[1], 100000, "f", "p")));
        printf("%u", id_of(allocate()));
    });
    EXPECT_EQ(outcome.out, "1 2");
}

TEST(DebugHeapRecords, TheBytesInUseAreThoseAskedForAndNotReleased) {
    const Outcome outcome = run_heap(1, [] {
        printf("%lu ", zel_malloc_mem_used());
        void *five = zel_malloc(5, "f", "p");
        printf("%lu ", zel_malloc_mem_used());
        void *hundred = zel_calloc(10, 10, "f", "p");
        printf("%lu ", zel_malloc_mem_used());
        five = zel_realloc(five, 7, "f", "p");
        printf("%lu ", zel_malloc_mem_used());
        zel_free(hundred);
        printf("%lu ", zel_malloc_mem_used());
        zel_free(five);
        printf("%lu", zel_malloc_mem_used());
    });
    EXPECT_EQ(outcome.out, "0 5 105 107 7 0");
    EXPECT_EQ(outcome.err, "");
}

TEST(DebugHeapRecords, AFailedAllocationTakesNoRecord) {
    const Outcome outcome = run_heap(1, [] {
        allocate();
        {
            const Interposed failing(hook::malloc, fail_always(hook::malloc, ENOMEM, nullptr));
            zel_malloc_if_room(10);
        }
        printf("%lu ", zel_malloc_mem_used());
        printf("%u", id_of(allocate()));
    });
    EXPECT_EQ(outcome.out, "1 1");
}

TEST(DebugHeapRecords, TheTableKeepsItsRecordsWhenItGrows) {
    const Outcome outcome = run_heap(2, [] {
        const std::vector<void *> pointers = allocate_many(1500);
        bool in_order = true;
        for (size_t index = 0; index < pointers.size(); ++index) {
            in_order = in_order && id_of(pointers[index]) == index;
        }
        zel_malloc_debug_report(0);
        for (void *pointer : pointers) {
            zel_free(pointer);
        }
        zel_malloc_debug_report(1);
        printf("%d\n", in_order);
    });
    EXPECT_EQ(outcome.out, "zel_malloc_debug_report: 1500 bytes allocated, 1500 pointers\n"
                           "zel_malloc_debug_report: No storage was allocated\n1\n");
    EXPECT_EQ(outcome.err, "");
}

TEST(DebugHeapRecords, ReleasedRecordsAreReusedBeforeTheTableGrows) {
    const Outcome outcome = run_heap(1, [] {
        const std::vector<void *> pointers = allocate_many(1024);
        zel_free(pointers[3]);
        zel_free(pointers[700]);
        const int requests = table_requests([] {
            printf("%u ", id_of(allocate()));
            printf("%u ", id_of(allocate()));
        });
        printf("%d %u", requests, id_of(allocate()));
    });
    EXPECT_EQ(outcome.out, "700 3 0 1024");
}

TEST(DebugHeapRecords, TheTableIsNotRequestedThroughTheLibrary) {
    const Outcome outcome = run_heap(1, [] {
        int requests = table_requests([] { allocate(); });
        printf("%d %lu %lu", requests > 0, zel_malloc_total_requested(), zel_malloc_mem_used());
    });
    EXPECT_EQ(outcome.out, "1 16 1");
}

// ---- No memory for the table ----------------------------------------------------------------------------------------

namespace {

// Live blocks that fill the table: the next allocation makes it grow.
constexpr size_t kFull = zel::kRecordTableStep;

struct Attempt {
    void *pointer;
    int error;
};

// An allocation whose n-th request for a part of the table fails.
Attempt allocate_failing(int nth) {
    const Interposed failing(hook::realloc, fail_nth(hook::realloc, nth, ENOMEM, nullptr));
    void *pointer = zel_malloc_if_room(1);
    return {.pointer = pointer, .error = errno};
}

// From a full table the n-th request for a part of a larger one fails, for n = 0, 1, 2
// and so on, until an allocation gets its record.
void sweep(size_t full) {
    allocate_many(full);
    int failures = 0;
    Attempt attempt = allocate_failing(0);
    while (attempt.pointer == nullptr) {
        if (attempt.error != ENOMEM || zel_malloc_mem_used() != full) {
            exit(3);
        }
        ++failures;
        attempt = allocate_failing(failures);
    }
    printf("%d %d %lu\n", failures > 0, id_of(attempt.pointer) == full, zel_malloc_mem_used() - full);
    for (void *pointer : allocate_many(3 * kFull)) {
        zel_free(pointer);
    }
    zel_enable_malloc_debug(ZEL_MALLOC_VERIFY_HEAP);
    zel_free(attempt.pointer);
}

} // namespace

TEST(DebugHeapTable, WithoutMemoryAllPartsOfTheTableGrowOrNone) {
    for (const size_t full : {size_t{0}, kFull, 32 * kFull}) {
        const Outcome outcome = run_heap(ZEL_MALLOC_CHECK_PTR, [full] { sweep(full); });
        EXPECT_EQ(outcome.out, "1 1 1\n") << full;
        EXPECT_EQ(outcome.err, "");
        EXPECT_EQ(outcome.status, 0);
    }
}

TEST(DebugHeapTable, WithoutMemoryForTheTableARequestIsReported) {
    const Outcome outcome = run_heap(ZEL_MALLOC_CHECK_PTR, [] {
        allocate_many(kFull);
        const Interposed failing(hook::realloc, fail_nth(hook::realloc, 0, EXDEV, nullptr));
        zel_malloc(20, "F", "p");
    });
    EXPECT_EQ(outcome.err, "Error: F (via zel_malloc): Not enough memory to allocate 20 bytes for p.\n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(DebugHeapTable, WithoutMemoryForTheTableTheFailureHandlerDecides) {
    const Outcome outcome = run_heap(ZEL_MALLOC_CHECK_PTR, [] {
        zel_malloc_set_failure_handler([](unsigned long size, const char *text) -> void * {
            printf("%lu %s\n", size, text);
            return nullptr;
        });
        const Interposed failing(hook::realloc, fail_always(hook::realloc, ENOMEM, nullptr));
        printf("%d\n", zel_calloc(2, 10, "F", "p") == nullptr);
    });
    EXPECT_EQ(outcome.out, "20 F (via zel_calloc): Not enough memory to allocate 20 bytes for p.\n1\n");
    EXPECT_EQ(outcome.err, "");
}

TEST(DebugHeapTable, WithoutMemoryForTheTableTheBlockIsGivenBackAndCounted) {
    const Outcome outcome = run_heap(ZEL_MALLOC_CHECK_PTR, [] {
        static void *block;
        static void *given_back;
        hook::malloc.replacement = [](size_t size) { return block = hook::malloc.real(size); };
        hook::realloc.replacement = fail_always(hook::realloc, EXDEV, nullptr);
        hook::free.replacement = [](void *released) {
            given_back = released;
            hook::free.real(released);
            errno = EXDEV;
        };
        const bool failed = zel_malloc_if_room(5) == nullptr && errno == ENOMEM;
        hook::malloc.replacement = nullptr;
        hook::free.replacement = nullptr;
        printf("%d %d %lu %lu\n", failed, given_back == block, zel_malloc_total_requested(), zel_malloc_mem_used());
    });
    EXPECT_EQ(outcome.out, "1 1 20 0\n");
}

TEST(DebugHeapTable, AResizeNeverNeedsALargerTable) {
    const Outcome outcome = run_heap(ZEL_MALLOC_VERIFY_HEAP, [] {
        const std::vector<void *> pointers = allocate_many(kFull);
        int requests = table_requests([&pointers] { printf("%u ", id_of(zel_realloc(pointers[0], 9, "G", "g"))); });
        printf("%d", requests); // that of the block
    });
    EXPECT_EQ(outcome.out, "0 1");
}

TEST(DebugHeapTable, TheTableHasNoMoreRecordsThanThereAreIndices) {
    const Outcome outcome = run_heap(ZEL_MALLOC_CHECK_PTR, [] {
        zel::memory::debug_heap.capacity = INT32_MAX - zel::kRecordTableStep + 1;
        const int requests = table_requests([] { printf("%d ", zel_malloc_if_room(1) == nullptr); });
        printf("%d", requests);
    });
    EXPECT_EQ(outcome.out, "1 0");
}

// These tests hold the step of the table, 1024 records.
#ifndef ZEL_SMALL_CONSTANTS

TEST(DebugHeapRecordsSize, TheAllocationBehindEach1024thEnlargesTheTable) {
    const Outcome outcome = run_heap(1, [] {
        for (int number = 1; number <= 3 * 1024 + 1; ++number) {
            if (table_requests([] { allocate(); }) > 0) {
                printf("%d ", number);
            }
        }
    });
    EXPECT_EQ(outcome.out, "1 1025 2049 3073 ");
}

TEST(DebugHeapRecordsSize, NewRecordsAreTakenInTheirOrder) {
    const Outcome outcome = run_heap(1, [] {
        const std::vector<void *> pointers = allocate_many(2048);
        printf("%u %u %u %u", id_of(pointers[1023]), id_of(pointers[1024]), id_of(pointers[1025]),
               id_of(pointers[2047]));
    });
    EXPECT_EQ(outcome.out, "1023 1024 1025 2047");
}

#endif
