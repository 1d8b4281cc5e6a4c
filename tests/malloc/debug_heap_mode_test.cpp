// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The switch of the debug heap, and its answers while it is off.
#include "debug_heap_support.h"

#include <components/platform/environment.h>
#include <msg/msg.h>
#include <support/interpose.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

using namespace zel::test;

namespace {

constexpr const char *kCannotBeDisabled =
    "Error: zel_enable_malloc_debug: Once enabled, malloc debugging cannot be disabled.\n";
constexpr const char *kBadMode = "Error: zel_enable_malloc_debug: Bad mode.  Should be either ZEL_MALLOC_CHECK_PTR or "
                                 "ZEL_MALLOC_VERIFY_HEAP.\n";
constexpr const char *kTooLate = "Error: zel_enable_malloc_debug cannot be called once one of the Zel MALLOC library "
                                 "allocation functions have been called.\n";

void print_mode() {
    printf("mode %d\n", zel_malloc_debug_mode());
}

Outcome switch_from_to(int before, int after) {
    return run_heap(before, [after] {
        zel_enable_malloc_debug(after);
        print_mode();
    });
}

void expect_ended(const Outcome &outcome, const char *error) {
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, error);
    EXPECT_EQ(outcome.status, 1);
}

// The outcome of the first switch after the action.
Outcome switch_on_after(const std::function<void()> &action) {
    return run_named([&action] {
        action();
        zel_enable_malloc_debug(ZEL_MALLOC_CHECK_PTR);
        print_mode();
    });
}

void expect_still_allowed(const std::function<void()> &action) {
    const Outcome outcome = switch_on_after(action);
    EXPECT_NE(outcome.out.find("mode 1\n"), std::string::npos) << outcome.out << outcome.err;
    EXPECT_EQ(outcome.status, 0);
}

} // namespace

TEST(DebugHeapMode, TheDebugHeapIsOffAtFirst) {
    EXPECT_EQ(run_named(print_mode).out, "mode 0\n");
}

TEST(DebugHeapMode, TheModesHaveTheirNumbers) {
    EXPECT_EQ(ZEL_MALLOC_CHECK_PTR, 1);
    EXPECT_EQ(ZEL_MALLOC_VERIFY_HEAP, 2);
}

TEST(DebugHeapMode, EitherModeCanBeSwitchedOn) {
    EXPECT_EQ(run_heap(1, print_mode).out, "mode 1\n");
    EXPECT_EQ(run_heap(2, print_mode).out, "mode 2\n");
}

TEST(DebugHeapMode, ModeZeroWhileOffDoesNothing) {
    const Outcome outcome = run_named([] {
        zel_enable_malloc_debug(0);
        zel_free(zel_malloc(1, nullptr, nullptr));
        zel_enable_malloc_debug(0);
        print_mode();
    });
    EXPECT_EQ(outcome.out, "mode 0\n");
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
}

TEST(DebugHeapMode, ModeZeroWhileOffLeavesTheWayOpen) {
    expect_still_allowed([] { zel_enable_malloc_debug(0); });
}

TEST(DebugHeapMode, ModeZeroWhileOnEndsTheProcess) {
    expect_ended(switch_from_to(1, 0), kCannotBeDisabled);
    expect_ended(switch_from_to(2, 0), kCannotBeDisabled);
}

TEST(DebugHeapMode, AnyOtherModeEndsTheProcess) {
    for (const int mode : {3, 4, 256, INT_MAX, -1, -2, INT_MIN}) {
        expect_ended(run_named([mode] { zel_enable_malloc_debug(mode); }), kBadMode);
    }
}

TEST(DebugHeapMode, AnyOtherModeEndsTheProcessWhileOnToo) {
    expect_ended(switch_from_to(1, 3), kBadMode);
    expect_ended(switch_from_to(2, -1), kBadMode);
}

TEST(DebugHeapMode, ABadModeIsNamedBeforeTheLateness) {
    expect_ended(run_named([] {
                     zel_free(zel_malloc(1, nullptr, nullptr));
                     zel_enable_malloc_debug(3);
                 }),
                 kBadMode);
}

TEST(DebugHeapMode, TheDebugHeapCannotBeSwitchedOnAfterAnAllocation) {
    for (const int mode : {1, 2}) {
        expect_ended(run_named([mode] {
                         zel_free(zel_malloc(1, nullptr, nullptr));
                         zel_enable_malloc_debug(mode);
                     }),
                     kTooLate);
    }
}

TEST(DebugHeapMode, EveryKindOfAllocationEndsThePeriod) {
    expect_ended(switch_on_after([] { zel_free(zel_calloc(1, 1, nullptr, nullptr)); }), kTooLate);
    expect_ended(switch_on_after([] { zel_free(zel_realloc(nullptr, 1, nullptr, nullptr)); }), kTooLate);
    expect_ended(switch_on_after([] { zel_free(zel_strdup("", nullptr, nullptr)); }), kTooLate);
    expect_ended(switch_on_after([] { zel_free(zel_malloc_if_room(1)); }), kTooLate);
    expect_ended(switch_on_after([] { zel_free(ZEL_MALLOC_ARRAY(char, 1)); }), kTooLate);
    expect_ended(switch_on_after([] { zel_free(zel_printf_strdup("x")); }), kTooLate);
}

TEST(DebugHeapMode, AResizeOfABlockFromTheSystemEndsThePeriod) {
    expect_ended(switch_on_after([] { free(zel_realloc(malloc(1), 2, nullptr, nullptr)); }), kTooLate);
}

TEST(DebugHeapMode, AnAttemptThatFailedEndsThePeriod) {
    expect_ended(switch_on_after([] {
                     const Interposed failing(hook::malloc, fail_always(hook::malloc, ENOMEM, nullptr));
                     zel_malloc_if_room(1);
                 }),
                 kTooLate);
}

TEST(DebugHeapMode, RequestsOfNothingDoNotEndThePeriod) {
    expect_still_allowed([] { zel_malloc(0, nullptr, nullptr); });
    expect_still_allowed([] { zel_calloc(0, 4, nullptr, nullptr); });
    expect_still_allowed([] { zel_calloc(4, 0, nullptr, nullptr); });
    expect_still_allowed([] { zel_realloc(nullptr, 0, nullptr, nullptr); });
    expect_still_allowed([] { zel_strdup(nullptr, nullptr, nullptr); });
    expect_still_allowed([] { zel_malloc_if_room(0); });
    expect_still_allowed([] { zel_free(nullptr); });
}

TEST(DebugHeapMode, AReleaseDoesNotEndThePeriod) {
    expect_still_allowed([] { zel_free(malloc(1)); });
}

TEST(DebugHeapMode, MessagesDoNotEndThePeriod) {
    expect_still_allowed([] {
        msg_set_print_prefix("program: ");
        msg_set_mp_prefix("[1] ");
        msg_add_stream(MSG_INFO | MSG_DIAG, stderr);
        msg_print("a line");
        msg_warn_wrap("a warning ");
        MSG_CONT("and the rest of it");
        msg_diag("a diagnosis");
        msg_set_print_prefix("");
        msg_set_mp_prefix("");
    });
}

TEST(DebugHeapMode, AFailedSystemCallDoesNotEndThePeriod) {
    expect_still_allowed([] {
        errno = ENOENT;
        platform_perror("open");
    });
}

TEST(DebugHeapMode, TheModesMayBeSwitchedAtAnyTime) {
    const Outcome outcome = run_heap(1, [] {
        void *damaged = zel_malloc(4, nullptr, nullptr);
        set_word_at(damaged, 4, 0);
        zel_enable_malloc_debug(2);
        zel_enable_malloc_debug(1);
        zel_free(zel_malloc(4, nullptr, nullptr)); // not verified
        print_mode();
        fflush(stdout);
        zel_enable_malloc_debug(2);
        zel_malloc(4, "late", nullptr);
    });
    EXPECT_EQ(outcome.out, "mode 1\n");
    EXPECT_NE(outcome.err.find("Error: zel_malloc: The heap was corrupted. (Currently inside of late)\n"),
              std::string::npos)
        << outcome.err;
    EXPECT_EQ(outcome.status, 1);
}

TEST(DebugHeapMode, ASwitchBackKnowsWhatCameAndWentMeanwhile) {
    const Outcome outcome = run_heap(2, [] {
        void *stays = named('P', zel_malloc(4, "stays", "s"));
        void *goes = zel_malloc(4, "goes", "g");
        zel_enable_malloc_debug(1);
        keep_from_system(goes);
        zel_free(goes);
        zel_malloc(5, "takes the record", "t");
        void *comes = named('Q', zel_malloc(4, "comes", "c"));
        for (void *damaged : {stays, goes, comes}) {
            set_word_at(damaged, 4, 0);
        }
        zel_enable_malloc_debug(2);
        zel_malloc(1, "late", nullptr);
    });
    const std::string finding = " referenced data that was corrupted at the end.  The pointer was allocated by "
                                "zel_malloc with a length of 4.  The storage was allocated in the function ";
    EXPECT_EQ(outcome.err, "Warning: The pointer <P>" + finding + "stays for s.  \n" + "Warning: The pointer <Q>" +
                               finding + "comes for c.  \n" +
                               "Error: zel_malloc: The heap was corrupted. (Currently inside of late)\n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(DebugHeapMode, ASwitchBackForgetsWhatWasReleasedMeanwhile) {
    const Outcome outcome = run_heap(2, [] {
        void *goes = zel_malloc(4, "goes", "g");
        zel_enable_malloc_debug(1);
        zel_free(goes);
        zel_enable_malloc_debug(2);
        zel_malloc_debug_report(0);
        zel_malloc(1, "late", nullptr);
    });
    EXPECT_EQ(outcome.out, "zel_malloc_debug_report: No storage was allocated\n");
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
}

TEST(DebugHeapMode, ASwitchAsksTheSystemForNothing) {
    const Outcome outcome = run_heap(1, [] {
        for (int count = 0; count < 3000; ++count) {
            zel_malloc(4, nullptr, nullptr);
        }
        static int calls;
        const auto count = [](auto &hook) {
            return [&hook](auto... arguments) { return ++calls, hook.real(arguments...); };
        };
        {
            const Interposed counted(hook::malloc, count(hook::malloc));
            const Interposed resized(hook::realloc, count(hook::realloc));
            zel_enable_malloc_debug(2);
            zel_enable_malloc_debug(1);
        }
        printf("%d", calls);
    });
    EXPECT_EQ(outcome.out, "0");
}

TEST(DebugHeapMode, SwitchingToTheSameModeChangesNothing) {
    EXPECT_EQ(switch_from_to(1, 1).out, "mode 1\n");
    EXPECT_EQ(switch_from_to(2, 2).out, "mode 2\n");
}

// ---- While the debug heap is off ------------------------------------------------------------------------------------

TEST(DebugHeapOff, TheReportIsAWarning) {
    for (const int verbose : {0, 1}) {
        const Outcome outcome = run_named([verbose] { zel_malloc_debug_report(verbose); });
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(outcome.err, "Warning: zel_malloc_debug_report should only be called when the malloc debug mode is "
                               "enabled.\n");
        EXPECT_EQ(outcome.status, 0);
    }
}

TEST(DebugHeapOff, TheDescriptionIsAWarning) {
    const Outcome outcome = run_named([] { zel_malloc_describe_ptr(nullptr); });
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "Warning: zel_malloc_describe_ptr should only be called when the malloc debug mode is "
                           "enabled.\n");
    EXPECT_EQ(outcome.status, 0);
}

TEST(DebugHeapOff, TheBytesInUseAreAWarningAndNone) {
    const Outcome outcome = run_named([] {
        void *pointer = zel_malloc(100, nullptr, nullptr);
        printf("%lu\n", zel_malloc_mem_used());
        zel_free(pointer);
    });
    EXPECT_EQ(outcome.out, "0\n");
    EXPECT_EQ(outcome.err, "Warning: zel_malloc_mem_used should only be called when the malloc debug mode is "
                           "enabled.\n");
    EXPECT_EQ(outcome.status, 0);
}

TEST(DebugHeapOff, TheSystemIsAskedForTheSizeItself) {
    const Outcome outcome = run_named([] {
        static size_t requested;
        const Interposed watched(hook::malloc, [](size_t size) {
            requested = size;
            return hook::malloc.real(size);
        });
        void *pointer = zel_malloc(5, nullptr, nullptr);
        const size_t first = requested;
        const bool has_no_fill = memcmp(pointer, "\xAB\xAB\xAB\xAB\xAB", 5) != 0;
        zel_free(pointer);
        printf("%zu %d %lu\n", first, has_no_fill, zel_malloc_total_requested());
    });
    EXPECT_EQ(outcome.out, "5 1 5\n");
}

TEST(DebugHeapOff, AReleasedBlockGoesBackAsItIs) {
    const Outcome outcome = run_named([] {
        void *pointer = zel_strdup("text", nullptr, nullptr);
        const SeenByTheSystem *seen = watch_next_release(5);
        zel_free(pointer);
        printf("%d %s\n", seen->block == pointer, seen->bytes.c_str());
    });
    EXPECT_EQ(outcome.out, "1 text\n");
}

TEST(DebugHeapOff, NoReleaseIsNotedWhateverTheThreshold) {
    const Outcome outcome = run_named([] {
        zel_malloc_set_free_report_threshold(0);
        zel_free(zel_malloc(5, nullptr, nullptr));
    });
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
}

TEST(DebugHeapOff, APointerThatIsNoMultipleOfEightEndsTheProcess) {
    const Outcome outcome = run_named([] { zel_free(named('P', reinterpret_cast<void *>(12))); });
    EXPECT_EQ(outcome.err, "Error: zel_free was passed an invalid pointer: <P>\n");
    EXPECT_EQ(outcome.status, 1);
}
