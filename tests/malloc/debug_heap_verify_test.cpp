// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Verification of the whole heap: when it runs, its findings, and their order.
#include "debug_heap_support.h"

#include <malloc/internal/debug_heap_state.h>
#include <msg/msg.h>
#include <support/interpose.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

using namespace zel::test;

namespace {

constexpr int kVerify = ZEL_MALLOC_VERIFY_HEAP;

// The output of the body on a heap with one damaged block <P> of 4 bytes.
Outcome run_damaged(const std::function<void()> &call) {
    return run_heap(kVerify, [&call] {
        void *pointer = named('P', zel_malloc(4, "F", "p"));
        set_word_at(pointer, 4, 0);
        call();
    });
}

const std::string kFinding = "Warning: The pointer <P> referenced data that was corrupted at the end.  The pointer was "
                             "allocated by zel_malloc with a length of 4.  The storage was allocated in the function F "
                             "for p.  \n";

void expect_error(const Outcome &outcome, const std::string &error) {
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, kFinding + "Error: " + error + "\n");
    EXPECT_EQ(outcome.status, 1);
}

} // namespace

TEST(DebugHeapVerify, AllFindingsPrecedeTheErrorInTheOrderOfTheIndices) {
    const Outcome outcome = run_heap(kVerify, [] {
        void *p = named('P', zel_malloc(4, "first", nullptr));
        void *q = named('Q', zel_malloc(5, nullptr, nullptr));
        void *r = named('R', zel_malloc_fl(9, "ZEL_MALLOC_ARRAY", 7, "x.c"));
        zel_malloc(5, "sound", "sound");
        set_word_at(r, 12, 1);
        set_word_at(q, kMagicAt, 2);
        set_word_at(p, 4, 3);
        zel_malloc(1, "late", "nothing");
    });
    EXPECT_EQ(
        outcome.err,
        "Warning: The pointer <P> referenced data that was corrupted at the end.  The pointer was allocated by "
        "zel_malloc with a length of 4.  The storage was allocated in the function first.  \n"
        "Warning: The pointer <Q> referenced data that was corrupted at the beginning.  The pointer was allocated "
        "by zel_malloc with a length of 5.  \n"
        "Warning: The pointer <R> referenced data that was corrupted at the end.  The pointer was allocated by "
        "ZEL_MALLOC_ARRAY with a length of 9.  The storage was allocated in x.c, line 7.  \n"
        "Error: zel_malloc: The heap was corrupted. (Currently inside of late, allocating storage for nothing)\n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(DebugHeapVerify, EveryAllocationVerifiesUnderItsOwnName) {
    expect_error(run_damaged([] { zel_calloc(1, 1, "G", "g"); }),
                 "zel_calloc: The heap was corrupted. (Currently inside of G, allocating storage for g)");
    expect_error(run_damaged([] { zel_realloc(nullptr, 1, "G", "g"); }),
                 "zel_realloc: The heap was corrupted. (Currently inside of G, allocating storage for g)");
    expect_error(run_damaged([] { zel_strdup2("", "", "G", "g"); }),
                 "zel_strdup2: The heap was corrupted. (Currently inside of G, allocating storage for g)");
    expect_error(run_damaged([] { zel_printf_strdup("x"); }),
                 "zel_malloc: The heap was corrupted. (Currently inside of zel_vprintf_strdup, allocating storage for "
                 "buffer allocation)");
    expect_error(run_damaged([] { zel_malloc_if_room(1); }), "zel_malloc_if_room: The heap was corrupted. ");
}

TEST(DebugHeapVerify, TheContextFollowsTheDescription) {
    expect_error(run_damaged([] { zel_malloc_fl(1, "ZEL_MALLOC_ARRAY", 12, "guest.c"); }),
                 "ZEL_MALLOC_ARRAY: The heap was corrupted. (Currently inside of ZEL_MALLOC_ARRAY at guest.c line 12)");
    expect_error(run_damaged([] { zel_malloc(1, "G", nullptr); }),
                 "zel_malloc: The heap was corrupted. (Currently inside of G)");
    expect_error(run_damaged([] { zel_malloc(1, nullptr, "g"); }),
                 "zel_malloc: The heap was corrupted. (Currently allocating storage for g)");
    expect_error(run_damaged([] { zel_malloc(1, nullptr, nullptr); }), "zel_malloc: The heap was corrupted. ");
}

TEST(DebugHeapVerify, AReleaseVerifiesTheRestOfTheHeap) {
    expect_error(run_damaged([] {
                     zel_enable_malloc_debug(ZEL_MALLOC_CHECK_PTR);
                     void *sound = zel_malloc(1, "G", "g");
                     zel_enable_malloc_debug(kVerify);
                     zel_free(sound);
                 }),
                 "zel_free: The heap was corrupted. ");
}

TEST(DebugHeapVerify, AResizeVerifiesTheRestOfTheHeap) {
    expect_error(run_damaged([] {
                     zel_enable_malloc_debug(ZEL_MALLOC_CHECK_PTR);
                     void *sound = zel_malloc(1, "G", "g");
                     zel_enable_malloc_debug(kVerify);
                     zel_realloc(sound, 2, "H", "h");
                 }),
                 "zel_realloc: The heap was corrupted. (Currently inside of H, allocating storage for h)");
}

TEST(DebugHeapVerify, ThePointerAtHandIsCheckedBeforeTheHeap) {
    const Outcome outcome = run_heap(kVerify, [] {
        void *p = named('P', zel_malloc(4, "F", "p"));
        void *q = named('Q', zel_malloc(4, "G", "q"));
        set_word_at(p, 4, 0);
        set_word_at(q, 4, 0);
        zel_free(q);
    });
    EXPECT_EQ(outcome.err,
              "Error: zel_free: The pointer <Q> referenced data that was corrupted at the end.  The pointer "
              "was allocated by zel_malloc with a length of 4.  The storage was allocated in the function G "
              "for q.   \n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(DebugHeapVerify, AtTheUsualWidthFindingsAreWrapped) {
    const Outcome outcome = run_heap(kVerify, [] {
        msg_set_width_limit(78);
        set_word_at(zel_malloc(4, "F", "p"), 4, 0);
        zel_malloc(1, "G", nullptr);
    });
    EXPECT_NE(outcome.err.find("\n         "), std::string::npos);
    EXPECT_NE(outcome.err.find("Error: zel_malloc: The heap was corrupted. (Currently inside of G)\n"),
              std::string::npos);
}

TEST(DebugHeapVerify, TheReportAndADescriptionDoNotVerify) {
    const Outcome outcome = run_damaged([] {
        zel_malloc_debug_report(0);
        static uint64_t variable;
        zel_malloc_describe_ptr(&variable + 1);
    });
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
}

TEST(DebugHeapVerify, ARequestOfNothingDoesNotVerify) {
    const Outcome outcome = run_damaged([] {
        zel_malloc(0, "G", "g");
        zel_free(nullptr);
    });
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
}

TEST(DebugHeapVerify, TheOtherModeLooksAtThePointerAtHandAlone) {
    const Outcome outcome = run_heap(ZEL_MALLOC_CHECK_PTR, [] {
        set_word_at(zel_malloc(4, "F", "p"), 4, 0);
        void *sound = zel_malloc(1, "G", "g");
        sound = zel_realloc(sound, 2, "G", "g");
        zel_free(sound);
    });
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
}

TEST(DebugHeapVerify, ASoundHeapIsWorkedOnInSilence) {
    const Outcome outcome = run_heap(kVerify, [] {
        std::vector<void *> pointers;
        for (size_t size = 1; size <= 300; ++size) {
            pointers.push_back(zel_malloc(size, "F", "p"));
        }
        for (void *&pointer : pointers) {
            pointer = zel_realloc(pointer, 17, "F", "p");
        }
        for (void *pointer : pointers) {
            zel_free(pointer);
        }
        printf("%lu", zel_malloc_mem_used());
    });
    EXPECT_EQ(outcome.out, "0");
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
}

TEST(DebugHeapVerify, ABlockMayBelongToTwoRecords) {
    const Outcome outcome = run_heap(kVerify, [] {
        static std::array<uint64_t, 8> block;
        const Interposed placed(hook::malloc, [](size_t /*size*/) -> void * { return block.data(); });
        zel_malloc(5, "F", "p");
        zel_malloc(6, "G", "q"); // its header names the second record
        zel_malloc_if_room(7);
        printf("%lu", zel_malloc_mem_used());
    });
    EXPECT_EQ(outcome.out, "18");
    EXPECT_EQ(outcome.err, "");
}

TEST(DebugHeapVerify, ABlockThatTheSystemMisplacedIsAFinding) {
    const Outcome outcome = run_heap(kVerify, [] {
        {
            const auto misplaced = [](size_t size) { return static_cast<char *>(hook::malloc.real(size + 4)) + 4; };
            const Interposed placed(hook::malloc, misplaced);
            named('P', zel_malloc(4, "F", "p"));
        }
        zel_malloc(1, "G", nullptr);
    });
    EXPECT_EQ(outcome.err, "Warning: The pointer <P> was not valid on this platform (should be a multiple of 8).  \n"
                           "Error: zel_malloc: The heap was corrupted. (Currently inside of G)\n");
}

// The trailer would stand in front of the heap, wrap around, or begin at the heap's end.
TEST(DebugHeapVerify, ALengthThatWasOverwrittenIsAFinding) {
    const auto heap_end = reinterpret_cast<uintptr_t>(sbrk(0));
    for (const size_t trailer : {size_t{0x1000}, size_t{0} - 8, size_t{0}, size_t{heap_end}}) {
        const Outcome outcome = run_heap(kVerify, [trailer, heap_end] {
            const void *pointer = named('P', zel_malloc(4, "F", "p"));
            const size_t end = trailer == heap_end ? reinterpret_cast<uintptr_t>(sbrk(0)) : trailer;
            zel::memory::debug_heap.records[0].length = end - reinterpret_cast<uintptr_t>(pointer);
            zel_malloc(1, "G", nullptr);
        });
        EXPECT_EQ(outcome.err.find("Warning: The pointer <P> referenced data that was corrupted at the end.  "), 0U)
            << outcome.err;
        EXPECT_EQ(outcome.status, 1) << "signal " << outcome.signal;
    }
}

TEST(DebugHeapVerify, APointerThatWasOverwrittenIsAFinding) {
    const Outcome outcome = run_heap(kVerify, [] {
        zel_malloc(4, "F", "p");
        void *start = reinterpret_cast<void *>(zel::memory::debug_heap.heap_start); // no header fits in front of it
        zel::memory::debug_heap.records[0].pointer = named('P', start);
        zel_malloc(1, "G", nullptr);
    });
    EXPECT_EQ(outcome.err.find("Warning: The pointer <P> referenced data that was corrupted at the beginning.  "), 0U)
        << outcome.err;
    EXPECT_EQ(outcome.status, 1) << "signal " << outcome.signal;
}

TEST(DebugHeapVerify, WorkOnASoundHeapDoesNotDisturbTheErrorNumber) {
    const Outcome outcome = run_heap(kVerify, [] {
        errno = EXDEV;
        zel_free(zel_realloc(zel_malloc(8, "F", "p"), 9, "F", "p"));
        printf("%d", errno == EXDEV);
    });
    EXPECT_EQ(outcome.out, "1");
}

namespace {

// Whole pages of a table, and whether they may be read.
struct Pages {
    void *begin;
    size_t length;
};

Pages forbidden;

void protect(int protection) {
    if (mprotect(forbidden.begin, forbidden.length, protection) != 0) {
        abort();
    }
}

// Makes the pages of the record table unreadable that hold only records between the two.
void forbid_records(uint32_t first, uint32_t last) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    auto *begin = reinterpret_cast<char *>(&zel::memory::debug_heap.records[first]);
    begin += (page - reinterpret_cast<uintptr_t>(begin) % page) % page;
    const auto *end = reinterpret_cast<const char *>(&zel::memory::debug_heap.records[last]);
    end -= reinterpret_cast<uintptr_t>(end) % page;
    forbidden = {.begin = begin, .length = static_cast<size_t>(end - begin)};
    protect(PROT_NONE);
    atexit([] { protect(PROT_READ | PROT_WRITE); });
}

} // namespace

TEST(DebugHeapVerify, RecordsThatAreNotInUseAreNotLookedAt) {
    const Outcome outcome = run_heap(ZEL_MALLOC_CHECK_PTR, [] {
        constexpr size_t kCount = 5000;
        std::vector<void *> pointers(kCount);
        for (void *&pointer : pointers) {
            pointer = zel_malloc(4, "F", "p");
        }
        // The second record is released last: the next allocation takes it.
        for (size_t index = kCount - 2; index > 0; --index) {
            zel_free(pointers[index]);
        }
        zel_enable_malloc_debug(kVerify); // looks at every record, once
        forbid_records(3, kCount - 2);
        zel_free(zel_malloc(4, "G", "g"));
        zel_malloc_debug_report(0);
        set_word_at(named('P', pointers[kCount - 1]), 4, 0);
        zel_malloc(1, "G", "g");
    });
    EXPECT_EQ(outcome.out, "zel_malloc_debug_report: 8 bytes allocated, 2 pointers\n");
    expect_error({.status = outcome.status, .signal = 0, .out = "", .err = outcome.err},
                 "zel_malloc: The heap was corrupted. (Currently inside of G, allocating storage for g)");
}
