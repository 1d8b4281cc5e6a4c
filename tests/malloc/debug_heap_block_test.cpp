// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The bytes of a block: its size, header, fill, padding and trailer.
#include "debug_heap_support.h"

#include <support/interpose.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace zel::test;

namespace {

// The byte of the system's storage that nobody wrote to.
constexpr int kUntouched = 0x55;

// The last request that reached the system.
struct Request {
    void *block;
    size_t size;
};

Request request;

void *untouched_block(size_t size) {
    request.size = size;
    request.block = hook::malloc.real(size);
    return request.block == nullptr ? nullptr : memset(request.block, kUntouched, size);
}

// A realloc that always moves: the old contents, then bytes that nobody wrote to.
void *moved_block(void *block, size_t size) {
    if (block != request.block) {
        return hook::realloc.real(block, size);
    }
    auto *moved = static_cast<char *>(hook::malloc.real(size));
    memset(moved, kUntouched, size);
    memcpy(moved, block, request.size < size ? request.size : size);
    hook::free.real(block);
    request = {.block = moved, .size = size};
    return moved;
}

// From now on new storage, and the grown part of a resized block, is full of the
// untouched byte. For children.
void watch_system() {
    hook::malloc.replacement = untouched_block;
    hook::realloc.replacement = moved_block;
}

void print_block() {
    hook::malloc.replacement = nullptr;
    printf("%s\n", hex(request.block, request.size).c_str());
}

// The block of the first allocation, in both modes.
std::string first_block(const std::function<void *()> &allocate) {
    std::string result;
    for (const int mode : {1, 2}) {
        const Outcome outcome = run_heap(mode, [&allocate] {
            watch_system();
            void *pointer = allocate();
            const bool stands_behind_header = pointer == static_cast<char *>(request.block) + 8;
            print_block();
            printf("%d\n", stands_behind_header);
        });
        EXPECT_EQ(outcome.err, "");
        EXPECT_TRUE(mode == 1 || outcome.out == result) << outcome.out;
        result = outcome.out;
    }
    return result;
}

std::string requested_size(size_t size) {
    return run_heap(1,
                    [size] {
                        watch_system();
                        zel_malloc(size, nullptr, nullptr);
                        const size_t block_size = request.size;
                        hook::malloc.replacement = nullptr;
                        printf("%zu %lu", block_size, zel_malloc_total_requested());
                    })
        .out;
}

} // namespace

TEST(DebugHeapBlock, FiveBytesTakeABlockOfTwenty) {
    EXPECT_EQ(first_block([] { return zel_malloc(5, "f", "p"); }),
              "00 00 00 00 6A E5 39 57 AB AB AB AB AB 55 55 55 41 B6 A7 35\n1\n");
}

TEST(DebugHeapBlock, EightBytesHaveNoPadding) {
    EXPECT_EQ(first_block([] { return zel_malloc(8, "f", "p"); }),
              "00 00 00 00 6A E5 39 57 AB AB AB AB AB AB AB AB 41 B6 A7 35\n1\n");
}

TEST(DebugHeapBlock, OneByteHasThreeBytesOfPadding) {
    EXPECT_EQ(first_block([] { return zel_malloc_if_room(1); }),
              "00 00 00 00 6A E5 39 57 AB 55 55 55 41 B6 A7 35\n1\n");
}

TEST(DebugHeapBlock, ClearedStorageIsClearedInItsLengthOnly) {
    EXPECT_EQ(first_block([] { return zel_calloc(2, 3, "f", "p"); }),
              "00 00 00 00 6A E5 39 57 00 00 00 00 00 00 55 55 41 B6 A7 35\n1\n");
}

TEST(DebugHeapBlock, ATextFillsItsLength) {
    EXPECT_EQ(first_block([] { return ZEL_STRDUP("guest!"); }),
              "00 00 00 00 6A E5 39 57 67 75 65 73 74 21 00 55 41 B6 A7 35\n1\n");
}

TEST(DebugHeapBlock, AProductThatWrappedToNothingIsABlockOfGuards) {
    EXPECT_EQ(first_block([] { return zel_calloc(SIZE_MAX / 2 + 1, 2, "f", "p"); }),
              "00 00 00 00 6A E5 39 57 41 B6 A7 35\n1\n");
}

TEST(DebugHeapBlock, TheHeaderHoldsTheIndexOfTheRecord) {
    const Outcome outcome = run_heap(1, [] {
        zel_malloc(5, "f", "p");
        watch_system();
        zel_malloc(1, "f", "p");
        print_block();
    });
    EXPECT_EQ(outcome.out, "01 00 00 00 6A E5 39 57 AB 55 55 55 41 B6 A7 35\n");
}

TEST(DebugHeapBlock, SizesAreRoundedUpToWordsAndGuarded) {
    const std::array<std::pair<size_t, const char *>, 12> sizes = {{{1, "16 16"},
                                                                    {2, "16 16"},
                                                                    {3, "16 16"},
                                                                    {4, "16 16"},
                                                                    {5, "20 20"},
                                                                    {7, "20 20"},
                                                                    {8, "20 20"},
                                                                    {9, "24 24"},
                                                                    {36, "48 48"},
                                                                    {1000, "1012 1012"},
                                                                    {1001, "1016 1016"},
                                                                    {65536, "65548 65548"}}};
    for (const auto &[size, expected] : sizes) {
        EXPECT_EQ(requested_size(size), expected) << "for " << size;
    }
}

TEST(DebugHeapBlock, TheTableIsNotCountedAsRequested) {
    const Outcome outcome = run_heap(1, [] {
        zel_malloc(1, "f", "p");
        zel_malloc(5, "f", "p");
        printf("%lu", zel_malloc_total_requested());
    });
    EXPECT_EQ(outcome.out, "36");
}

TEST(DebugHeapBlock, FailedAttemptsAreCountedAsTheirBlocks) {
    const Outcome outcome = run_heap(1, [] {
        void *pointer = zel_malloc(1, "f", "p");
        const Interposed no_memory(hook::malloc, fail_always(hook::malloc, ENOMEM, nullptr));
        const Interposed no_room(hook::realloc, fail_always(hook::realloc, ENOMEM, nullptr));
        zel_malloc_if_room(5);
        const unsigned long after_malloc = zel_malloc_total_requested();
        zel_realloc_if_room(pointer, 9);
        const unsigned long after_realloc = zel_malloc_total_requested();
        hook::malloc.replacement = nullptr;
        printf("%lu %lu", after_malloc, after_realloc);
    });
    EXPECT_EQ(outcome.out, "36 60");
}

// ---- Release --------------------------------------------------------------------------------------------------------

TEST(DebugHeapBlock, AReleasedBlockGoesBackMarkedAndFilled) {
    for (const int mode : {1, 2}) {
        const Outcome outcome = run_heap(mode, [] {
            zel_malloc(1, "f", "p");
            watch_system();
            void *pointer = zel_malloc(5, "f", "p");
            memcpy(pointer, "guest", 5);
            const SeenByTheSystem *seen = watch_next_release(20);
            zel_free(pointer);
            const bool is_whole_block = seen->block == request.block;
            hook::malloc.replacement = nullptr;
            printf("%s\n%d\n", hex(seen->bytes.data(), 20).c_str(), is_whole_block);
        });
        EXPECT_EQ(outcome.out, "01 00 00 00 7E 5B 2C 7D AB AB AB AB AB 55 55 55 41 B6 A7 35\n1\n");
        EXPECT_EQ(outcome.status, 0);
    }
}

TEST(DebugHeapBlock, APaddingWrittenToGoesUnnoticed) {
    for (const int mode : {1, 2}) {
        const Outcome outcome = run_heap(mode, [] {
            auto *pointer = static_cast<char *>(zel_malloc(5, "f", "p"));
            pointer[5] = pointer[6] = pointer[7] = '!';
            zel_free(zel_malloc(1, "f", "p"));
            zel_free(pointer);
        });
        EXPECT_EQ(outcome.err, "");
        EXPECT_EQ(outcome.status, 0);
    }
}

// ---- Resize ---------------------------------------------------------------------------------------------------------

namespace {

// The block of 5 bytes "guest" after a resize to that size.
std::string resized_block(size_t size) {
    const Outcome outcome = run_heap(1, [size] {
        watch_system();
        void *pointer = zel_malloc(5, "f", "p");
        memcpy(pointer, "guest", 5);
        zel_realloc(pointer, size, "f", "p");
        print_block();
    });
    EXPECT_EQ(outcome.err, "");
    return outcome.out;
}

} // namespace

TEST(DebugHeapBlock, TheGrownPartOfAResizedBlockIsNotFilled) {
    EXPECT_EQ(resized_block(14),
              "00 00 00 00 6A E5 39 57 67 75 65 73 74 55 55 55 41 B6 A7 35 55 55 55 55 41 B6 A7 35\n");
}

TEST(DebugHeapBlock, AShrunkenBlockHasItsTrailerBehindWhatIsLeft) {
    EXPECT_EQ(resized_block(2), "00 00 00 00 6A E5 39 57 67 75 65 73 41 B6 A7 35\n");
}

TEST(DebugHeapBlock, ABlockIsHandedToTheSystemForResizeAsReleased) {
    const Outcome outcome = run_heap(1, [] {
        watch_system();
        void *pointer = zel_malloc(5, "f", "p");
        memcpy(pointer, "guest", 5);
        static std::string seen;
        const Interposed watched(hook::realloc, [](void *block, size_t size) {
            seen = hex(block, 20) + "\n" + (block == request.block ? "same block, " : "other, ") + std::to_string(size);
            return hook::realloc.real(block, size);
        });
        zel_realloc(pointer, 9, "f", "p");
        hook::malloc.replacement = nullptr;
        printf("%s\n", seen.c_str());
    });
    EXPECT_EQ(outcome.out, "00 00 00 00 7E 5B 2C 7D 67 75 65 73 74 55 55 55 41 B6 A7 35\nsame block, 24\n");
}

TEST(DebugHeapBlock, AResizeOfANullPointerFillsLikeAnAllocation) {
    EXPECT_EQ(first_block([] { return zel_realloc(nullptr, 4, "f", "p"); }),
              "00 00 00 00 6A E5 39 57 AB AB AB AB 41 B6 A7 35\n1\n");
}

// ---- Requests too large for a block ---------------------------------------------------------------------------------

namespace {

// The size that reached the system, as its distance from SIZE_MAX. Every request fails.
void refuse_huge() {
    hook::malloc.replacement = [](size_t size) -> void * {
        request.size = size;
        if (size < SIZE_MAX / 2) {
            return hook::malloc.real(size);
        }
        errno = ENOMEM;
        return nullptr;
    };
    hook::realloc.replacement = [](void *block, size_t size) -> void * {
        if (size < SIZE_MAX / 2) {
            return hook::realloc.real(block, size);
        }
        request.size = size;
        errno = ENOMEM;
        return nullptr;
    };
}

} // namespace

TEST(DebugHeapBlock, NoSizeWrapsToASmallBlock) {
    for (size_t below = 0; below < 32; ++below) {
        const Outcome outcome = run_heap(1, [below] {
            refuse_huge();
            const void *block = zel_malloc_if_room(SIZE_MAX - below);
            const bool asked_for_enough = request.size >= SIZE_MAX - below;
            printf("%d %d", block == nullptr, asked_for_enough);
        });
        EXPECT_EQ(outcome.out, "1 1") << below << " below the largest: " << outcome.err;
        EXPECT_EQ(outcome.status, 0);
    }
}

TEST(DebugHeapBlock, AHugeRequestIsReportedWithItsOwnSize) {
    const Outcome outcome = run_heap(2, [] {
        refuse_huge();
        zel_malloc(SIZE_MAX - 1, "main", "everything");
    });
    EXPECT_EQ(outcome.err, "Error: main (via zel_malloc): Not enough memory to allocate " +
                               std::to_string(SIZE_MAX - 1) + " bytes for everything.\n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(DebugHeapBlock, AHugeResizeFailsLikeOneThatTheSystemCannotProvide) {
    const Outcome outcome = run_heap(1, [] {
        void *pointer = zel_malloc(5, "f", "p");
        refuse_huge();
        const void *resized = zel_realloc_if_room(pointer, SIZE_MAX - 3);
        const bool asked_for_enough = request.size >= SIZE_MAX - 3;
        printf("%d %d", resized == nullptr, asked_for_enough);
    });
    EXPECT_EQ(outcome.out, "1 1");
    EXPECT_EQ(outcome.status, 0);
}
