// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Pointers to memory that is not mapped: each use of one is diagnosed. Pointers into the
// system's heap cost no system call.
#include "debug_heap_support.h"

#include <malloc/internal/debug_heap_state.h>
#include <malloc/internal/readable_memory.h>
#include <support/interpose.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

using namespace zel::test;

namespace {

constexpr size_t kMapped = 200000; // the system maps a block of this size by itself
constexpr bool kSanitized = zel::memory::kAlwaysProbes;

const std::string kAtTheBeginning = "The pointer <P> referenced data that was corrupted at the beginning.";
const std::string kAfterRelease = "The pointer <P> was referenced after it was free'd.";

void release(void *pointer) {
    zel_free(pointer);
}

void resize(void *pointer) {
    zel_realloc(pointer, 10, "grow", "g");
}

// Releases and resizes the pointer that the body returns, <P>, in both modes, and expects
// the one sentence. A sanitizer keeps released memory: there the header may still be
// read.
void expect_a_sentence(void *(*body)()) {
    struct Way {
        const char *name;
        void (*hand_back)(void *);
        const char *context;
    };
    for (const Way &way : {Way{"zel_free", release, ""},
                           Way{"zel_realloc", resize, "(Currently inside of grow, allocating storage for g)"}}) {
        for (const int mode : {ZEL_MALLOC_CHECK_PTR, ZEL_MALLOC_VERIFY_HEAP}) {
            SCOPED_TRACE(std::string(way.name) + " in mode " + std::to_string(mode));
            const Outcome outcome = run_heap(mode, [&way, body] { way.hand_back(named('P', body())); });
            const std::string start = std::string("Error: ") + way.name + ": ";
            if (kSanitized && outcome.err.starts_with(start + kAfterRelease)) {
                continue;
            }
            EXPECT_EQ(outcome.err, start + kAtTheBeginning + " " + way.context + "\n");
            EXPECT_EQ(outcome.status, 1) << "signal " << outcome.signal;
        }
    }
}

size_t page_size() {
    return static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

// A live block in two pages of the test's own. Its trailer is on the second page.
void *allocate_on_two_pages() {
    static void *pages;
    pages = mmap(nullptr, 2 * page_size(), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    const Interposed placed(hook::malloc, [](size_t /*size*/) -> void * { return pages; });
    return zel_malloc(page_size(), "F", "p");
}

char *block_of(void *pointer) {
    return static_cast<char *>(pointer) + kIndexAt;
}

// The same block, unmapped by the program.
void *allocate_and_unmap() {
    void *pointer = allocate_on_two_pages();
    munmap(block_of(pointer), 2 * page_size());
    return pointer;
}

// The same block, its second page unmapped by the program.
void *allocate_and_unmap_the_end() {
    void *pointer = allocate_on_two_pages();
    munmap(block_of(pointer) + page_size(), page_size());
    return pointer;
}

const std::string kOwner = "  The pointer was allocated by zel_malloc with a length of 4096.  The storage was "
                           "allocated in the function F for p.  ";
const std::string kAtTheEnd = "The pointer <P> referenced data that was corrupted at the end.";

} // namespace

// ---- Released or resized --------------------------------------------------------------------------------------------

TEST(DebugHeapUnmapped, AMappedBlockReleasedTwiceIsASentence) {
    expect_a_sentence([] {
        void *pointer = zel_malloc(kMapped, "F", "p");
        zel_free(pointer);
        return pointer;
    });
}

TEST(DebugHeapUnmapped, PointersToNowhereAreASentence) {
    expect_a_sentence([] { return reinterpret_cast<void *>(8); });
    expect_a_sentence([] { return reinterpret_cast<void *>(16); });
    expect_a_sentence([] { return reinterpret_cast<void *>(0x1000); });
    expect_a_sentence([] { return reinterpret_cast<void *>(UINTPTR_MAX - 7); });
}

TEST(DebugHeapUnmapped, TheOldPointerOfAMovedBlockIsASentence) {
    expect_a_sentence([] {
        zel_malloc(kMapped, "F", "above"); // the next block cannot grow in place
        void *pointer = zel_malloc(kMapped, "F", "p");
        if (zel_realloc(pointer, 50 * kMapped, "F", "p") == pointer) {
            exit(3);
        }
        return pointer;
    });
}

TEST(DebugHeapUnmapped, APointerIntoAnUnmappedBlockIsASentence) {
    expect_a_sentence([]() -> void * {
        char *pointer = static_cast<char *>(zel_malloc(kMapped, "F", "p"));
        zel_free(pointer);
        return pointer + 2 * page_size();
    });
}

namespace {

// Releases 400 blocks, which trims the heap, and then the block of this index again.
void release_all_and_one_again(size_t index) {
    std::vector<void *> pointers(400);
    for (void *&pointer : pointers) {
        pointer = zel_malloc(1000, "F", "p");
    }
    for (void *pointer : pointers) {
        zel_free(pointer);
    }
    zel_free(named('P', pointers[index]));
}

} // namespace

TEST(DebugHeapUnmapped, ABlockOfATrimmedHeapIsOneOfTwoSentences) {
    for (const int mode : {ZEL_MALLOC_CHECK_PTR, ZEL_MALLOC_VERIFY_HEAP}) {
        for (size_t index = 0; index < 400; index += 57) {
            const Outcome outcome = run_heap(mode, [index] { release_all_and_one_again(index); });
            const bool told = outcome.err.starts_with("Error: zel_free: " + kAtTheBeginning) ||
                              outcome.err.starts_with("Error: zel_free: " + kAfterRelease);
            EXPECT_TRUE(told) << outcome.err << " for block " << index;
            EXPECT_EQ(outcome.status, 1) << "signal " << outcome.signal;
        }
    }
}

TEST(DebugHeapUnmapped, WithoutTheStartOfTheHeapAStrayPointerIsASentence) {
    const Outcome outcome = run_named([] {
        std::vector<void *> before(400);
        for (void *&block : before) {
            block = malloc(1000);
        }
        rlimit usual = {};
        getrlimit(RLIMIT_NOFILE, &usual);
        const rlimit none = {.rlim_cur = 0, .rlim_max = usual.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
        errno = EXDEV;
        zel_enable_malloc_debug(ZEL_MALLOC_VERIFY_HEAP);
        const bool kept = errno == EXDEV;
        setrlimit(RLIMIT_NOFILE, &usual);
        for (void *block : before) {
            free(block); // the heap may shrink
        }
        zel_free(zel_malloc(5, "F", "p"));
        printf("%d", kept);
        fflush(stdout);
        zel_free(named('P', reinterpret_cast<void *>(0x1000)));
    });
    EXPECT_EQ(outcome.out, "1");
    EXPECT_EQ(outcome.err, "Error: zel_free: " + kAtTheBeginning + " \n");
    EXPECT_EQ(outcome.status, 1) << "signal " << outcome.signal;
}

// ---- Taken away by the program while the block is live --------------------------------------------------------------

TEST(DebugHeapUnmapped, ALiveBlockThatIsGoneIsASentenceAtItsRelease) {
    const Outcome outcome = run_heap(ZEL_MALLOC_CHECK_PTR, [] { zel_free(named('P', allocate_and_unmap())); });
    EXPECT_EQ(outcome.err, "Error: zel_free: " + kAtTheBeginning + " \n");
    EXPECT_EQ(outcome.status, 1) << "signal " << outcome.signal;
}

TEST(DebugHeapUnmapped, ALiveBlockWhoseEndIsGoneIsCorruptedAtTheEnd) {
    const Outcome released = run_heap(1, [] { zel_free(named('P', allocate_and_unmap_the_end())); });
    EXPECT_EQ(released.err, "Error: zel_free: " + kAtTheEnd + kOwner + " \n");
    EXPECT_EQ(released.status, 1) << "signal " << released.signal;
    const Outcome described = run_heap(1, [] { zel_malloc_describe_ptr(named('P', allocate_and_unmap_the_end())); });
    EXPECT_EQ(described.out, kAtTheEnd + kOwner + "\n");
    EXPECT_EQ(described.status, 0) << "signal " << described.signal;
}

TEST(DebugHeapUnmapped, AVerificationNamesTheOwnerOfALiveBlockThatIsGone) {
    for (const bool end_alone : {false, true}) {
        const Outcome outcome = run_heap(ZEL_MALLOC_VERIFY_HEAP, [end_alone] {
            named('P', end_alone ? allocate_and_unmap_the_end() : allocate_and_unmap());
            zel_malloc(1, "G", nullptr);
        });
        const std::string &verdict = end_alone ? kAtTheEnd : kAtTheBeginning;
        EXPECT_EQ(outcome.err, "Warning: " + verdict + kOwner + "\n" +
                                   "Error: zel_malloc: The heap was corrupted. (Currently inside of G)\n");
        EXPECT_EQ(outcome.status, 1) << "signal " << outcome.signal;
    }
}

TEST(DebugHeapUnmapped, AVerificationNamesTheOwnerOfABlockBelowTheHeapThatIsGone) {
    const Outcome outcome = run_heap(ZEL_MALLOC_VERIFY_HEAP, [] {
        constexpr size_t kPage = 4096;
        alignas(kPage) static char pages[2 * kPage];
        {
            const Interposed placed(hook::malloc, [](size_t /*size*/) -> void * { return pages; });
            named('P', zel_malloc(kPage, "F", "p"));
        }
        mprotect(pages, sizeof pages, PROT_NONE);
        atexit([] { mprotect(pages, sizeof pages, PROT_READ | PROT_WRITE); }); // leak checkers read them
        zel_malloc(1, "G", nullptr);
    });
    EXPECT_EQ(outcome.err, "Warning: " + kAtTheBeginning + kOwner + "\n" +
                               "Error: zel_malloc: The heap was corrupted. (Currently inside of G)\n");
    EXPECT_EQ(outcome.status, 1) << "signal " << outcome.signal;
}

TEST(DebugHeapUnmapped, TheReportMarksALiveBlockThatIsGone) {
    const Outcome outcome = run_heap(1, [] {
        named('P', allocate_and_unmap_the_end());
        named('Q', allocate_on_two_pages());
        munmap(block_of(const_cast<void *>(zel::memory::debug_heap.records[1].pointer)), 2 * page_size());
        zel_malloc_debug_report(1);
    });
    EXPECT_NE(outcome.out.find("\n*    0 <P>    4096 zel_malloc           F                    p\n"
                               "*    1 <Q>    4096 zel_malloc           F                    p\n"
                               "zel_malloc_debug_report: 8192 bytes allocated, 2 pointers (2 invalid or corrupted!)\n"),
              std::string::npos)
        << outcome.out;
    EXPECT_EQ(outcome.status, 0) << "signal " << outcome.signal;
}

// ---- No system call for the system's heap ---------------------------------------------------------------------------

namespace {

// From now on the system call of a probe ends this process by SIGSYS.
void end_at_a_probe() {
    static sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_futex, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program = {.len = sizeof filter / sizeof *filter, .filter = filter};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
        _exit(3);
    }
}

// Allocates, resizes, releases and verifies blocks of that size, then ends the process.
// The name of the process has brackets and numbers, like the line of /proc that holds it.
Outcome work_without_probes(size_t size) {
    return run_named([size] {
        prctl(PR_SET_NAME, "a) R 1 2 (b) 3");
        zel_enable_malloc_debug(ZEL_MALLOC_VERIFY_HEAP);
        end_at_a_probe();
        std::vector<void *> pointers(50);
        for (void *&pointer : pointers) {
            pointer = zel_malloc(size, "F", "p");
            pointer = zel_realloc(pointer, 2 * size, "F", "p");
        }
        for (void *pointer : pointers) {
            zel_free(pointer);
        }
        _exit(0);
    });
}

} // namespace

TEST(DebugHeapUnmapped, NothingIsAskedAboutTheHeapOfTheSystem) {
    const Outcome outcome = work_without_probes(100);
    EXPECT_EQ(outcome.signal, kSanitized ? SIGSYS : 0);
    EXPECT_EQ(outcome.status, kSanitized ? -1 : 0);
    EXPECT_EQ(outcome.err, "");
}

TEST(DebugHeapUnmapped, ABlockThatTheSystemMappedIsAskedAbout) {
    EXPECT_EQ(work_without_probes(kMapped).signal, SIGSYS);
}
