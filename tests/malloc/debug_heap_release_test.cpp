// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Releases: the note, the double release, a header that changes during the note.
#include "debug_heap_support.h"

#include <msg/msg.h>
#include <support/interpose.h>

#include <array>
#include <cstdio>
#include <cstdlib>

using namespace zel::test;

namespace {

// The warning about a release of <P>.
std::string note(const std::string &name, int bytes, const std::string &context) {
    return "Warning: (" + name + "): Freeing a pointer (<P>) which pointed to " + std::to_string(bytes) +
           " bytes of data.  " + context + "\n";
}

// The output of a release of 5 bytes at a threshold.
std::string release_at(int32_t threshold) {
    const Outcome outcome = run_heap(1, [threshold] {
        zel_malloc_set_free_report_threshold(threshold);
        zel_free(named('P', zel_malloc(5, "F", "p")));
    });
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.status, 0);
    return outcome.err;
}

} // namespace

// ---- The note -------------------------------------------------------------------------------------------------------

TEST(DebugHeapNote, AtFirstNoReleaseIsNoted) {
    const Outcome outcome = run_heap(1, [] { zel_free(zel_malloc(1000000, "F", "p")); });
    EXPECT_EQ(outcome.err, "");
}

TEST(DebugHeapNote, AtThresholdZeroEveryReleaseIsNoted) {
    EXPECT_EQ(release_at(0), note("zel_free", 5, ""));
}

TEST(DebugHeapNote, AReleaseOfTheThresholdIsNoted) {
    EXPECT_EQ(release_at(4), note("zel_free", 5, ""));
    EXPECT_EQ(release_at(5), note("zel_free", 5, ""));
}

TEST(DebugHeapNote, AReleaseBelowTheThresholdIsNotNoted) {
    EXPECT_EQ(release_at(6), "");
    EXPECT_EQ(release_at(INT32_MAX), "");
}

TEST(DebugHeapNote, ANegativeThresholdTurnsTheNoteOff) {
    EXPECT_EQ(release_at(-1), "");
    EXPECT_EQ(release_at(INT32_MIN), "");
    const Outcome outcome = run_heap(1, [] {
        zel_malloc_set_free_report_threshold(0);
        zel_malloc_set_free_report_threshold(-1);
        zel_free(zel_malloc(5, "F", "p"));
    });
    EXPECT_EQ(outcome.err, "");
}

TEST(DebugHeapNote, AReleaseOfNothingIsNotNoted) {
    EXPECT_EQ(run_heap(1,
                       [] {
                           zel_malloc_set_free_report_threshold(0);
                           zel_free(nullptr);
                       })
                  .err,
              "");
}

TEST(DebugHeapNote, AResizeIsNotedWithTheOldLengthAndItsContext) {
    const Outcome outcome = run_heap(2, [] {
        zel_malloc_set_free_report_threshold(5);
        void *pointer = named('P', zel_malloc(5, "F", "p"));
        zel_realloc(pointer, 100, "G", "g");
    });
    EXPECT_EQ(outcome.err, note("zel_realloc", 5, "(Currently inside of G, allocating storage for g)"));
    EXPECT_EQ(outcome.status, 0);
}

TEST(DebugHeapNote, AResizeByLineIsNotedWithItsPlace) {
    const Outcome outcome = run_heap(1, [] {
        zel_malloc_set_free_report_threshold(0);
        zel_realloc_fl(named('P', zel_malloc(5, "F", "p")), 1, "GROW", 9, "guest.c");
    });
    EXPECT_EQ(outcome.err, note("GROW", 5, "(Currently inside of GROW at guest.c line 9)"));
}

TEST(DebugHeapNote, AResizeToNothingIsNotedAsARelease) {
    const Outcome outcome = run_heap(1, [] {
        zel_malloc_set_free_report_threshold(0);
        zel_realloc(named('P', zel_malloc(5, "F", "p")), 0, "G", "g");
    });
    EXPECT_EQ(outcome.err, note("zel_free", 5, ""));
}

TEST(DebugHeapNote, TheThresholdMayBeSetBeforeTheHeapIsSwitchedOn) {
    const Outcome outcome = run_named([] {
        zel_malloc_set_free_report_threshold(5);
        zel_enable_malloc_debug(1);
        zel_free(named('P', zel_malloc(5, "F", "p")));
    });
    EXPECT_EQ(outcome.err, note("zel_free", 5, ""));
}

TEST(DebugHeapNote, TheBytesAreNoLongerInUseWhenTheNoteIsWritten) {
    const Outcome outcome = run_heap(1, [] {
        zel_malloc(3, "F", "p");
        void *pointer = zel_malloc(5, "F", "p");
        zel_malloc_set_free_report_threshold(0);
        const Interposed watched(hook::fputs, [](const char *text, FILE *stream) {
            static bool first = true;
            if (first && stream == stderr) {
                first = false;
                printf("%lu", zel_malloc_mem_used());
            }
            return hook::fputs.real(text, stream);
        });
        zel_free(pointer);
    });
    EXPECT_EQ(outcome.out, "3");
}

// ---- A pointer released twice ---------------------------------------------------------------------------------------

namespace {

const std::string kOwner = "pointer was allocated by zel_strdup with a length of 6.  The storage was allocated in the "
                           "function main for user name.  ";
const std::string kToldByItsHeader =
    "The pointer <P> was referenced after it was free'd.  Before being free'd, the " + kOwner;
const std::string kHeaderIsReused = "The pointer <P> referenced data that was corrupted at the beginning.";

Outcome release_twice(int mode, void (*prepare)(void *pointer)) {
    return run_heap(mode, [prepare] {
        char *name = zel_strdup("guest", "main", "user name");
        prepare(named('P', name));
        zel_free(name);
        zel_free(name);
    });
}

void expect_diagnosis(const Outcome &outcome, const std::string &diagnosis) {
    EXPECT_EQ(outcome.err, "Error: zel_free: " + diagnosis + " \n");
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.status, 1);
}

} // namespace

TEST(DebugHeapDoubleRelease, ABlockThatTheSystemLeftAloneIsToldByItsHeader) {
    expect_diagnosis(release_twice(1, keep_from_system), kToldByItsHeader);
    expect_diagnosis(release_twice(2, keep_from_system), kToldByItsHeader);
}

TEST(DebugHeapDoubleRelease, ABlockWhoseHeaderTheSystemReusedIsCorruptedAtTheBeginning) {
    expect_diagnosis(release_twice(1, reuse_header_when_released), kHeaderIsReused);
    expect_diagnosis(release_twice(2, reuse_header_when_released), kHeaderIsReused);
}

TEST(DebugHeapDoubleRelease, ADoubleReleaseIsDiagnosedInOneOfTwoSentences) {
    const Outcome outcome = release_twice(1, [](void * /*pointer*/) {});
    const bool told_by_header = outcome.err.find(kToldByItsHeader) != std::string::npos;
    expect_diagnosis(outcome, told_by_header ? kToldByItsHeader : kHeaderIsReused);
}

TEST(DebugHeapDoubleRelease, AResizeOfAReleasedBlockIsTheSameMistake) {
    const Outcome outcome = run_heap(1, [] {
        char *name = zel_strdup("guest", "main", "user name");
        keep_from_system(named('P', name));
        zel_free(name);
        zel_realloc(name, 10, "grow", "user name");
    });
    EXPECT_EQ(outcome.err, "Error: zel_realloc: " + kToldByItsHeader +
                               " (Currently inside of grow, allocating storage for user name)\n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(DebugHeapDoubleRelease, AStrayPointerIsCorruptedAtTheBeginning) {
    const Outcome outcome = run_heap(1, [] {
        static std::array<uint64_t, 4> variable = {1, 2, 3, 4};
        zel_free(named('P', &variable[2]));
    });
    expect_diagnosis(outcome, kHeaderIsReused);
}

TEST(DebugHeapDoubleRelease, AStrayPointerThatIsNoMultipleOfEightIsNotRead) {
    const Outcome outcome = run_heap(1, [] { zel_free(named('P', reinterpret_cast<void *>(12))); });
    EXPECT_EQ(outcome.err, "Error: zel_free was passed an invalid pointer: <P>\n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(DebugHeapDoubleRelease, AtTheUsualWidthTheErrorIsWrapped) {
    const Outcome outcome = run_heap(1, [] {
        msg_set_width_limit(78);
        static std::array<uint64_t, 4> variable = {1, 2, 3, 4};
        zel_free(&variable[2]);
    });
#ifdef __i386__
    EXPECT_EQ(outcome.err.substr(outcome.err.find(" referenced")), " referenced data that was corrupted at\n"
                                                                   "       the beginning. \n");
#else
    EXPECT_EQ(outcome.err.substr(outcome.err.find(" referenced")), " referenced data that was\n"
                                                                   "       corrupted at the beginning. \n");
#endif
}

// ---- A header that changes while the note is written ----------------------------------------------------------------

namespace {

// The release of record 0. The stream that takes the note changes the index in its
// header.
Outcome change_index_during_note(uint32_t index) {
    return run_heap(1, [index] {
        static void *pointer;
        static uint32_t changed;
        pointer = zel_malloc(5, "F", "p");
        changed = index;
        zel_free(zel_malloc(6, "F", "p"));
        zel_malloc_set_free_report_threshold(0);
        const Interposed changing(hook::fputs, [](const char *text, FILE *stream) {
            set_word_at(pointer, kIndexAt, changed);
            return hook::fputs.real(text, stream);
        });
        zel_free(named('P', pointer));
    });
}

void expect_internal_error(const Outcome &outcome, const std::string &text) {
    EXPECT_EQ(outcome.err, note("zel_free", 5, "") +
                               "Error: Zel MALLOC library internal error: free_debug_info index " + text + "\n");
    EXPECT_EQ(outcome.status, 1);
}

} // namespace

TEST(DebugHeapRelease, AnIndexThatPointsToAReleasedRecordIsAnInternalError) {
    expect_internal_error(change_index_during_note(1), "pointed to a free debug info structure (index = 1)");
}

TEST(DebugHeapRelease, ANegativeIndexIsAnInternalError) {
    const Outcome outcome = change_index_during_note(static_cast<uint32_t>(-5));
    EXPECT_NE(outcome.err.find("out of range (index = -5, limit = "), std::string::npos) << outcome.err;
    EXPECT_EQ(outcome.status, 1);
}

TEST(DebugHeapRelease, AnIndexOfAnotherLiveBlockIsRefusedBeforeItsLengthIsFilled) {
    const Outcome outcome = run_heap(1, [] {
        static void *pointer;
        pointer = zel_malloc(5, "F", "p");
        zel_malloc(100000000, "F", "another");
        zel_malloc_set_free_report_threshold(0);
        const Interposed changing(hook::fputs, [](const char *text, FILE *stream) {
            set_word_at(pointer, kIndexAt, 1);
            return hook::fputs.real(text, stream);
        });
        zel_free(named('P', pointer));
    });
    EXPECT_EQ(outcome.err, note("zel_free", 5, "") +
                               "Error: zel_free: The pointer <P> had invalid debugging information (possible "
                               "internal error). \n");
    EXPECT_EQ(outcome.status, 1) << "signal " << outcome.signal;
}

// This test holds the capacity of the first table, 1024 records.
#ifndef ZEL_SMALL_CONSTANTS

TEST(DebugHeapReleaseSize, AnIndexOutsideTheTableIsAnInternalErrorWithTheLimit) {
    expect_internal_error(change_index_during_note(static_cast<uint32_t>(-1)),
                          "out of range (index = -1, limit = 1024).");
    expect_internal_error(change_index_during_note(1024), "out of range (index = 1024, limit = 1024).");
    expect_internal_error(change_index_during_note(2000000000), "out of range (index = 2000000000, limit = 1024).");
}

#endif
