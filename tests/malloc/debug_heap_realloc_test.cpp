// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Resizes: a block that moves, and one that cannot be resized.
#include "debug_heap_support.h"

#include <support/interpose.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace zel::test;

namespace {

constexpr const char *kReleasedDescription = "The pointer <P> referenced free'd data.  Before being free'd, the "
                                             "pointer was allocated by zel_malloc with a length "
                                             "of 5.  The storage was allocated in the function F for p.  \n";

// A block <P> of 5 bytes that could not be resized; then the question about it.
Outcome after_failed_resize(const std::function<void(void *)> &question) {
    return run_heap(1, [&question] {
        void *pointer = named('P', zel_malloc(5, "F", "p"));
        {
            const Interposed failing(hook::realloc, fail_always(hook::realloc, ENOMEM, nullptr));
            if (zel_realloc_if_room(pointer, 50) != nullptr) {
                exit(3);
            }
        }
        question(pointer);
    });
}

} // namespace

TEST(DebugHeapRealloc, ABlockThatCannotBeResizedCountsAsReleased) {
    const Outcome outcome = after_failed_resize([](void *pointer) {
        zel_malloc_debug_report(1);
        zel_malloc_describe_ptr(pointer);
        printf("%lu\n", zel_malloc_mem_used());
    });
    EXPECT_EQ(outcome.out,
              std::string("zel_malloc_debug_report: No storage was allocated\n") + kReleasedDescription + "0\n");
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
}

TEST(DebugHeapRealloc, ABlockThatCannotBeResizedKeepsItsBytesAndItsReleasedMark) {
    const Outcome outcome = run_heap(1, [] {
        void *pointer = zel_malloc(5, "F", "p");
        memcpy(pointer, "guest", 5);
        {
            const Interposed failing(hook::realloc, fail_always(hook::realloc, ENOMEM, nullptr));
            zel_realloc_if_room(pointer, 50);
        }
        printf("%.5s %08X %08X %08X\n", static_cast<const char *>(pointer), word_at(pointer, kIndexAt),
               word_at(pointer, kMagicAt), word_at(pointer, 8));
    });
    EXPECT_EQ(outcome.out, "guest 00000000 7D2C5B7E 35A7B641\n");
}

TEST(DebugHeapRealloc, AReleaseBehindAFailedResizeIsAReleaseTooMany) {
    const Outcome outcome = after_failed_resize(zel_free);
    EXPECT_EQ(outcome.err, "Error: zel_free: The pointer <P> was referenced after it was free'd.  Before being free'd, "
                           "the pointer was allocated by zel_malloc with a length of 5.  The storage was allocated in "
                           "the function F for p.   \n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(DebugHeapRealloc, TheRecordOfABlockThatCannotBeResizedIsReused) {
    const Outcome outcome =
        after_failed_resize([](void * /*pointer*/) { printf("%u\n", word_at(zel_malloc(1, "G", "g"), kIndexAt)); });
    EXPECT_EQ(outcome.out, "0\n");
}

TEST(DebugHeapRealloc, AFailedResizeIsReportedByItsDescription) {
    const Outcome outcome = run_heap(2, [] {
        void *pointer = zel_malloc(5, "F", "p");
        const Interposed failing(hook::realloc, fail_nth(hook::realloc, 0, ENOMEM, nullptr));
        zel_realloc(pointer, 50, "grow", "user name");
    });
    EXPECT_EQ(outcome.err, "Error: grow (via zel_realloc): Not enough memory to allocate 50 bytes for user name.\n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(DebugHeapRealloc, AMovedBlockIsRegisteredAtItsNewPlace) {
    const Outcome outcome = run_heap(2, [] {
        void *pointer = zel_malloc(5, "F", "p");
        memcpy(pointer, "guest", 5);
        void *blocker = zel_malloc(5, "F", "p");
        void *moved = named('Q', zel_realloc(pointer, 1000000, "G", "g"));
        printf("%.5s %u\n", static_cast<const char *>(moved), word_at(moved, kIndexAt));
        zel_malloc_describe_ptr(moved);
        zel_free(moved);
        zel_free(blocker);
    });
    EXPECT_EQ(outcome.out,
              "guest 0\nThe pointer <Q> referenced valid data.  The pointer was allocated by zel_realloc with "
              "a length of 1000000.  The storage was allocated in the function G for g.  \n");
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
}

TEST(DebugHeapRealloc, AResizedBlockIsReleasedInItsNewLength) {
    const Outcome outcome = run_heap(1, [] {
        void *pointer = zel_realloc(zel_malloc(2, "F", "p"), 6, "G", "g");
        const SeenByTheSystem *seen = watch_next_release(20);
        zel_free(pointer);
        printf("%s\n", hex(seen->bytes.data() + 8, 6).c_str());
    });
    EXPECT_EQ(outcome.out, "AB AB AB AB AB AB\n");
}

TEST(DebugHeapRealloc, AResizeToNothingReleases) {
    const Outcome outcome = run_heap(1, [] {
        const void *result = zel_realloc(zel_malloc(5, "F", "p"), 0, "G", "g");
        printf("%d %lu\n", result == nullptr, zel_malloc_mem_used());
    });
    EXPECT_EQ(outcome.out, "1 0\n");
}

TEST(DebugHeapRealloc, APointerThatIsNoMultipleOfEightIsNotRead) {
    const Outcome outcome =
        run_heap(1, [] { zel_realloc_fl(named('P', reinterpret_cast<void *>(4)), 5, "GROW", 1, "x.c"); });
    EXPECT_EQ(outcome.err, "Error: GROW was passed an invalid pointer: <P>\n");
    EXPECT_EQ(outcome.status, 1);
}

// ---- What a failure handler provides for a formatted text -----------------------------------------------------------

namespace {

void *provided;

// Formats a text while the system has no memory for its first buffer. The handler
// provides it.
Outcome format_into_what_is_provided(int mode, void *(*provide)()) {
    return run_heap(mode, [provide] {
        provided = named('P', provide());
        zel_malloc_set_failure_handler([](unsigned long /*size*/, const char * /*text*/) { return provided; });
        char *text = nullptr;
        {
            const Interposed failing(hook::malloc, fail_nth(hook::malloc, 0, ENOMEM, nullptr));
            text = zel_printf_strdup("%040d", 7);
        }
        printf("%zu %lu\n", strlen(text), zel_malloc_mem_used());
        zel_free(text);
    });
}

} // namespace

TEST(DebugHeapFormatted, AHandlerMayProvideStorageOfThisLibrary) {
    for (const int mode : {ZEL_MALLOC_CHECK_PTR, ZEL_MALLOC_VERIFY_HEAP}) {
        const Outcome outcome = format_into_what_is_provided(mode, [] { return zel_malloc(16, "F", "reserve"); });
        EXPECT_EQ(outcome.out, "40 42\n");
        EXPECT_EQ(outcome.err, "");
        EXPECT_EQ(outcome.status, 0);
    }
}

TEST(DebugHeapFormatted, ABlockFromMallocEndsTheProcessAtItsResize) {
    for (const int mode : {ZEL_MALLOC_CHECK_PTR, ZEL_MALLOC_VERIFY_HEAP}) {
        const Outcome outcome = format_into_what_is_provided(mode, [] { return malloc(16); });
        EXPECT_EQ(outcome.err, "Error: zel_realloc: The pointer <P> referenced data that was corrupted at the "
                               "beginning. (Currently inside of zel_vprintf_strdup, allocating storage for buffer "
                               "resize)\n");
        EXPECT_EQ(outcome.status, 1);
    }
}
