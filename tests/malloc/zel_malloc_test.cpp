// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The entries that allocate, resize and release: their requests, refusals and counts.
#include "malloc_support.h"

#include <algorithm>
#include <cstring>
#include <type_traits>

using namespace zel::test;

namespace {

using Calls = std::vector<std::string>;

void *pointer_of(uintptr_t address) {
    return reinterpret_cast<void *>(address); // NOLINT(performance-no-int-to-ptr)
}

// The growth of the total by the work, modulo its width.
uint32_t requested_by(const std::function<void()> &work) {
    const auto before = static_cast<uint32_t>(zel_malloc_total_requested());
    work();
    return static_cast<uint32_t>(zel_malloc_total_requested()) - before;
}

bool all_zero(const void *block, size_t size) {
    const auto *bytes = static_cast<const unsigned char *>(block);
    return std::all_of(bytes, bytes + size, [](unsigned char byte) { return byte == 0; });
}

// In its scope no byte of new storage is 0.
struct DirtyAllocator {
    Interposed<void *(size_t)> malloc{hook::malloc, [](size_t size) {
                                          void *block = hook::malloc.real(size);
                                          return memset(block, 0xEE, size);
                                      }};
};

// The entries that allocate, by size.
struct Allocation {
    const char *entry;
    std::function<void *(size_t)> call;
};

const std::vector<Allocation> kAllocations = {
    {"zel_malloc", [](size_t size) { return zel_malloc(size, "f", "p"); }},
    {"zel_malloc_fl", [](size_t size) { return zel_malloc_fl(size, "N", 1, "f.c"); }},
    {"zel_malloc_if_room", [](size_t size) { return zel_malloc_if_room(size); }},
    {"zel_realloc", [](size_t size) { return zel_realloc(nullptr, size, "f", "p"); }},
    {"zel_realloc_fl", [](size_t size) { return zel_realloc_fl(nullptr, size, "N", 1, "f.c"); }},
    {"zel_realloc_if_room", [](size_t size) { return zel_realloc_if_room(nullptr, size); }},
};

// The entries that clear, by count and size.
struct ZeroedAllocation {
    const char *entry;
    std::function<void *(size_t, size_t)> call;
};

const std::vector<ZeroedAllocation> kZeroedAllocations = {
    {"zel_calloc", [](size_t count, size_t size) { return zel_calloc(count, size, "f", "p"); }},
    {"zel_calloc_fl", [](size_t count, size_t size) { return zel_calloc_fl(count, size, "N", 1, "f.c"); }},
    {"zel_calloc_if_room", [](size_t count, size_t size) { return zel_calloc_if_room(count, size); }},
};

// The entries that resize.
struct Resizing {
    const char *entry;
    std::function<void *(void *, size_t)> call;
    const char *name; // in the text of a refusal
};

const std::vector<Resizing> kResizings = {
    {"zel_realloc", [](void *pointer, size_t size) { return zel_realloc(pointer, size, "f", "p"); }, "zel_realloc"},
    {"zel_realloc_fl", [](void *pointer, size_t size) { return zel_realloc_fl(pointer, size, "ZEL_NAME", 1, "f.c"); },
     "ZEL_NAME"},
    {"zel_realloc_if_room", [](void *pointer, size_t size) { return zel_realloc_if_room(pointer, size); },
     "zel_realloc_if_room"},
};

// "0x" and the digits of a pointer on this target.
std::string digits(const std::string &significant) {
    return "0x" + std::string(2 * sizeof(void *) - significant.size(), '0') + significant;
}

// Prints when the pointer goes to the system.
Outcome release_in_child(uintptr_t address) {
    return run_unwrapped([address] {
        const Interposed releasing(hook::free, [address](void *pointer) {
            if (pointer == pointer_of(address)) {
                printf("released");
                return;
            }
            hook::free.real(pointer);
        });
        zel_free(pointer_of(address));
    });
}

} // namespace

TEST(ZelMalloc, EveryEntryAsksTheSystemForTheSizeOnce) {
    for (const Allocation &allocation : kAllocations) {
        SCOPED_TRACE(allocation.entry);
        const AllocatorLog log;
        void *block = allocation.call(100);
        EXPECT_EQ(log.calls, Calls{"malloc 100"});
        EXPECT_EQ(log.blocks, std::vector<void *>{block});
        zel_free(block);
    }
}

TEST(ZelMalloc, NoBytesAreNullAndNothingIsAllocated) {
    for (const Allocation &allocation : kAllocations) {
        SCOPED_TRACE(allocation.entry);
        const AllocatorLog log;
        EXPECT_EQ(requested_by([&] { EXPECT_EQ(allocation.call(0), nullptr); }), 0U);
        EXPECT_EQ(log.calls, Calls{});
    }
}

TEST(ZelMalloc, TheBlockIsNotInitialised) {
    const DirtyAllocator dirty;
    auto *block = static_cast<unsigned char *>(zel_malloc(3, "f", "p"));
    EXPECT_EQ(block[0] + block[1] + block[2], 3 * 0xEE);
    zel_free(block);
}

TEST(ZelMalloc, DescriptionsMayBeMissing) {
    void *block = zel_malloc(8, nullptr, nullptr);
    EXPECT_NE(block, nullptr);
    zel_free(block);
}

TEST(ZelCalloc, AnEntryAsksForTheProductAndClearsIt) {
    const DirtyAllocator dirty;
    for (const ZeroedAllocation &allocation : kZeroedAllocations) {
        SCOPED_TRACE(allocation.entry);
        const AllocatorLog log;
        void *block = allocation.call(7, 13);
        EXPECT_EQ(log.calls, Calls{"malloc 91"});
        EXPECT_TRUE(all_zero(block, 91));
        zel_free(block);
    }
}

TEST(ZelCalloc, ACountOrASizeOfZeroIsNullAndNothingIsAllocated) {
    for (const ZeroedAllocation &allocation : kZeroedAllocations) {
        SCOPED_TRACE(allocation.entry);
        const AllocatorLog log;
        EXPECT_EQ(allocation.call(0, 8), nullptr);
        EXPECT_EQ(allocation.call(8, 0), nullptr);
        EXPECT_EQ(allocation.call(0, 0), nullptr);
        EXPECT_EQ(log.calls, Calls{});
    }
}

TEST(ZelCalloc, TheProductWrapsWithoutATest) {
    for (const ZeroedAllocation &allocation : kZeroedAllocations) {
        SCOPED_TRACE(allocation.entry);
        const AllocatorLog log;
        void *block = allocation.call(SIZE_MAX / 2 + 3, 2);
        EXPECT_EQ(log.calls, Calls{"malloc 4"});
        EXPECT_TRUE(all_zero(block, 4));
        zel_free(block);
    }
}

TEST(ZelRealloc, AnEntryAsksTheSystemToResizeAndKeepsTheContents) {
    for (const Resizing &resizing : kResizings) {
        SCOPED_TRACE(resizing.entry);
        char *block = ZEL_STRDUP("abcdefg");
        const AllocatorLog log;
        block = static_cast<char *>(resizing.call(block, 5000));
        EXPECT_STREQ(block, "abcdefg");
        block = static_cast<char *>(resizing.call(block, 3));
        EXPECT_EQ(std::string(block, 3), "abc");
        EXPECT_EQ(log.calls, (Calls{"realloc 5000", "realloc 3"}));
        zel_free(block);
    }
}

TEST(ZelRealloc, ASizeOfZeroReleasesThePointerAndReturnsNull) {
    for (const Resizing &resizing : kResizings) {
        SCOPED_TRACE(resizing.entry);
        void *block = zel_malloc(8, "f", "p");
        const AllocatorLog log;
        EXPECT_EQ(requested_by([&] { EXPECT_EQ(resizing.call(block, 0), nullptr); }), 0U);
        EXPECT_EQ(log.calls, Calls{"free"});
    }
}

TEST(ZelRealloc, AnEntryRefusesAMisalignedPointerUnderItsName) {
    for (const Resizing &resizing : kResizings) {
        const Outcome outcome = run_unwrapped([&resizing] { resizing.call(pointer_of(12), 8); });
        EXPECT_TRUE(
            ended_with_error(outcome, std::string(resizing.name) + " was passed an invalid pointer: " + digits("C")));
    }
}

TEST(ZelRealloc, AMisalignedPointerThatASizeOfZeroReleasesIsRefusedByZelFree) {
    for (const Resizing &resizing : kResizings) {
        const Outcome outcome = run_unwrapped([&resizing] { resizing.call(pointer_of(12), 0); });
        EXPECT_TRUE(ended_with_error(outcome, "zel_free was passed an invalid pointer: " + digits("C")))
            << resizing.entry;
    }
}

TEST(ZelFree, ThePointerGoesBackToTheSystem) {
    void *block = zel_malloc(8, "f", "p");
    const AllocatorLog log;
    zel_free(block);
    EXPECT_EQ(log.calls, Calls{"free"});
}

TEST(ZelFree, ANullPointerIsIgnored) {
    const AllocatorLog log;
    zel_free(nullptr);
    EXPECT_EQ(log.calls, Calls{});
}

TEST(ZelFree, OnlyAMultipleOfEightIsReleased) {
    for (uintptr_t address = 9; address < 16; ++address) {
        const Outcome outcome = release_in_child(address);
        const std::string digit(1, "0123456789ABCDEF"[address]);
        EXPECT_TRUE(ended_with_error(outcome, "zel_free was passed an invalid pointer: " + digits(digit)));
    }
    EXPECT_EQ(release_in_child(8).out, "released");
}

// 8 digits where a pointer has 32 bits, 16 where it has 64.
TEST(ZelFree, AnInvalidPointerIsShownInUpperCaseWithAllDigitsOfTheTarget) {
    constexpr bool kNarrow = sizeof(void *) == 4;
    const Outcome outcome = run_unwrapped([] { zel_free(pointer_of(12)); });
    EXPECT_TRUE(ended_with_error(outcome, kNarrow ? "zel_free was passed an invalid pointer: 0x0000000C"
                                                  : "zel_free was passed an invalid pointer: 0x000000000000000C"));
    constexpr auto kAddress = static_cast<uintptr_t>(0x123456789ABCDEFAULL);
    const Outcome wide = run_unwrapped([] { zel_free(pointer_of(kAddress)); });
    EXPECT_TRUE(ended_with_error(wide, kNarrow ? "zel_free was passed an invalid pointer: 0x9ABCDEFA"
                                               : "zel_free was passed an invalid pointer: 0x123456789ABCDEFA"));
}

TEST(ZelMallocArray, AnArrayIsStorageForThatManyObjectsOfTheType) {
    const AllocatorLog log;
    auto *table = ZEL_MALLOC_ARRAY(int64_t, 5 + 1);
    static_assert(std::is_same_v<decltype(table), int64_t *>);
    EXPECT_EQ(log.calls, Calls{"malloc 48"});
    zel_free(table);
}

TEST(ZelMallocTotalRequested, EveryAttemptAddsTheSizeOfItsBlock) {
    void *block = nullptr;
    EXPECT_EQ(requested_by([&] { block = zel_malloc(100, "f", "p"); }), 100U);
    EXPECT_EQ(requested_by([&] { block = zel_realloc(block, 30, "f", "p"); }), 30U);
    EXPECT_EQ(requested_by([&] { zel_free(block); }), 0U);
    EXPECT_EQ(requested_by([&] { zel_free(zel_calloc(4, 9, "f", "p")); }), 36U);
    EXPECT_EQ(requested_by([&] { zel_free(zel_strdup("four", "f", "p")); }), 5U);
}

TEST(ZelMallocTotalRequested, AFailedAttemptCounts) {
    const CaughtFailures caught;
    void *block = zel_malloc(8, "f", "p");
    const Interposed no_memory(hook::malloc, fail_always(hook::malloc, ENOMEM, nullptr));
    const Interposed no_more_memory(hook::realloc, fail_always(hook::realloc, ENOMEM, nullptr));
    EXPECT_EQ(requested_by([&] { zel_malloc(100, "f", "p"); }), 100U);
    EXPECT_EQ(requested_by([&] { zel_malloc_if_room(50); }), 50U);
    EXPECT_EQ(requested_by([&] { zel_realloc(block, 70, "f", "p"); }), 70U);
    zel_free(block);
}
