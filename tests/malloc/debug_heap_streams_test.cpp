// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The program's own streams, which allocate while the debug heap writes to them. The
// record table may move meanwhile.
#include "debug_heap_support.h"

#include <malloc/internal/debug_heap_state.h>
#include <msg/msg.h>
#include <support/interpose.h>

#include <cstdio>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace zel::test;

namespace {

using zel::memory::debug_heap;

constexpr int kMany = 1100; // more than the first table holds
constexpr size_t kSize = 4;

// The destination of a test's stream, and the body that its first write runs.
struct Writer {
    int fd;
    std::function<void()> first;
};

Writer writer;

ssize_t write_through(void * /*cookie*/, const char *bytes, size_t length) {
    const std::function<void()> first = std::exchange(writer.first, nullptr);
    if (first) {
        first();
    }
    return write(writer.fd, bytes, length);
}

// From now on messages of that type are written through a stream whose first write runs
// the body.
void write_through_stream(int type, int fd, const std::function<void()> &body) {
    writer = {.fd = fd, .first = body};
    FILE *stream =
        fopencookie(nullptr, "w", {.read = nullptr, .write = write_through, .seek = nullptr, .close = nullptr});
    setvbuf(stream, nullptr, _IONBF, 0);
    msg_clear_streams(type);
    msg_add_stream(type, stream);
}

// The bytes of a table of the debug heap; 0 for any other storage.
size_t table_size(const void *storage) {
    if (storage == nullptr) {
        return 0;
    }
    return storage == debug_heap.records   ? debug_heap.capacity * sizeof *debug_heap.records
           : storage == debug_heap.callers ? debug_heap.capacity * sizeof *debug_heap.callers
                                           : 0;
}

// From now on a table that grows moves, and the old one is overwritten and stays.
void spoil_tables_that_move() {
    hook::realloc.replacement = [](void *pointer, size_t size) {
        const size_t before = table_size(pointer);
        if (before == 0) {
            return hook::realloc.real(pointer, size);
        }
        static auto &old_tables = *new std::vector<void *>; // leak checkers find them here
        old_tables.push_back(pointer);
        void *moved = hook::malloc.real(size);
        memcpy(moved, pointer, before);
        memset(pointer, 0xFF, before);
        return moved;
    };
}

// Makes so many allocations that the table grows. Returns the last block.
void *allocate_many() {
    void *last = nullptr;
    for (int count = 0; count < kMany; ++count) {
        last = zel_malloc(kSize, "many", "m");
    }
    return last;
}

void allocate_at_every_write() {
    writer.first = allocate_at_every_write;
    zel_free(zel_malloc(kSize, "stream", "s"));
}

std::string finding(char letter, const std::string &function, const std::string &purpose) {
    return std::string("Warning: The pointer <") + letter +
           "> referenced data that was corrupted at the end.  The pointer was allocated by zel_malloc with a length of "
           "4.  The storage was allocated in the function " +
           function + " for " + purpose + ".  \n";
}

} // namespace

TEST(DebugHeapStreams, TheReportHoldsWhenItsStreamMakesTheTableMove) {
    const Outcome outcome = run_heap(ZEL_MALLOC_CHECK_PTR, [] {
        spoil_tables_that_move();
        named('P', zel_malloc(5, "F", "p"));
        write_through_stream(MSG_INFO, STDOUT_FILENO, [] { named('Q', allocate_many()); });
        zel_malloc_debug_report(1);
    });
    EXPECT_NE(outcome.out.find("\n     0 <P>       5 zel_malloc           F                    p\n"),
              std::string::npos);
    EXPECT_NE(outcome.out.find("\n  1100 <Q>       4 zel_malloc           many                 m\n"
                               "zel_malloc_debug_report: 4405 bytes allocated, 1101 pointers\n"),
              std::string::npos)
        << "what was allocated meanwhile stands behind and is counted";
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
}

TEST(DebugHeapStreams, VerificationGoesOnInTheTableThatAFindingMadeMove) {
    const Outcome outcome = run_heap(ZEL_MALLOC_VERIFY_HEAP, [] {
        spoil_tables_that_move();
        void *p = named('P', zel_malloc(kSize, "F", "p"));
        void *q = named('Q', zel_malloc(kSize, "F", "q"));
        set_word_at(p, kSize, 0);
        set_word_at(q, kSize, 0);
        write_through_stream(MSG_WARNING, STDERR_FILENO, [] {
            zel_enable_malloc_debug(ZEL_MALLOC_CHECK_PTR); // the allocations of the stream are not verified
            set_word_at(named('R', allocate_many()), kSize, 0);
            zel_enable_malloc_debug(ZEL_MALLOC_VERIFY_HEAP);
        });
        zel_malloc(1, "G", nullptr);
    });
    EXPECT_EQ(outcome.err, finding('P', "F", "p") + finding('Q', "F", "q") + finding('R', "many", "m") +
                               "Error: zel_malloc: The heap was corrupted. (Currently inside of G)\n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(DebugHeapStreams, VerificationGoesOnThoughAFindingsStreamEndsItsMode) {
    const Outcome outcome = run_heap(ZEL_MALLOC_VERIFY_HEAP, [] {
        void *p = named('P', zel_malloc(kSize, "F", "p"));
        static void *q;
        q = zel_malloc(kSize, "F", "q");
        set_word_at(p, kSize, 0);
        write_through_stream(MSG_WARNING, STDERR_FILENO, [] {
            zel_enable_malloc_debug(ZEL_MALLOC_CHECK_PTR);
            keep_from_system(q);
            zel_free(q);
            zel_malloc(kSize, "takes the record", "t");
            set_word_at(named('R', zel_malloc(kSize, "many", "m")), kSize, 0);
        });
        zel_malloc(1, "G", nullptr);
    });
    EXPECT_EQ(outcome.err, finding('P', "F", "p") + finding('R', "many", "m") +
                               "Error: zel_malloc: The heap was corrupted. (Currently inside of G)\n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(DebugHeapStreams, AFindingsStreamMayTakeTheEndOfTheHeapAway) {
    const Outcome outcome = run_heap(ZEL_MALLOC_CHECK_PTR, [] {
        const intptr_t page = sysconf(_SC_PAGESIZE);
        set_word_at(named('P', zel_malloc(kSize, "F", "p")), kSize, 0);
        sbrk(-reinterpret_cast<intptr_t>(sbrk(0)) & (page - 1)); // the heap ends at the end of a page
        hook::malloc.replacement = [page](size_t /*size*/) { return sbrk(page); };
        named('Q', zel_malloc(kSize, "F", "q"));
        hook::malloc.replacement = nullptr;
        write_through_stream(MSG_WARNING, STDERR_FILENO, [page] { sbrk(-page); });
        zel_enable_malloc_debug(ZEL_MALLOC_VERIFY_HEAP);
        zel_malloc(1, "G", nullptr);
    });
    EXPECT_EQ(outcome.err, finding('P', "F", "p") +
                               "Warning: The pointer <Q> referenced data that was corrupted at the beginning.  The "
                               "pointer was allocated by zel_malloc with a length of 4.  The storage was allocated in "
                               "the function F for q.  \n"
                               "Error: zel_malloc: The heap was corrupted. (Currently inside of G)\n");
    EXPECT_EQ(outcome.status, 1) << "signal " << outcome.signal;
}

TEST(DebugHeapStreams, AFindingIsWrittenOnceThoughItsStreamAllocatesAtEveryWrite) {
    const Outcome outcome = run_heap(ZEL_MALLOC_VERIFY_HEAP, [] {
        set_word_at(named('P', zel_malloc(kSize, "F", "p")), kSize, 0);
        write_through_stream(MSG_WARNING | MSG_ERROR, STDERR_FILENO, allocate_at_every_write);
        zel_malloc(1, "G", nullptr);
    });
    EXPECT_EQ(outcome.err,
              finding('P', "F", "p") + "Error: zel_malloc: The heap was corrupted. (Currently inside of G)\n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(DebugHeapStreams, AReleaseGoesOnInTheTableThatItsNoteMadeMove) {
    const Outcome outcome = run_heap(ZEL_MALLOC_CHECK_PTR, [] {
        spoil_tables_that_move();
        zel_malloc_set_free_report_threshold(0);
        void *p = named('P', zel_malloc(kSize, "F", "p"));
        write_through_stream(MSG_WARNING, STDERR_FILENO, [] { allocate_many(); });
        zel_free(p);
        printf("%lu", zel_malloc_mem_used());
        for (int count = 0; count < 2; ++count) {
            printf(" %u", word_at(zel_malloc(kSize, "G", "g"), kIndexAt));
        }
    });
    EXPECT_EQ(outcome.err, "Warning: (zel_free): Freeing a pointer (<P>) which pointed to 4 bytes of data.  \n");
    EXPECT_EQ(outcome.out, "4400 0 1101") << "the record is free, and the others behind it";
    EXPECT_EQ(outcome.status, 0);
}

TEST(DebugHeapStreams, ADescriptionIsWrittenWholeWhenItsStreamMakesTheTableMove) {
    const Outcome outcome = run_heap(ZEL_MALLOC_CHECK_PTR, [] {
        spoil_tables_that_move();
        void *p = named('P', zel_malloc(kSize, "F", "p"));
        write_through_stream(MSG_INFO, STDOUT_FILENO, [] { allocate_many(); });
        zel_malloc_describe_ptr(p);
        zel_malloc_describe_ptr(p);
    });
    const std::string description = "The pointer <P> referenced valid data.  The pointer was allocated by zel_malloc "
                                    "with a length of 4.  The storage was allocated in the function F for p.  \n";
    EXPECT_EQ(outcome.out, description + description);
}

TEST(DebugHeapStreams, ABlockThatItsNotesStreamReleasedIsReleasedTwice) {
    const Outcome outcome = run_heap(ZEL_MALLOC_CHECK_PTR, [] {
        static void *pointer;
        pointer = named('P', zel_malloc(5, "F", "p"));
        keep_from_system(pointer);
        zel_malloc_set_free_report_threshold(0);
        write_through_stream(MSG_WARNING, STDERR_FILENO, [] {
            zel_malloc_set_free_report_threshold(-1);
            zel_free(pointer);
        });
        zel_free(pointer);
    });
    EXPECT_EQ(outcome.err, "Warning: (zel_free): Freeing a pointer (<P>) which pointed to 5 bytes of data.  \n"
                           "Error: Zel MALLOC library internal error: free_debug_info index pointed to a free debug "
                           "info structure (index = 0)\n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(DebugHeapStreams, ABlockThatItsNotesStreamUnmappedIsASentence) {
    const Outcome outcome = run_heap(ZEL_MALLOC_CHECK_PTR, [] {
        static void *pages;
        pages = mmap(nullptr, 1, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        hook::malloc.replacement = [](size_t /*size*/) { return pages; };
        void *pointer = named('P', zel_malloc(5, "F", "p"));
        hook::malloc.replacement = nullptr;
        zel_malloc_set_free_report_threshold(0);
        write_through_stream(MSG_WARNING, STDERR_FILENO, [] { munmap(pages, 1); });
        zel_free(pointer);
    });
    EXPECT_EQ(outcome.err, "Warning: (zel_free): Freeing a pointer (<P>) which pointed to 5 bytes of data.  \n"
                           "Error: zel_free: The pointer <P> referenced data that was corrupted at the beginning. \n");
    EXPECT_EQ(outcome.status, 1) << "signal " << outcome.signal;
}

TEST(DebugHeapStreams, ABlockThatItsNotesStreamMadeSmallerIsFilledInItsNewLength) {
    const Outcome outcome = run_heap(ZEL_MALLOC_CHECK_PTR, [] {
        static void *pointer;
        pointer = zel_malloc(100, "F", "p");
        zel_malloc_set_free_report_threshold(0);
        write_through_stream(MSG_WARNING, STDERR_FILENO, [] {
            zel_malloc_set_free_report_threshold(-1);
            hook::realloc.replacement = [](void *block, size_t /*size*/) { return block; };
            memset(pointer, 0xCC, 100);
            zel_realloc(pointer, 5, "G", "g");
            hook::realloc.replacement = nullptr;
        });
        keep_from_system(pointer);
        zel_free(pointer);
        for (const ptrdiff_t offset : {0, 4, 8, 12}) {
            printf("%08X ", word_at(pointer, offset));
        }
    });
    EXPECT_EQ(outcome.out, "ABABABAB CCCCCCAB 35A7B641 CCCCCCCC ") << "five bytes and no more";
    EXPECT_EQ(outcome.status, 0);
}
