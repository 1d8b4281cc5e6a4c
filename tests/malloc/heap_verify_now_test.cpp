// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Verification on demand, in either mode.
#include "debug_heap_support.h"

#include <malloc/heap_report.h>
#include <msg/msg.h>

#include <cstdio>
#include <string>
#include <unistd.h>

using namespace zel::test;

namespace {

constexpr int kModes[] = {ZEL_MALLOC_CHECK_PTR, ZEL_MALLOC_VERIFY_HEAP};

const std::string kAtTheEnd =
    "Warning: The pointer <P> referenced data that was corrupted at the end.  The pointer was "
    "allocated by zel_malloc with a length of 4.  The storage was allocated in the function "
    "F for p.  \n";
const std::string kAtTheBeginning = "Warning: The pointer <Q> referenced data that was corrupted at the beginning.  "
                                    "The pointer was allocated by zel_malloc with a length of 5.  \n";

} // namespace

TEST(HeapVerifyNow, ASoundHeapHasNoFinding) {
    for (const int mode : kModes) {
        const Outcome outcome = run_heap(mode, [] {
            printf("%d ", zel_malloc_verify());
            zel_malloc(5, "f", "p");
            zel_free(zel_malloc(6, "f", "p"));
            printf("%d", zel_malloc_verify());
        });
        EXPECT_EQ(outcome.out, "0 0") << mode;
        EXPECT_EQ(outcome.err, "") << mode;
    }
}

TEST(HeapVerifyNow, EachCorruptedBlockIsAWarningAndTheProcessGoesOn) {
    for (const int mode : kModes) {
        const Outcome outcome = run_heap(mode, [] {
            void *p = named('P', zel_malloc(4, "F", "p"));
            zel_malloc(5, "sound", nullptr);
            void *q = named('Q', zel_malloc(5, nullptr, nullptr));
            set_word_at(q, kMagicAt, 0);
            set_word_at(p, 4, 0);
            printf("%d ", zel_malloc_verify());
            set_word_at(p, 4, kTrailer);
            printf("%d ", zel_malloc_verify());
            set_word_at(q, kMagicAt, kLive);
            printf("%d", zel_malloc_verify());
        });
        EXPECT_EQ(outcome.out, "2 1 0") << mode;
        EXPECT_EQ(outcome.err, kAtTheEnd + kAtTheBeginning + kAtTheBeginning) << mode;
        EXPECT_EQ(outcome.status, 0) << mode;
    }
}

TEST(HeapVerifyNow, WhatCameAndWentInTheOtherModeIsKnown) {
    const Outcome outcome = run_heap(ZEL_MALLOC_VERIFY_HEAP, [] {
        void *released = zel_malloc(5, "f", "p");
        zel_enable_malloc_debug(ZEL_MALLOC_CHECK_PTR);
        zel_free(released);
        zel_malloc(6, "f", "p");
        set_word_at(named('P', zel_malloc(4, "F", "p")), 4, 0);
        printf("%d", zel_malloc_verify());
    });
    EXPECT_EQ(outcome.out, "1");
    EXPECT_EQ(outcome.err, kAtTheEnd);
}

TEST(HeapVerifyNow, TheModeThatVerifiesStillEndsTheProcessAtTheNextCall) {
    const Outcome outcome = run_heap(ZEL_MALLOC_VERIFY_HEAP, [] {
        set_word_at(named('P', zel_malloc(4, "F", "p")), 4, 0);
        printf("%d", zel_malloc_verify());
        zel_malloc(1, "G", nullptr);
    });
    EXPECT_EQ(outcome.out, "1");
    EXPECT_EQ(outcome.err,
              kAtTheEnd + kAtTheEnd + "Error: zel_malloc: The heap was corrupted. (Currently inside of G)\n");
    EXPECT_EQ(outcome.status, 1);
}

namespace {

// From now on warnings are written by a stream that runs the body at every write.
void warn_through(void (*body)()) {
    static void (*at_write)();
    at_write = body;
    const auto write_through = [](void *, const char *bytes, size_t length) {
        at_write();
        return write(STDERR_FILENO, bytes, length);
    };
    FILE *stream =
        fopencookie(nullptr, "w", {.read = nullptr, .write = write_through, .seek = nullptr, .close = nullptr});
    setvbuf(stream, nullptr, _IONBF, 0);
    msg_clear_streams(MSG_WARNING);
    msg_add_stream(MSG_WARNING, stream);
}

} // namespace

TEST(HeapVerifyNow, AStreamThatVerifiesWhileFindingsAreWrittenGetsTheCount) {
    for (const int mode : kModes) {
        const Outcome outcome = run_heap(mode, [] {
            static int32_t within;
            set_word_at(named('P', zel_malloc(4, "F", "p")), 4, 0);
            warn_through([] { within = zel_malloc_verify(); });
            const int32_t findings = zel_malloc_verify();
            printf("%d %d", findings, within);
        });
        EXPECT_EQ(outcome.out, "1 1") << mode;
        EXPECT_EQ(outcome.err, kAtTheEnd) << mode;
    }
}

TEST(HeapVerifyNow, AStreamThatAllocatesAndSwitchesTheModeDoesNotEndIt) {
    for (const int mode : kModes) {
        const Outcome outcome = run_heap(mode, [] {
            void *p = named('P', zel_malloc(4, "F", "p"));
            void *q = named('Q', zel_malloc(5, nullptr, nullptr));
            set_word_at(p, 4, 0);
            set_word_at(q, kMagicAt, 0);
            warn_through([] {
                zel_malloc(1, "stream", "text");
                zel_enable_malloc_debug(ZEL_MALLOC_CHECK_PTR + ZEL_MALLOC_VERIFY_HEAP - zel_malloc_debug_mode());
            });
            printf("%d", zel_malloc_verify());
        });
        EXPECT_EQ(outcome.out, "2") << mode;
        EXPECT_EQ(outcome.err, kAtTheEnd + kAtTheBeginning) << mode;
    }
}
