// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The diagnosis of a pointer: its owner, pointers outside the heap, long texts.
#include "debug_heap_support.h"

#include <malloc/internal/debug_diagnosis.h>
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

// The description of the pointer that the body returns; its text names it <P>.
std::string description_of(const std::function<void *()> &body) {
    const Outcome outcome = run_heap(1, [&body] { zel_malloc_describe_ptr(named('P', body())); });
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.signal, 0);
    return outcome.out;
}

std::string description_at(uintptr_t address) {
    return description_of([address] {
        return reinterpret_cast<void *>(address); // NOLINT(performance-no-int-to-ptr): any number may be asked about
    });
}

// The description of a released pointer, in a block that the system left as it was.
std::string description_once_released(const std::function<void *()> &allocate) {
    return description_of([&allocate] {
        void *pointer = allocate();
        keep_from_system(pointer);
        zel_free(pointer);
        return pointer;
    });
}

const std::string kValid = "The pointer <P> referenced valid data.  The pointer was allocated by ";
const std::string kWasReleased = "The pointer <P> referenced free'd data.  Before being free'd, the pointer was "
                                 "allocated by ";
const std::string kAtTheBeginning = "The pointer <P> referenced data that was corrupted at the beginning.\n";

} // namespace

// ---- The owner ------------------------------------------------------------------------------------------------------

TEST(DebugHeapDiagnosis, AnOwnerIsNamedByFunctionAndPurpose) {
    EXPECT_EQ(description_of([] { return zel_malloc(36, "F", "glob_t"); }),
              kValid + "zel_malloc with a length of 36.  The storage was allocated in the function F for glob_t.  \n");
}

TEST(DebugHeapDiagnosis, AnOwnerIsNamedByFunctionAlone) {
    EXPECT_EQ(description_of([] { return zel_calloc(2, 4, "F", nullptr); }),
              kValid + "zel_calloc with a length of 8.  The storage was allocated in the function F.  \n");
}

TEST(DebugHeapDiagnosis, APurposeAloneIsNotFollowedByBlanks) {
    EXPECT_EQ(description_of([] { return zel_strdup("abc", nullptr, "user name"); }),
              kValid + "zel_strdup with a length of 4.  The storage was allocated for user name.\n");
}

TEST(DebugHeapDiagnosis, AnOwnerWithoutEitherIsItsEntryAndLength) {
    EXPECT_EQ(description_of([] { return zel_malloc_if_room(7); }),
              kValid + "zel_malloc_if_room with a length of 7.  \n");
}

TEST(DebugHeapDiagnosis, AnOwnerByLineIsNamedByFileAndLine) {
    EXPECT_EQ(description_of([] { return zel_malloc_fl(8, "ZEL_MALLOC_ARRAY", 451, "guest.c"); }),
              kValid + "ZEL_MALLOC_ARRAY with a length of 8.  The storage was allocated in guest.c, line 451.  \n");
}

TEST(DebugHeapDiagnosis, AReleasedOwnerIsNamedByFunctionAndPurpose) {
    EXPECT_EQ(description_once_released([] { return zel_malloc(36, "F", "glob_t"); }),
              kWasReleased +
                  "zel_malloc with a length of 36.  The storage was allocated in the function F for glob_t.  \n");
}

TEST(DebugHeapDiagnosis, AReleasedOwnerIsNamedByPurposeAlone) {
    EXPECT_EQ(description_once_released([] { return zel_malloc(1, nullptr, "p"); }),
              kWasReleased + "zel_malloc with a length of 1.  The storage was allocated for p.\n");
}

TEST(DebugHeapDiagnosis, AReleasedOwnerWithoutEitherIsItsEntryAndLength) {
    EXPECT_EQ(description_once_released([] { return zel_malloc(1, nullptr, nullptr); }),
              kWasReleased + "zel_malloc with a length of 1.  \n");
}

TEST(DebugHeapDiagnosis, AReleasedOwnerByLineKeepsItsForm) {
    EXPECT_EQ(description_once_released([] { return zel_strdup_fl("abc", "ZEL_STRDUP", 7, "guest.c"); }),
              kWasReleased + "ZEL_STRDUP with a length of 4.  The storage was allocated in guest.c, line 7.  \n");
}

TEST(DebugHeapDiagnosis, AReleasedOwnerWhoseRecordIsReusedIsNotKnown) {
    EXPECT_EQ(description_of([] {
                  void *pointer = zel_malloc(5, "F", "p");
                  keep_from_system(pointer);
                  zel_free(pointer);
                  zel_malloc(6, "another", "owner");
                  return pointer;
              }),
              "The pointer <P> referenced free'd data.\n");
}

// ---- Pointers that are none of the heap's ---------------------------------------------------------------------------

TEST(DebugHeapDiagnosis, APointerThatIsNoMultipleOfEightIsNotRead) {
    for (const uintptr_t address : {1U, 4U, 12U, 15U, 0xFFFFFFFFU}) {
        EXPECT_EQ(description_at(address),
                  "The pointer <P> was not valid on this platform (should be a multiple of 8).  \n");
    }
    for (const ptrdiff_t offset : {1, 2, 4, 7}) {
        EXPECT_EQ(description_of([offset] { return static_cast<char *>(zel_malloc(16, "F", "p")) + offset; }),
                  "The pointer <P> was not valid on this platform (should be a multiple of 8).  \n");
    }
}

TEST(DebugHeapDiagnosis, APointerIntoABlockHasNoHeaderInFrontOfIt) {
    EXPECT_EQ(description_of([] { return static_cast<char *>(zel_malloc(16, "F", "p")) + 8; }), kAtTheBeginning);
}

TEST(DebugHeapDiagnosis, APointerToAVariableHasNoHeaderInFrontOfIt) {
    EXPECT_EQ(description_of([] {
                  static std::array<uint64_t, 4> variable = {1, 2, 3, 4};
                  return static_cast<void *>(&variable[2]);
              }),
              kAtTheBeginning);
}

TEST(DebugHeapDiagnosis, PointersToNowhereAreCorruptedAtTheBeginning) {
    // The header is in front of address 0, in the first page, at the end of the address
    // space.
    for (const uintptr_t address : {uintptr_t{0}, uintptr_t{8}, uintptr_t{16}, uintptr_t{4096}, UINTPTR_MAX - 7}) {
        EXPECT_EQ(description_at(address), kAtTheBeginning) << "at " << address;
    }
}

#ifndef __i386__

TEST(DebugHeapDiagnosis, AddressesThatNoProcessHasAreCorruptedAtTheBeginning) {
    // Behind the lower half, between the halves, in front of the kernel's half, in the
    // kernel.
    for (const uintptr_t address :
         {0x0000800000000000U, 0x0100000000000000U, 0x8000000000000000U, 0xFFFF800000000000U, 0xFFFFFFFF81000000U}) {
        EXPECT_EQ(description_at(address), kAtTheBeginning) << "at " << address;
    }
}

TEST(DebugHeapDiagnosis, PointersAreWrittenWithSixteenDigits) {
    const Outcome outcome = run_heap(1, [] { zel_malloc_describe_ptr(reinterpret_cast<void *>(0xABC0)); });
    EXPECT_EQ(outcome.out, "The pointer 0x000000000000ABC0 referenced data that was corrupted at the beginning.\n");
}

#else

TEST(DebugHeapDiagnosis, PointersAreWrittenWithEightDigits) {
    const Outcome outcome = run_heap(1, [] { zel_malloc_describe_ptr(reinterpret_cast<void *>(0xABC0)); });
    EXPECT_EQ(outcome.out, "The pointer 0x0000ABC0 referenced data that was corrupted at the beginning.\n");
}

#endif

namespace {

size_t page_size() {
    return static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

// Two pages of which one may not be read.
char *half_readable(bool second) {
    void *pages = mmap(nullptr, 2 * page_size(), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    auto *first = static_cast<char *>(pages);
    mprotect(second ? first : first + page_size(), page_size(), PROT_NONE);
    return first;
}

} // namespace

TEST(DebugHeapDiagnosis, APointerBehindAPageThatCannotBeReadIsCorruptedAtTheBeginning) {
    EXPECT_EQ(description_of([] { return half_readable(true) + page_size(); }), kAtTheBeginning);
}

TEST(DebugHeapDiagnosis, APointerBehindTheLastReadableWordsIsLookedAt) {
    EXPECT_EQ(description_of([] { return half_readable(false) + page_size(); }), kAtTheBeginning);
}

TEST(DebugHeapDiagnosis, APointerToUnmappedMemoryIsCorruptedAtTheBeginning) {
    EXPECT_EQ(description_of([] {
                  char *pages = half_readable(true);
                  munmap(pages, 2 * page_size());
                  return pages + 64;
              }),
              kAtTheBeginning);
}

TEST(DebugHeapDiagnosis, AReleasedBlockOfWhichOnlyTheHeaderIsLeftIsCorruptedAtTheEnd) {
    EXPECT_EQ(description_of([] {
                  // The header is the end of the first page.
                  static char *block;
                  block = half_readable(false) + page_size() - 8;
                  mprotect(block + 8, page_size(), PROT_READ | PROT_WRITE);
                  const Interposed placed(hook::malloc, [](size_t /*size*/) -> void * { return block; });
                  void *pointer = zel_malloc(100, "F", "p");
                  hook::malloc.replacement = nullptr;
                  keep_from_system(pointer);
                  zel_free(pointer);
                  set_word_at(pointer, kMagicAt, kLive);
                  mprotect(pointer, page_size(), PROT_NONE);
                  return pointer;
              }),
              "The pointer <P> referenced data that was corrupted at the end.  The pointer was allocated by zel_malloc "
              "with a length of 100.  The storage was allocated in the function F for p.  \n");
}

TEST(DebugHeapDiagnosis, AForeignHeaderOfALiveBlockIsAnInternalError) {
    EXPECT_EQ(description_of([] {
                  zel_malloc(4, "F", "p");
                  static std::array<uint64_t, 2> copy;
                  set_word_at(copy.data(), 0, 0);
                  set_word_at(copy.data(), 4, kLive);
                  return static_cast<void *>(&copy[1]);
              }),
              "The pointer <P> had invalid debugging information (possible internal error).\n");
}

TEST(DebugHeapDiagnosis, LookingAtAPointerDoesNotDisturbTheErrorNumber) {
    // The message that carries a diagnosis clears errno: the diagnosis is called by
    // itself.
    const Outcome outcome = run_heap(1, [] {
        errno = EXDEV;
        zel::memory::diagnose(nullptr, nullptr, false);
        const bool kept = errno == EXDEV;
        zel::memory::diagnose(zel_malloc(8, "F", "p"), nullptr, false);
        printf("%d %d\n", kept, errno == EXDEV);
    });
    EXPECT_EQ(outcome.out, "1 1\n");
}

// ---- Long texts -----------------------------------------------------------------------------------------------------

namespace {

const std::string kLong(5000, 'x');

// The part of a diagnosis that fits its buffer, the pointer written with all its digits.
std::string cut(const std::string &diagnosis) {
    constexpr size_t kRoom = 415;
    const size_t shown = kRoom - written(nullptr).size() + std::string("<P>").size();
    return diagnosis.substr(0, shown);
}

} // namespace

TEST(DebugHeapDiagnosis, ALongFunctionIsCutAtTheEndOfTheBuffer) {
    EXPECT_EQ(description_of([] { return zel_malloc(4, kLong.c_str(), "p"); }),
              cut(kValid + "zel_malloc with a length of 4.  The storage was allocated in the function " + kLong) +
                  "\n");
}

TEST(DebugHeapDiagnosis, ALongPurposeIsCutAtTheEndOfTheBuffer) {
    EXPECT_EQ(description_of([] { return zel_malloc(4, "F", kLong.c_str()); }),
              cut(kValid + "zel_malloc with a length of 4.  The storage was allocated in the function F for " + kLong) +
                  "\n");
}

TEST(DebugHeapDiagnosis, ALongFileIsCutAtTheEndOfTheBufferAndItsLineIsLost) {
    EXPECT_EQ(description_of([] { return zel_malloc_fl(4, "NAME", 12, kLong.c_str()); }),
              cut(kValid + "NAME with a length of 4.  The storage was allocated in " + kLong) + "\n");
}

TEST(DebugHeapDiagnosis, ALongNameIsCutAtTheEndOfTheBufferAndNothingFollows) {
    EXPECT_EQ(description_of([] { return zel_malloc_fl(4, kLong.c_str(), 12, "guest.c"); }),
              cut(kValid + kLong) + "\n");
}

TEST(DebugHeapDiagnosis, ALongTextOfAReleasedOwnerIsCutAtTheEndOfTheBuffer) {
    EXPECT_EQ(description_once_released([] { return zel_malloc(4, nullptr, kLong.c_str()); }),
              cut(kWasReleased + "zel_malloc with a length of 4.  The storage was allocated for " + kLong) + "\n");
}

TEST(DebugHeapDiagnosis, ATextThatJustFitsIsWhole) {
    const std::string before = kValid + "zel_malloc with a length of 4.  The storage was allocated in the function ";
    const std::string behind = ".  ";
    const size_t longest = cut(before + kLong).size() - before.size() - behind.size();
    static std::string function;
    for (const size_t length : {longest - 1, longest, longest + 1, longest + 2}) {
        function.assign(length, 'f');
        std::string whole = before;
        whole.append(function).append(behind);
        EXPECT_EQ(cut(whole) == whole, length <= longest);
        EXPECT_EQ(description_of([] { return zel_malloc(4, function.c_str(), nullptr); }), cut(whole).append("\n"));
    }
}

TEST(DebugHeapDiagnosis, AnErrorAtAReleaseHasTheCutDiagnosisAndTheWholeContext) {
    const Outcome outcome = run_heap(1, [] {
        void *pointer = named('P', zel_malloc(4, kLong.c_str(), "p"));
        set_word_at(pointer, 4, 0);
        zel_realloc_fl(pointer, 5, "NAME", 3, "guest.c");
    });
    EXPECT_EQ(outcome.err, "Error: NAME: " +
                               cut("The pointer <P> referenced data that was corrupted at the end.  The pointer was "
                                   "allocated by zel_malloc with a length of 4.  The storage was allocated in the "
                                   "function " +
                                   kLong) +
                               " (Currently inside of NAME at guest.c line 3)\n");
    EXPECT_EQ(outcome.status, 1);
}

// ---- Long contexts --------------------------------------------------------------------------------------------------

namespace {

// The context in the error about the release of a stray pointer.
std::string context_of(const std::function<void(void *)> &resize) {
    const Outcome outcome = run_heap(1, [&resize] {
        static std::array<uint64_t, 2> variable = {1, 2};
        resize(named('P', &variable[1]));
    });
    const std::string diagnosis = kAtTheBeginning.substr(0, kAtTheBeginning.size() - 1) + " ";
    const size_t at = outcome.err.find(diagnosis);
    EXPECT_NE(at, std::string::npos) << outcome.err;
    return at == std::string::npos ? "" : outcome.err.substr(at + diagnosis.size());
}

std::string cut_context(const std::string &context) {
    return context.substr(0, 1023) + "\n";
}

} // namespace

TEST(DebugHeapContext, LongTextsAreCutAtTheEndOfTheBuffer) {
    EXPECT_EQ(context_of([](void *pointer) { zel_realloc(pointer, 1, kLong.c_str(), "p"); }),
              cut_context("(Currently inside of " + kLong));
    EXPECT_EQ(context_of([](void *pointer) { zel_realloc(pointer, 1, "F", kLong.c_str()); }),
              cut_context("(Currently inside of F, allocating storage for " + kLong));
    EXPECT_EQ(context_of([](void *pointer) { zel_realloc(pointer, 1, kLong.c_str(), nullptr); }),
              cut_context("(Currently inside of " + kLong));
    EXPECT_EQ(context_of([](void *pointer) { zel_realloc(pointer, 1, nullptr, kLong.c_str()); }),
              cut_context("(Currently allocating storage for " + kLong));
    EXPECT_EQ(context_of([](void *pointer) { zel_realloc_fl(pointer, 1, "NAME", 5, kLong.c_str()); }),
              cut_context("(Currently inside of NAME at " + kLong));
    EXPECT_EQ(context_of([](void *pointer) { zel_realloc_fl(pointer, 1, kLong.c_str(), 5, "guest.c"); }),
              cut_context("(Currently inside of " + kLong));
}

TEST(DebugHeapContext, AContextIsNotLeftFromTheCallBefore) {
    const Outcome outcome = run_heap(1, [] {
        zel_malloc_set_free_report_threshold(0);
        zel_free(zel_realloc(zel_malloc(1, "F", "p"), 2, "G", "q"));
    });
    EXPECT_NE(outcome.err.find("(Currently inside of G, allocating storage for q)\n"), std::string::npos);
    EXPECT_NE(outcome.err.find("2 bytes of data.  \n"), std::string::npos) << outcome.err;
}
