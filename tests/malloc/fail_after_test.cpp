// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Failures on demand: which request fails, how, and what it leaves.
#include "debug_heap_support.h"
#include "malloc_support.h"

#include <malloc/heap_report.h>
#include <support/interpose.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

using namespace zel::test;

namespace {

constexpr int kModes[] = {0, ZEL_MALLOC_CHECK_PTR, ZEL_MALLOC_VERIFY_HEAP};

void request() {
    void *block = zel_malloc_if_room(8);
    printf(block == nullptr ? "- " : "+ ");
    zel_free(block);
}

// The body with the debug heap off, and in each of its modes.
void expect_in_each_mode(const std::function<void()> &body, const std::string &out, const std::string &err = "",
                         int status = 0) {
    for (const int mode : kModes) {
        const Outcome outcome = run_heap(mode, body);
        EXPECT_EQ(outcome.out, out) << mode;
        EXPECT_EQ(outcome.err, err) << mode;
        EXPECT_EQ(outcome.status, status) << mode;
    }
}

} // namespace

TEST(FailAfter, TheRequestBehindThatManyFailsAndLaterOnesSucceed) {
    expect_in_each_mode(
        [] {
            zel_malloc_fail_after(2);
            for (int count = 0; count < 5; ++count) {
                request();
            }
            zel_malloc_fail_after(0);
            request();
            request();
        },
        "+ + - + + - + ");
}

TEST(FailAfter, AtFirstAndAfterANegativeNumberNoneFails) {
    expect_in_each_mode(
        [] {
            request();
            for (const long n : {-1L, LONG_MIN}) {
                zel_malloc_fail_after(0);
                zel_malloc_fail_after(n);
                request();
            }
        },
        "+ + + ");
}

TEST(FailAfter, TheResultIsWhatWasStillToSucceed) {
    expect_in_each_mode(
        [] {
            printf("%ld ", zel_malloc_fail_after(3));
            request();
            printf("%ld ", zel_malloc_fail_after(0));
            request();
            printf("%ld ", zel_malloc_fail_after(LONG_MAX));
            printf("%d ", zel_malloc_fail_after(-5) == LONG_MAX);
            printf("%ld", zel_malloc_fail_after(-1));
        },
        "-1 + 2 - -1 1 -1");
}

TEST(FailAfter, AnOrdinaryEntryReportsAndEndsTheProcess) {
    expect_in_each_mode(
        [] {
            zel_malloc_fail_after(0);
            zel_malloc(20, "read_index", "index page");
        },
        "", "Error: read_index (via zel_malloc): Not enough memory to allocate 20 bytes for index page.\n", 1);
    expect_in_each_mode(
        [] {
            zel_malloc_fail_after(0);
            zel_calloc_fl(5, 4, "ZEL_CALLOC", 7, "guest.c");
        },
        "", "Error: ZEL_CALLOC in guest.c, line 7: Not enough memory to allocate 20 bytes.\n", 1);
}

TEST(FailAfter, TheFailureHandlerDecidesAndMayAllocate) {
    expect_in_each_mode(
        [] {
            zel_malloc_set_failure_handler([](unsigned long size, const char *message) -> void * {
                printf("%lu %s\n", size, message);
                return zel_malloc(1, "handler", "spare");
            });
            zel_malloc_fail_after(0);
            char *spare = zel_strdup("guest", nullptr, nullptr);
            printf("%d\n", spare != nullptr);
            zel_free(spare);
        },
        "6 zel_strdup: Not enough memory to allocate 6 bytes.\n1\n");
}

TEST(FailAfter, AQuietEntryReturnsNullWithTheErrorOfNoMemory) {
    expect_in_each_mode(
        [] {
            zel_malloc_fail_after(0);
            errno = 0;
            const bool failed = zel_calloc_if_room(2, 4) == nullptr;
            printf("%d %d", failed, errno == ENOMEM);
        },
        "1 1");
}

TEST(FailAfter, AJoinedTextMakesThreeRequests) {
    for (const int mode : kModes) {
        for (long n = 0; n < 4; ++n) {
            const Outcome outcome = run_heap(mode, [n] {
                zel_malloc_fail_after(n);
                zel_strdup2("/usr", "/bin", "join", "path");
                printf("%ld", zel_malloc_fail_after(-1));
            });
            EXPECT_EQ(outcome.out, n == 3 ? "0" : "") << n;
            EXPECT_EQ(outcome.status, n == 3 ? 0 : 1) << n;
        }
    }
}

TEST(FailAfter, RequestsForNothingAndReleasesDoNotCount) {
    expect_in_each_mode(
        [] {
            void *block = zel_malloc_if_room(1);
            zel_malloc_fail_after(1);
            zel_malloc(0, "f", "p");
            zel_strdup(nullptr, "f", "p");
            zel_free(block);
            zel_free(nullptr);
            zel_realloc(zel_malloc_if_room(1), 0, "f", "p");
            printf("%ld", zel_malloc_fail_after(-1));
        },
        "0");
}

TEST(FailAfter, ABlockThatCannotBeResizedStaysWhileTheDebugHeapIsOff) {
    const Outcome outcome = run_named([] {
        char *text = zel_strdup("guest", "f", "p");
        zel_malloc_fail_after(0);
        const void *resized = zel_realloc_if_room(text, 1 << 20);
        printf("%d %s", resized == nullptr, text);
        zel_free(text);
    });
    EXPECT_EQ(outcome.out, "1 guest");
    EXPECT_EQ(outcome.status, 0);
}

TEST(FailAfter, ABlockThatCannotBeResizedCountsAsReleased) {
    for (const int mode : {ZEL_MALLOC_CHECK_PTR, ZEL_MALLOC_VERIFY_HEAP}) {
        const Outcome outcome = run_heap(mode, [] {
            void *block = zel_malloc(8, "f", "p");
            zel_malloc_fail_after(0);
            printf("%d ", zel_realloc_if_room(block, 16) == nullptr);
            printf("%lu %08X", zel_malloc_mem_used(), word_at(block, kMagicAt));
            free(static_cast<char *>(block) - 8); // as the system would keep it
        });
        EXPECT_EQ(outcome.out, "1 0 7D2C5B7E");
        EXPECT_EQ(outcome.err, "");
    }
}

TEST(FailAfter, TheSystemIsNotAskedAndTheAttemptCounts) {
    for (const int mode : kModes) {
        const Outcome outcome = run_heap(mode, [] {
            void *block = zel_malloc_if_room(8);
            const unsigned long before = zel_malloc_total_requested();
            zel_malloc_fail_after(0);
            AllocatorLog log;
            zel_malloc_if_room(5);
            zel_malloc_fail_after(0);
            zel_realloc_if_room(block, 5);
            printf("%zu %lu", log.calls.size(), zel_malloc_total_requested() - before);
        });
        EXPECT_EQ(outcome.out, mode == 0 ? "0 10" : "0 40");
    }
}

TEST(FailAfter, TheHeapIsVerifiedBeforeARequestFails) {
    const Outcome outcome = run_heap(ZEL_MALLOC_VERIFY_HEAP, [] {
        set_word_at(zel_malloc(4, "F", "p"), 4, 0);
        zel_malloc_fail_after(0);
        zel_malloc_if_room(1);
    });
    EXPECT_NE(outcome.err.find("Error: zel_malloc_if_room: The heap was corrupted. \n"), std::string::npos);
    EXPECT_EQ(outcome.status, 1);
}

TEST(FailAfter, TheDebugHeapMayBeSwitchedOnMeanwhile) {
    const Outcome outcome = run_named([] {
        zel_malloc_fail_after(1);
        zel_enable_malloc_debug(ZEL_MALLOC_CHECK_PTR);
        request();
        zel_enable_malloc_debug(ZEL_MALLOC_VERIFY_HEAP);
        request();
        request();
    });
    EXPECT_EQ(outcome.out, "+ - + ");
    EXPECT_EQ(outcome.status, 0);
}

TEST(FailAfter, WhatTheLibraryAsksForItselfDoesNotCount) {
    const Outcome outcome = run_heap(ZEL_MALLOC_CHECK_PTR, [] {
        zel_malloc_fail_after(1);
        zel_malloc(1, "f", "p"); // the table of records is allocated as well
        zel_malloc_mark();
        free(zel_malloc_report_json());
        printf("%ld", zel_malloc_fail_after(-1));
    });
    EXPECT_EQ(outcome.out, "0");
}

namespace {

// An operation of a program: it loses nothing when one of its requests fails.
bool load() {
    void *name = zel_malloc_if_room(16);
    void *page = name == nullptr ? nullptr : zel_malloc_if_room(4096);
    zel_free(page);
    zel_free(name);
    return page != nullptr;
}

} // namespace

TEST(FailAfter, ASweepVisitsEachFailureOfAnOperation) {
    expect_in_each_mode(
        [] {
            long left = -1;
            for (long n = 0; left < 0; ++n) {
                zel_malloc_fail_after(n);
                const bool loaded = load();
                left = zel_malloc_fail_after(-1);
                printf("%d%s ", loaded, left < 0 ? "" : " end");
            }
            printf("%lu", zel_malloc_debug_mode() == 0 ? 0 : zel_malloc_mem_used());
        },
        "0 0 1 end 0");
}
