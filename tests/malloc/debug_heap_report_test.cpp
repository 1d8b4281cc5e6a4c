// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The report of the debug heap, to the letter.
#include "debug_heap_support.h"

#include <msg/msg.h>

#include <cstdio>
#include <vector>

using namespace zel::test;

namespace {

// The pointer's column is as wide as its digits.
#ifdef __i386__
constexpr const char *kHeading = "X  ID    Pointer   Length Method               Function/Line        Purpose/File\n";
#else
constexpr const char *kHeading =
    "X  ID    Pointer           Length Method               Function/Line        Purpose/File\n";
#endif

const std::string kNote = "Note: a `*' in the first column indicates an invalid or corrupted pointer.\n";
const std::string kTop = kNote + kHeading;

std::string report_of(const std::function<void()> &body) {
    const Outcome outcome = run_heap(1, [&body] {
        body();
        zel_malloc_debug_report(1);
    });
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
    return outcome.out;
}

} // namespace

TEST(DebugHeapReport, WithoutAnAllocationOneLineSaysSo) {
    for (const int verbose : {0, 1}) {
        const Outcome outcome = run_heap(1, [verbose] { zel_malloc_debug_report(verbose); });
        EXPECT_EQ(outcome.out, "zel_malloc_debug_report: No storage was allocated\n");
        EXPECT_EQ(outcome.err, "");
    }
}

TEST(DebugHeapReport, WhenAllWasReleasedOneLineSaysSo) {
    EXPECT_EQ(report_of([] { zel_free(zel_malloc(5, "f", "p")); }),
              "zel_malloc_debug_report: No storage was allocated\n");
}

TEST(DebugHeapReport, AReportWithoutRowsIsTheTotals) {
    const Outcome outcome = run_heap(2, [] {
        zel_malloc(5, "f", "p");
        zel_malloc(100, "f", "p");
        zel_malloc_debug_report(0);
    });
    EXPECT_EQ(outcome.out, "zel_malloc_debug_report: 105 bytes allocated, 2 pointers\n");
    EXPECT_EQ(outcome.err, "");
}

TEST(DebugHeapReport, OnePointerIsNotedInTheSameWords) {
    const Outcome outcome = run_heap(1, [] {
        zel_malloc(1, "f", "p");
        zel_malloc_debug_report(0);
    });
    EXPECT_EQ(outcome.out, "zel_malloc_debug_report: 1 bytes allocated, 1 pointers\n");
}

TEST(DebugHeapReport, AnAllocationByFunctionHasItsFunctionAndPurpose) {
    EXPECT_EQ(report_of([] { named('P', zel_malloc(36, "components/platform/file_control:808", "glob_t")); }),
              kTop + "     0 <P>      36 zel_malloc           components/platform/file_control:808 glob_t\n"
                     "zel_malloc_debug_report: 36 bytes allocated, 1 pointers\n");
}

TEST(DebugHeapReport, AnAllocationByLineHasItsLineAndFile) {
    EXPECT_EQ(report_of([] { named('P', zel_malloc_fl(12, "ZEL_MALLOC_ARRAY", 451, "guest.c")); }),
              kTop + "     0 <P>      12 ZEL_MALLOC_ARRAY     451                  guest.c\n"
                     "zel_malloc_debug_report: 12 bytes allocated, 1 pointers\n");
}

TEST(DebugHeapReport, AMissingFunctionOrPurposeIsThreeQuestionMarks) {
    EXPECT_EQ(report_of([] {
                  named('P', zel_malloc(1, nullptr, "purpose"));
                  named('Q', zel_malloc(2, "function", nullptr));
                  named('R', zel_calloc_if_room(1, 3));
              }),
              kTop + "     0 <P>       1 zel_malloc           ???                  purpose\n"
                     "     1 <Q>       2 zel_malloc           function             ???\n"
                     "     2 <R>       3 zel_calloc_if_room   ???                  ???\n"
                     "zel_malloc_debug_report: 6 bytes allocated, 3 pointers\n");
}

TEST(DebugHeapReport, EveryEntryStandsUnderItsOwnName) {
    EXPECT_EQ(report_of([] {
                  named('A', zel_malloc(1, "f", "p"));
                  named('B', zel_calloc(1, 2, "f", "p"));
                  named('C', zel_realloc(nullptr, 3, "f", "p"));
                  named('D', zel_strdup("abc", "f", "p"));
                  named('E', zel_calloc_fl(1, 5, "calloc", -1, "a.c"));
                  named('F', zel_realloc_fl(nullptr, 6, "realloc", 0, "b.c"));
                  named('G', zel_strdup_fl("abcdef", "ZEL_STRDUP", 2147483647, "c.c"));
                  named('H', zel_malloc_if_room(8));
                  named('I', zel_realloc_if_room(nullptr, 9));
              }),
              kTop + "     0 <A>       1 zel_malloc           f                    p\n"
                     "     1 <B>       2 zel_calloc           f                    p\n"
                     "     2 <C>       3 zel_realloc          f                    p\n"
                     "     3 <D>       4 zel_strdup           f                    p\n"
                     "     4 <E>       5 calloc               -1                   a.c\n"
                     "     5 <F>       6 realloc              0                    b.c\n"
                     "     6 <G>       7 ZEL_STRDUP           2147483647           c.c\n"
                     "     7 <H>       8 zel_malloc_if_room   ???                  ???\n"
                     "     8 <I>       9 zel_realloc_if_room  ???                  ???\n"
                     "zel_malloc_debug_report: 45 bytes allocated, 9 pointers\n");
}

TEST(DebugHeapReport, AFormattedTextStandsUnderTheEntriesThatItCalls) {
    EXPECT_EQ(report_of([] { named('P', zel_printf_strdup("%040d", 1)); }),
              kTop + "     0 <P>      42 zel_realloc          zel_vprintf_strdup   buffer resize\n"
                     "zel_malloc_debug_report: 42 bytes allocated, 1 pointers\n");
}

TEST(DebugHeapReport, TheCopiesThatAJoinedTextLeavesAreListedBeforeIt) {
    // The report alone knows the pointers of the copies: the rest of their rows is
    // compared.
    std::string report = report_of([] { zel_strdup2_fl("/usr", "/local", "ZEL_STRDUP", 7, "paths.c"); });
    size_t at;
    while ((at = report.find("0x")) != std::string::npos) {
        report.replace(at, written(nullptr).size(), "<>");
    }
    EXPECT_EQ(report, kTop + "     0 <>       5 ZEL_STRDUP           7                    paths.c\n"
                             "     1 <>       7 ZEL_STRDUP           7                    paths.c\n"
                             "     2 <>      11 ZEL_STRDUP           7                    paths.c\n"
                             "zel_malloc_debug_report: 23 bytes allocated, 3 pointers\n");
}

TEST(DebugHeapReport, RowsStandInTheOrderOfTheIndices) {
    EXPECT_EQ(report_of([] {
                  void *first = zel_malloc(1, "first", "p");
                  named('Q', zel_malloc(2, "second", "p"));
                  zel_free(first);
                  named('R', zel_malloc(3, "third", "p"));
                  named('S', zel_malloc(4, "fourth", "p"));
              }),
              kTop + "     0 <R>       3 zel_malloc           third                p\n"
                     "     1 <Q>       2 zel_malloc           second               p\n"
                     "     2 <S>       4 zel_malloc           fourth               p\n"
                     "zel_malloc_debug_report: 9 bytes allocated, 3 pointers\n");
}

TEST(DebugHeapReport, AResizedAllocationIsDescribedByItsResize) {
    EXPECT_EQ(report_of([] {
                  void *pointer = zel_malloc(5, "first", "text");
                  named('P', zel_realloc_fl(pointer, 12345678, "grow", 9, "x.c"));
              }),
              kTop + "     0 <P>12345678 grow                 9                    x.c\n"
                     "zel_malloc_debug_report: 12345678 bytes allocated, 1 pointers\n");
}

TEST(DebugHeapReport, InvalidPointersAreMarkedAndCounted) {
    EXPECT_EQ(report_of([] {
                  void *sound = named('P', zel_malloc(4, "f", "p"));
                  void *trailer = named('Q', zel_malloc(5, "f", nullptr));
                  void *magic = named('R', zel_malloc_fl(6, "m", 3, "x.c"));
                  static_cast<char *>(sound)[3] = 0;
                  set_word_at(trailer, 8, 0x35A7B640);
                  set_word_at(magic, kMagicAt, 0);
              }),
              kTop + "     0 <P>       4 zel_malloc           f                    p\n"
                     "*    1 <Q>       5 zel_malloc           f                    ???\n"
                     "*    2 <R>       6 m                    3                    x.c\n"
                     "zel_malloc_debug_report: 15 bytes allocated, 3 pointers (2 invalid or corrupted!)\n");
}

TEST(DebugHeapReport, TheTotalsCountTheInvalidWithoutRowsToo) {
    const Outcome outcome = run_heap(1, [] {
        set_word_at(zel_malloc(4, "f", "p"), 4, 0);
        zel_malloc_debug_report(0);
    });
    EXPECT_EQ(outcome.out, "zel_malloc_debug_report: 4 bytes allocated, 1 pointers (1 invalid or corrupted!)\n");
    EXPECT_EQ(outcome.err, "");
}

TEST(DebugHeapReport, AReportChangesNothingAndEndsNothing) {
    const Outcome outcome = run_heap(2, [] {
        void *damaged = named('P', zel_malloc(4, "f", "p"));
        set_word_at(damaged, 4, 0);
        zel_malloc_debug_report(1);
        zel_malloc_debug_report(1);
        printf("%lu %08X %08X %08X\n", zel_malloc_mem_used(), word_at(damaged, kIndexAt), word_at(damaged, kMagicAt),
               word_at(damaged, 4));
    });
    const std::string report = kTop + "*    0 <P>       4 zel_malloc           f                    p\n"
                                      "zel_malloc_debug_report: 4 bytes allocated, 1 pointers (1 invalid or "
                                      "corrupted!)\n";
    EXPECT_EQ(outcome.out, report + report + "4 00000000 5739E56A 00000000\n");
    EXPECT_EQ(outcome.status, 0);
}

TEST(DebugHeapReport, AnyNumberButZeroListsTheRows) {
    for (const int verbose : {-1, 2, 256}) {
        const Outcome outcome = run_heap(1, [verbose] {
            zel_malloc(4, "f", "p");
            zel_malloc_debug_report(verbose);
        });
        EXPECT_EQ(outcome.out.substr(0, kTop.size()), kTop);
    }
}

TEST(DebugHeapReport, TheTableKeepsItsColumnsAtAnyWidth) {
    const Outcome outcome = run_heap(1, [] {
        msg_set_width_limit(30);
        named('P', zel_malloc(5, "a function with blanks", "a purpose with blanks"));
        named('Q', zel_malloc_fl(6, "a macro with blanks", 7, "a folder/a file with blanks"));
        zel_malloc_debug_report(1);
    });
    EXPECT_EQ(outcome.out,
              "Note: a `*' in the first\n"
              "column indicates an invalid or\n"
              "corrupted pointer.\n" +
                  std::string(kHeading) +
                  "     0 <P>       5 zel_malloc           a function with blanks a purpose with blanks\n"
                  "     1 <Q>       6 a macro with blanks  7                    a folder/a file with blanks\n"
                  "zel_malloc_debug_report: 11\n"
                  "bytes allocated, 2 pointers\n");
}

TEST(DebugHeapReport, TheTableKeepsItsColumnsAtTheWidthOfEveryProgram) {
    const Outcome outcome = run_named([] {
        msg_set_width_limit(78);
        zel_enable_malloc_debug(1);
        named('P', zel_malloc(5, "components/platform/file_control:808", "the list of all the entries"));
        zel_malloc_debug_report(1);
    });
    EXPECT_EQ(outcome.out,
              kTop + "     0 <P>       5 zel_malloc           components/platform/file_control:808 the list of all the "
                     "entries\nzel_malloc_debug_report: 5 bytes allocated, 1 pointers\n");
}

TEST(DebugHeapReport, LongTextsAreWrittenWhole) {
    static const std::string function(3000, 'f');
    static const std::string purpose(9000, 'p');
    EXPECT_EQ(report_of([] { named('P', zel_malloc(5, function.c_str(), purpose.c_str())); }),
              kTop + "     0 <P>       5 zel_malloc           " + function + " " + purpose +
                  "\nzel_malloc_debug_report: 5 bytes allocated, 1 pointers\n");
}
