// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Marks, the visit of the live blocks, and the report of those since a mark.
#include "debug_heap_support.h"
#include "malloc_support.h"

#include <malloc/heap_report.h>
#include <malloc/internal/debug_heap_state.h>
#include <msg/base/limits.h>
#include <msg/msg.h>
#include <support/interpose.h>

#include <cstdio>
#include <cstdlib>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

using namespace zel::test;

namespace {

constexpr int kModes[] = {ZEL_MALLOC_CHECK_PTR, ZEL_MALLOC_VERIFY_HEAP};
constexpr size_t kMany = zel::kSmall ? 3000 : 100000;

// The output of the body in each mode of the debug heap.
void expect_in_each_mode(const std::function<void()> &body, const std::string &out) {
    for (const int mode : kModes) {
        const Outcome outcome = run_heap(mode, body);
        EXPECT_EQ(outcome.out, out) << mode;
        EXPECT_EQ(outcome.err, "") << mode;
        EXPECT_EQ(outcome.status, 0) << mode;
    }
}

// Prints the lengths of the blocks since a mark, and their number.
void print_lengths(uint64_t mark) {
    const auto print = [](const ZelLiveBlock *block, void *) { return printf("%zu ", block->length); };
    printf("(%d) ", zel_malloc_visit(mark, print, nullptr));
}

void *allocate(size_t size) {
    return zel_malloc(size, "f", "p");
}

void switch_mode() {
    zel_enable_malloc_debug(ZEL_MALLOC_CHECK_PTR + ZEL_MALLOC_VERIFY_HEAP - zel_malloc_debug_mode());
}

} // namespace

// ---- Marks ----------------------------------------------------------------------------------------------------------

TEST(HeapMark, BlocksSinceAMarkAreThoseThatCameBehindItAndAreLive) {
    expect_in_each_mode(
        [] {
            allocate(1);
            void *old = allocate(2);
            const uint64_t first = zel_malloc_mark();
            allocate(3);
            const uint64_t second = zel_malloc_mark();
            void *released = allocate(4);
            allocate(5);
            zel_free(released);
            zel_free(old);
            print_lengths(0);
            print_lengths(first);
            print_lengths(second);
            print_lengths(zel_malloc_mark());
        },
        "1 3 5 (3) 3 5 (2) 5 (1) (0) ");
}

TEST(HeapMark, EachMarkIsGreaterThanTheOneBefore) {
    expect_in_each_mode(
        [] {
            const uint64_t first = zel_malloc_mark();
            const uint64_t second = zel_malloc_mark();
            allocate(1);
            const uint64_t third = zel_malloc_mark();
            printf("%d", 0 < first && first < second && second < third);
        },
        "1");
}

TEST(HeapMark, AResizedBlockIsLaterThanTheMarksBeforeIt) {
    expect_in_each_mode(
        [] {
            void *block = allocate(1);
            const uint64_t mark = zel_malloc_mark();
            block = zel_realloc(block, 2, "f", "p");
            print_lengths(mark);
            zel_free(block);
            print_lengths(mark);
        },
        "2 (1) (0) ");
}

TEST(HeapMark, ARecordThatIsUsedAgainIsANewBlock) {
    expect_in_each_mode(
        [] {
            zel_malloc_mark();
            void *before = allocate(1);
            const uint64_t mark = zel_malloc_mark();
            zel_free(before);
            allocate(2); // takes the record that was released
            print_lengths(mark);
        },
        "2 (1) ");
}

TEST(HeapMark, ASwitchOfTheModeLosesNothing) {
    expect_in_each_mode(
        [] {
            void *first = allocate(1);
            const uint64_t mark = zel_malloc_mark();
            allocate(2);
            switch_mode();
            void *third = allocate(3);
            zel_free(first);
            print_lengths(mark);
            switch_mode();
            allocate(4);
            zel_free(third);
            print_lengths(mark);
            print_lengths(0);
        },
        "2 3 (2) 4 2 (2) 4 2 (2) ");
}

TEST(HeapMark, ManyBlocksAreToldApart) {
    expect_in_each_mode(
        [] {
            const int mode = zel_malloc_debug_mode();
            zel_enable_malloc_debug(ZEL_MALLOC_CHECK_PTR); // filling is quadratic in the other mode
            for (size_t count = 0; count < kMany / 2; ++count) {
                allocate(8);
            }
            const uint64_t mark = zel_malloc_mark();
            std::vector<void *> blocks(kMany / 2);
            for (void *&block : blocks) {
                block = allocate(8);
            }
            zel_enable_malloc_debug(mode);
            const auto many = static_cast<int32_t>(kMany);
            printf("%d ", zel_malloc_visit(0, nullptr, nullptr) - many);
            printf("%d ", zel_malloc_visit(mark, nullptr, nullptr) - many / 2);
            zel_free(blocks[7]);
            printf("%d ", zel_malloc_visit(mark, nullptr, nullptr) - many / 2);
            printf("%d", zel_malloc_verify());
        },
        "0 0 -1 0");
}

TEST(HeapMark, WhileTheDebugHeapIsOffEveryCallSaysSoInSilence) {
    const Outcome outcome = run_named([] {
        void *block = allocate(1);
        const auto mark = static_cast<unsigned>(zel_malloc_mark());
        printf("%u %d %d ", mark, zel_malloc_visit(0, nullptr, nullptr), zel_malloc_report_since(0));
        printf("%d %d ", zel_malloc_report_owners(), zel_malloc_verify());
        printf("%d", zel_malloc_report_json() == nullptr);
        zel_free(block);
    });
    EXPECT_EQ(outcome.out, "0 -1 -1 -1 -1 1");
    EXPECT_EQ(outcome.err, "");
}

TEST(HeapMark, WithoutMemoryThereIsNoMarkAndNoTrace) {
    const Outcome outcome = run_heap(ZEL_MALLOC_CHECK_PTR, [] {
        allocate(1);
        uint64_t mark = 0;
        int failures = 0;
        for (; mark == 0; ++failures) {
            const FailingRequest failing(failures);
            mark = zel_malloc_mark();
            print_lengths(mark);
        }
        allocate(2);
        print_lengths(mark);
        printf("%d", failures > 1);
    });
    EXPECT_EQ(outcome.out, "1 (1) 1 (1) 1 (1) (0) 2 (1) 1");
}

TEST(HeapMark, WithoutMemoryForItsNumberARequestFails) {
    const Outcome outcome = run_heap(ZEL_MALLOC_CHECK_PTR, [] {
        const uint64_t mark = zel_malloc_mark();
        for (size_t count = 0; count < 32 * zel::kRecordTableStep; ++count) {
            allocate(1);
        }
        void *block = nullptr;
        int failures = 0;
        for (; block == nullptr; ++failures) {
            const FailingRequest failing(failures);
            block = zel_malloc_if_room(5);
        }
        const auto full = static_cast<int32_t>(32 * zel::kRecordTableStep);
        printf("%d %d", failures > 3, zel_malloc_visit(mark, nullptr, nullptr) - full);
        zel_free(block);
    });
    EXPECT_EQ(outcome.out, "1 1");
}

TEST(HeapMark, AMarkThatAReleasesNoteTakesIsExact) {
    static FILE *stream;
    for (const bool resized : {false, true}) {
        const Outcome outcome = run_heap(ZEL_MALLOC_CHECK_PTR, [resized] {
            void *noted = zel_malloc(100, "noted", nullptr);
            const auto take_mark = [](void *, const char *, size_t length) {
                zel_malloc_mark();
                return static_cast<ssize_t>(length);
            };
            stream =
                fopencookie(nullptr, "w", {.read = nullptr, .write = take_mark, .seek = nullptr, .close = nullptr});
            setvbuf(stream, nullptr, _IONBF, 0);
            msg_clear_streams(MSG_WARNING);
            msg_add_stream(MSG_WARNING, stream);
            zel_malloc_set_free_report_threshold(0);
            if (resized) {
                zel_realloc(noted, 30, "noted", nullptr);
            } else {
                zel_free(noted);
                zel_malloc(30, "noted", nullptr);
            }
            char *json = zel_malloc_report_json();
            printf("%s", json);
            free(json);
        });
        // The block that is released counts once at the mark, and no more behind it.
        EXPECT_EQ(outcome.out, "{\"blocks\":1,\"bytes\":30,\"peak\":100,\"owners\":[{\"owner\":\"noted\",\"line\":0,"
                               "\"blocks\":1,\"bytes\":30,\"peak\":100}]}");
    }
}

// ---- The visit ------------------------------------------------------------------------------------------------------

TEST(HeapVisit, ABlockIsShownWithAllThatIsKnownOfIt) {
    expect_in_each_mode(
        [] {
            zel_strdup("abc", "read_index", "name");
            zel_malloc_fl(12, "ZEL_MALLOC_ARRAY", 7, "guest.c");
            zel_calloc_if_room(1, 3);
            zel_malloc_visit(
                0,
                [](const ZelLiveBlock *block, void *) {
                    const char *owner = block->owner == nullptr ? "null" : block->owner;
                    const char *purpose = block->purpose == nullptr ? "null" : block->purpose;
                    return printf("%d %zu %s %s %d %s, ", block->id, block->length, block->name, owner, block->line,
                                  purpose);
                },
                nullptr);
        },
        "0 4 zel_strdup read_index 0 name, 1 12 ZEL_MALLOC_ARRAY guest.c 7 null, 2 3 zel_calloc_if_room null 0 null, ");
}

TEST(HeapVisit, ThePointerIsTheCallersAndTheUserPointerIsHandedOn) {
    expect_in_each_mode(
        [] {
            const void *pointer = allocate(3);
            const void *seen = nullptr;
            const auto note = [](const ZelLiveBlock *block, void *user) {
                *static_cast<const void **>(user) = block->pointer;
                return 1;
            };
            zel_malloc_visit(0, note, static_cast<void *>(&seen));
            printf("%d", seen == pointer);
        },
        "1");
}

TEST(HeapVisit, NumbersGrowWithAllocationsAndMarks) {
    expect_in_each_mode(
        [] {
            allocate(1);
            zel_malloc_mark();
            allocate(1);
            zel_malloc_mark();
            zel_malloc_mark();
            zel_realloc(allocate(1), 2, "f", "p");
            const auto print = [](const ZelLiveBlock *block, void *) {
                return printf("%d ", static_cast<int>(block->serial));
            };
            zel_malloc_visit(0, print, nullptr);
        },
        "0 2 6 ");
}

TEST(HeapVisit, ZeroEndsTheVisit) {
    expect_in_each_mode(
        [] {
            for (size_t size = 1; size <= 5; ++size) {
                allocate(size);
            }
            const auto up_to_3 = [](const ZelLiveBlock *block, void *) { return block->length < 3 ? -1 : 0; };
            printf("%d", zel_malloc_visit(0, up_to_3, nullptr));
        },
        "3");
}

TEST(HeapVisit, AVisitorMayReleaseWhatItIsShownAndEveryOtherBlock) {
    expect_in_each_mode(
        [] {
            static std::vector<void *> blocks;
            for (size_t size = 1; size <= 6; ++size) {
                blocks.push_back(allocate(size));
            }
            const auto release_two = [](const ZelLiveBlock *block, void *) {
                zel_free(const_cast<void *>(block->pointer));
                zel_free(blocks[static_cast<size_t>(block->id) + 1]);
                return printf("%zu ", block->length);
            };
            printf("%d ", zel_malloc_visit(0, release_two, nullptr));
            printf("%lu", zel_malloc_mem_used());
        },
        "1 3 5 3 0");
}

TEST(HeapVisit, AVisitThatAllocatesAtEveryBlockEnds) {
    const Outcome outcome = run_heap(ZEL_MALLOC_CHECK_PTR, [] {
        for (size_t count = 0; count < zel::kRecordTableStep; ++count) {
            allocate(1);
        }
        const auto allocate_more = [](const ZelLiveBlock *, void *) {
            return allocate(1) != nullptr && allocate(2) != nullptr ? 1 : 0;
        };
        printf("%d", zel_malloc_visit(0, allocate_more, nullptr) - static_cast<int32_t>(zel::kRecordTableStep));
    });
    EXPECT_EQ(outcome.out, "0"); // the table was full: every new block has a new ID
}

TEST(HeapVisit, AVisitorMayResizeTakeAMarkAndSwitchTheMode) {
    expect_in_each_mode(
        [] {
            for (size_t size = 1; size <= 4; ++size) {
                allocate(size);
            }
            const auto change = [](const ZelLiveBlock *block, void *) {
                zel_malloc_mark();
                switch_mode();
                zel_realloc(const_cast<void *>(block->pointer), 100000 * block->length, "g", "q");
                return 1;
            };
            printf("%d ", zel_malloc_visit(0, change, nullptr));
            printf("%lu %d", zel_malloc_mem_used(), zel_malloc_verify());
        },
        "4 1000000 0");
}

TEST(HeapVisit, ACorruptedHeapIsVisited) {
    expect_in_each_mode(
        [] {
            zel_malloc_mark();
            void *block = allocate(5);
            set_word_at(block, kIndexAt, 0x7FFFFFFF);
            set_word_at(block, kMagicAt, 0);
            set_word_at(block, 8, 0);
            print_lengths(0);
            printf("%d ", zel_malloc_report_owners());
            char *json = zel_malloc_report_json();
            printf("%d", json != nullptr);
            free(json);
        },
        "5 (1)   Blocks      Bytes       Peak  Function or File:Line\n"
        "       1          5          5  f\n"
        "zel_malloc_report_owners: 5 bytes allocated, 1 pointers, 1 owners\n1 1");
}

// ---- The report since a mark ----------------------------------------------------------------------------------------

namespace {

// The heading of the report, whose pointer column is as wide as its digits.
std::string heading() {
    const std::string pointer = std::string("Pointer") + std::string(2 * sizeof(void *) - 7, ' ');
    return "Note: a `*' in the first column indicates an invalid or corrupted pointer.\nX  ID    " + pointer +
           "  Length Method               Function/Line        Purpose/File\n";
}

} // namespace

TEST(HeapSince, EachBlockIsARowAndTheSumIsALine) {
    expect_in_each_mode(
        [] {
            allocate(1);
            const uint64_t mark = zel_malloc_mark();
            named('P', zel_malloc(36, "read_index", "page"));
            zel_free(allocate(9));
            named('Q', zel_malloc_fl(12, "ZEL_MALLOC_ARRAY", 451, "guest.c"));
            printf("%d", zel_malloc_report_since(mark));
        },
        heading() + "     1 <P>      36 zel_malloc           read_index           page\n"
                    "     2 <Q>      12 ZEL_MALLOC_ARRAY     451                  guest.c\n"
                    "zel_malloc_report_since: 48 bytes allocated, 2 pointers\n2");
}

TEST(HeapSince, WithoutABlockOneLineSaysSo) {
    expect_in_each_mode(
        [] {
            allocate(1);
            printf("%d", zel_malloc_report_since(zel_malloc_mark()));
        },
        "zel_malloc_report_since: No storage was allocated\n0");
}

TEST(HeapSince, AMarkThatNobodyTookHasNoBlocks) {
    expect_in_each_mode(
        [] {
            allocate(1);
            zel_malloc_report_since(1);
            zel_malloc_mark();
            allocate(1);
            zel_malloc_report_since(UINT64_MAX);
        },
        "zel_malloc_report_since: No storage was allocated\nzel_malloc_report_since: No storage was allocated\n");
}

TEST(HeapSince, CorruptedBlocksAreMarkedAndCounted) {
    expect_in_each_mode(
        [] {
            set_word_at(allocate(4), 4, 0);
            zel_enable_malloc_debug(ZEL_MALLOC_CHECK_PTR);
            const uint64_t mark = zel_malloc_mark();
            set_word_at(named('P', allocate(5)), kMagicAt, 0);
            zel_malloc_report_since(mark);
        },
        heading() + "*    1 <P>       5 zel_malloc           f                    p\n"
                    "zel_malloc_report_since: 5 bytes allocated, 1 pointers (1 invalid or corrupted!)\n");
}

TEST(HeapSince, ABlockWhoseMemoryIsGoneIsMarked) {
    expect_in_each_mode(
        [] {
            const uint64_t mark = zel_malloc_mark();
            const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
            void *mapped = mmap(nullptr, page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
            {
                const Interposed placed(hook::malloc, [mapped](size_t) { return mapped; });
                named('P', allocate(5));
            }
            munmap(mapped, page);
            zel_malloc_report_since(mark);
            print_lengths(mark);
        },
        heading() + "*    0 <P>       5 zel_malloc           f                    p\n"
                    "zel_malloc_report_since: 5 bytes allocated, 1 pointers (1 invalid or corrupted!)\n5 (1) ");
}
