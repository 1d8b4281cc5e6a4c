// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The reports of the memory library when memory is exhausted, or every malloc fails.
#include "msg_support.h"

#include <cerrno>
#include <cstdlib>
#include <malloc/debug_heap.h>
#include <malloc/zel_malloc.h>
#include <ostream>
#include <support/interpose.h>

#ifndef __SANITIZE_ADDRESS__
#include <sys/resource.h>
#endif

using namespace zel::test;

#ifndef ZEL_SMALL_CONSTANTS
// The fixed area holds the whole report.

namespace {

// The steps of a program before its memory is exhausted.
struct Situation {
    int mode;   // of the debug heap
    bool wrote; // messages, so that the stream lists are there
};

void PrintTo(const Situation &situation, std::ostream *out) {
    *out << "Mode" << situation.mode << (situation.wrote ? "AfterAMessage" : "AheadOfAllMessages");
}

const auto kSituations = testing::Values(Situation{0, false}, Situation{0, true}, Situation{1, false},
                                         Situation{1, true}, Situation{2, false}, Situation{2, true});

const auto kSituationName = [](const testing::TestParamInfo<Situation> &situation) {
    return testing::PrintToString(situation.param);
};

void bring_about(const Situation &situation) {
    msg_set_width_limit(0);
    if (situation.mode != 0) {
        zel_enable_malloc_debug(situation.mode);
    }
    if (situation.wrote) {
        msg_print("before");
    }
}

std::string written_before(const Situation &situation) {
    return situation.wrote ? "before\n" : "";
}

// Every malloc and every realloc fails.
struct NothingLeft {
    Interposed<void *(size_t)> first{hook::malloc, fail_always(hook::malloc, ENOMEM, nullptr)};
    Interposed<void *(void *, size_t)> later{hook::realloc, fail_always(hook::realloc, ENOMEM, nullptr)};
};

class NoMemoryLeft : public testing::TestWithParam<Situation> {};

} // namespace

TEST_P(NoMemoryLeft, TheReportSaysWhoAskedForWhatAndHowMuch) {
    const Outcome outcome = run_messages([] {
        bring_about(GetParam());
        const NothingLeft nothing_left;
        zel_malloc(16, "F", "p");
    });
    EXPECT_EQ(outcome.err, "Error: F (via zel_malloc): Not enough memory to allocate 16 bytes for p.\n");
    EXPECT_EQ(outcome.out, written_before(GetParam()));
    EXPECT_EQ(outcome.status, 1);
}

TEST_P(NoMemoryLeft, AStrayPointerIsReported) {
    const Outcome outcome = run_messages([] {
        bring_about(GetParam());
        const NothingLeft nothing_left;
        zel_free(reinterpret_cast<void *>(12));
    });
    EXPECT_EQ(outcome.err.substr(0, 51), "Error: zel_free was passed an invalid pointer: 0x00");
    EXPECT_EQ(outcome.out, written_before(GetParam()));
    EXPECT_EQ(outcome.status, 1);
}

INSTANTIATE_TEST_SUITE_P(, NoMemoryLeft, kSituations, kSituationName);

TEST(NoMemoryLeftDebugHeap, ADoubleReleaseIsReported) {
    const Outcome outcome = run_messages([] {
        msg_set_width_limit(0);
        zel_enable_malloc_debug(ZEL_MALLOC_VERIFY_HEAP);
        void *pointer = zel_malloc(16, "F", "p");
        const NothingLeft nothing_left;
        const Interposed keeping(hook::free, [](void *) {});
        zel_free(pointer);
        zel_free(pointer);
    });
    EXPECT_NE(outcome.err.find("was referenced after it was free'd."), std::string::npos) << outcome.err;
    EXPECT_EQ(outcome.status, 1);
}

TEST(NoMemoryLeftDebugHeap, ACorruptedHeapIsReportedWithItsFinding) {
    const Outcome outcome = run_messages([] {
        msg_set_width_limit(0);
        zel_enable_malloc_debug(ZEL_MALLOC_VERIFY_HEAP);
        static_cast<char *>(zel_malloc(16, "F", "p"))[16] = 1;
        const NothingLeft nothing_left;
        zel_malloc(16, "G", "q");
    });
    EXPECT_NE(outcome.err.find("referenced data that was corrupted at the end."), std::string::npos) << outcome.err;
    EXPECT_NE(outcome.err.find("\nError: zel_malloc: The heap was corrupted. (Currently inside of G, allocating "
                               "storage for q)\n"),
              std::string::npos)
        << outcome.err;
    EXPECT_EQ(outcome.status, 1);
}

TEST(NoMemoryLeftDebugHeap, TheReportOfTheHeapMayBeTheFirstMessage) {
    const Outcome outcome = run_messages([] {
        msg_set_width_limit(0);
        zel_enable_malloc_debug(ZEL_MALLOC_CHECK_PTR);
        zel_malloc(16, "F", "p");
        const NothingLeft nothing_left;
        zel_malloc_debug_report(1);
        zel_malloc_describe_ptr(nullptr);
    });
    EXPECT_NE(outcome.out.find(" zel_malloc           F                    p\n"
                               "zel_malloc_debug_report: 16 bytes allocated, 1 pointers\nThe pointer 0x00"),
              std::string::npos)
        << outcome.out;
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
}

TEST(NoMemoryLeftDebugHeap, APointerMayBeDescribedInTheFirstMessage) {
    const Outcome outcome = run_messages([] {
        zel_enable_malloc_debug(ZEL_MALLOC_CHECK_PTR);
        const NothingLeft nothing_left;
        zel_malloc_describe_ptr(reinterpret_cast<void *>(12));
    });
    EXPECT_EQ(outcome.out.substr(0, 16), "The pointer 0x00");
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
}

TEST(NoMemoryLeftDebugHeap, TheNoteOfAReleaseMayBeTheFirstMessage) {
    const Outcome outcome = run_messages([] {
        msg_set_width_limit(0);
        zel_enable_malloc_debug(ZEL_MALLOC_CHECK_PTR);
        zel_malloc_set_free_report_threshold(16);
        void *pointer = zel_malloc(16, "F", "p");
        const NothingLeft nothing_left;
        zel_free(pointer);
    });
    EXPECT_EQ(outcome.err.substr(0, 42), "Warning: (zel_free): Freeing a pointer (0x");
    EXPECT_EQ(outcome.status, 0);
}

TEST(NoMemoryLeftDebugHeap, AQuestionToAHeapThatIsOffIsAWarning) {
    struct Question {
        const char *name;
        void (*ask)();
    };
    for (const Question &question : {Question{"zel_malloc_debug_report", [] { zel_malloc_debug_report(0); }},
                                     Question{"zel_malloc_describe_ptr", [] { zel_malloc_describe_ptr(nullptr); }},
                                     Question{"zel_malloc_mem_used", [] { zel_malloc_mem_used(); }}}) {
        const Outcome outcome = run_messages([&question] {
            msg_set_width_limit(0);
            const NothingLeft nothing_left;
            question.ask();
        });
        EXPECT_EQ(outcome.err, std::string("Warning: ") + question.name +
                                   " should only be called when the malloc debug mode is enabled.\n");
        EXPECT_EQ(outcome.status, 0);
    }
}

TEST(NoMemoryLeftDebugHeap, ASwitchThatIsRefusedIsReported) {
    const auto error = [](void (*refused)()) {
        return run_messages([refused] {
                   msg_set_width_limit(0);
                   const NothingLeft nothing_left;
                   refused();
               })
            .err;
    };
    EXPECT_EQ(error([] { zel_enable_malloc_debug(3); }),
              "Error: zel_enable_malloc_debug: Bad mode.  Should be either ZEL_MALLOC_CHECK_PTR or "
              "ZEL_MALLOC_VERIFY_HEAP.\n");
    EXPECT_EQ(error([] {
                  zel_enable_malloc_debug(ZEL_MALLOC_CHECK_PTR);
                  zel_enable_malloc_debug(0);
              }),
              "Error: zel_enable_malloc_debug: Once enabled, malloc debugging cannot be disabled.\n");
    EXPECT_EQ(error([] {
                  zel_malloc_if_room(1);
                  zel_enable_malloc_debug(ZEL_MALLOC_CHECK_PTR);
              }),
              "Error: zel_enable_malloc_debug cannot be called once one of the Zel MALLOC library allocation "
              "functions have been called.\n");
}

TEST(NoMemoryLeftInAMessage, TheReportOfARequestOfAStreamIsWritten) {
    const Outcome outcome = run_messages([] {
        on_first_piece(MSG_INFO, [] {
            const NothingLeft nothing_left;
            zel_malloc(16, "F", "p");
        });
        msg_print("text");
    });
    EXPECT_EQ(outcome.err, "Error: F (via zel_malloc): Not enough memory to allocate 16 bytes for p.\n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(NoMemoryLeftInAMessage, AnErrorAfterTheNoteOfAReleaseIsWritten) {
    const Outcome outcome = run_messages([] {
        msg_set_width_limit(0);
        zel_enable_malloc_debug(ZEL_MALLOC_CHECK_PTR);
        zel_malloc_set_free_report_threshold(16);
        static int32_t *pointer;
        pointer = static_cast<int32_t *>(zel_malloc(16, "F", "p"));
        on_first_piece(MSG_WARNING, [] { pointer[-2] = 5000; }); // the index in its header
        on_first_piece(MSG_INFO, [] {
            const NothingLeft nothing_left;
            zel_free(pointer);
        });
        msg_print("text");
    });
    EXPECT_EQ(outcome.err, "Error: Zel MALLOC library internal error: free_debug_info index out of range (index = "
                           "5000, limit = 1024).\n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(NoMemoryLeftInAMessage, AReportInAReportIsReplacedByTheFixedText) {
    const Outcome outcome = run_messages([] {
        msg_set_width_limit(0);
        on_first_piece(MSG_ERROR, [] { zel_malloc(32, "G", "q"); });
        on_first_piece(MSG_INFO, [] {
            static const NothingLeft nothing_left;
            zel_malloc(16, "F", "p");
        });
        msg_print("text");
    });
    EXPECT_EQ(outcome.err, "A message could not be formatted and is lost.\n");
    EXPECT_EQ(outcome.status, 1);
}

// ---- The failure handler, and messages after a report --------------------------------------------------------------

namespace {

void *write_failure(unsigned long size, const char *text) {
    msg_warn("%lu: %s", size, text);
    return nullptr;
}

} // namespace

TEST(NoMemoryLeftHandler, TheFirstMessageOfAHandlerIsWritten) {
    const Outcome outcome = run_messages([] {
        zel_malloc_set_failure_handler(write_failure);
        const NothingLeft nothing_left;
        zel_malloc(16, "F", "p");
        msg_print("on");
    });
    EXPECT_EQ(outcome.err, "Warning: 16: F (via zel_malloc): Not enough memory to allocate 16 bytes for p.\n");
    EXPECT_EQ(outcome.out, "on\n");
    EXPECT_EQ(outcome.status, 0);
}

TEST(NoMemoryLeftHandler, AHandlerWritesAfterACallThatMightHaveReported) {
    const Outcome outcome = run_messages([] {
        zel_malloc_set_failure_handler([](unsigned long /*size*/, const char * /*text*/) -> void * {
            zel_enable_malloc_debug(0); // does nothing
            msg_warn("no memory");
            return nullptr;
        });
        const NothingLeft nothing_left;
        zel_malloc(16, "F", "p");
    });
    EXPECT_EQ(outcome.err, "Warning: no memory\n");
    EXPECT_EQ(outcome.status, 0);
}

TEST(NoMemoryLeftHandler, AListOfSpareSlotsGrowsWhenMemoryIsThereAgain) {
    FILE *scratch = open_scratch_stream();
    const Outcome outcome = run_messages([scratch] {
        zel_malloc_set_failure_handler(write_failure);
        {
            const NothingLeft nothing_left;
            zel_malloc(16, "F", "p");
        }
        for (int added = 0; added < 20; ++added) {
            msg_add_stream(MSG_WARNING, scratch);
        }
        msg_clear_streams(MSG_ERROR);
        msg_warn("w");
        // The spare slots of the other types stay unused.
        msg_print("out");
    });
    EXPECT_EQ(outcome.err.substr(outcome.err.size() - 14), "p.\nWarning: w\n");
    EXPECT_EQ(outcome.out, "out\n");
    std::string whole;
    for (const char *piece : {"Warning: ", "w", "\n"}) {
        for (int stream = 0; stream < 20; ++stream) {
            whole += piece;
        }
    }
    EXPECT_EQ(contents(scratch), whole);
    fclose(scratch);
}

TEST(NoMemoryLeftHandler, AListOfSpareSlotsThatCannotGrowKeepsItsStreams) {
    const Outcome outcome = run_messages([] {
        zel_malloc_set_failure_handler(write_failure);
        const NothingLeft nothing_left;
        zel_malloc(16, "F", "p");
        const MsgStreamDesc *desc = _msg_get_stream_desc(MSG_INFO);
        for (int32_t slots = desc->capacity; slots > 0; --slots) {
            msg_add_stream(MSG_INFO, stderr);
        }
        msg_remove_stream(MSG_INFO, stderr);
        printf("%d%d ", desc->count == desc->capacity - 1, desc->streams[0] == stdout);
    });
    EXPECT_EQ(outcome.out, "11 ");
    const std::string refused = "Warning: Couldn't allocate more storage for stream array.  Not adding stream.\n";
    EXPECT_EQ(outcome.err.substr(outcome.err.size() - refused.size()), refused);
}

TEST(NoMemoryLeftHandler, AfterAReportAListWithoutMemoryEndsTheProcess) {
    const Outcome outcome = run_messages([] {
        zel_malloc_set_failure_handler(write_failure);
        const NothingLeft nothing_left;
        zel_malloc(16, "F", "p");
        msg_add_stream(MSG_DIAG, stdout);
        printf("on");
    });
    EXPECT_EQ(outcome.out, "");
    const std::string ended = "Couldn't allocate initial storage space for stream output array.";
    EXPECT_EQ(outcome.err.substr(outcome.err.size() - ended.size()), ended);
    EXPECT_EQ(outcome.status, 1);
}

// ---- Real exhaustion: the address space is limited -----------------------------------------------------------------

// The memory of a sanitizer does not fit into the limit.
#ifndef __SANITIZE_ADDRESS__

namespace {

constexpr rlim_t kAddressSpace = rlim_t{120} << 20;

void limit_address_space() {
    const rlimit limit = {.rlim_cur = kAddressSpace, .rlim_max = kAddressSpace};
    if (setrlimit(RLIMIT_AS, &limit) != 0) {
        abort();
    }
}

// Takes all memory, but for remains that are too small to use.
void take_all_memory() {
    for (size_t size = kAddressSpace; size >= 8; size /= 2) {
        while (malloc(size) != nullptr) {
        }
    }
}

// Memory ends while the program allocates, for a block or for the table of records. A
// request that verifies the heap walks all blocks, so most memory is taken beforehand.
void exhaust(const Situation &situation) {
    limit_address_space();
    bring_about(situation);
    if (situation.mode == ZEL_MALLOC_VERIFY_HEAP) {
        zel_malloc(16, "first", "f");
        take_all_memory();
    }
}

class ExhaustedMemory : public testing::TestWithParam<Situation> {};

} // namespace

TEST_P(ExhaustedMemory, TheReportSaysWhoAskedForWhatAndHowMuch) {
    for (const size_t size : {16U, 100U, 4000U}) {
        const Outcome outcome = run_messages([size] {
            exhaust(GetParam());
            for (;;) {
                zel_malloc(size, "F", "p");
            }
        });
        EXPECT_EQ(outcome.err, "Error: F (via zel_malloc): Not enough memory to allocate " + std::to_string(size) +
                                   " bytes for p.\n");
        EXPECT_EQ(outcome.out, written_before(GetParam()));
        EXPECT_EQ(outcome.status, 1);
    }
}

TEST_P(ExhaustedMemory, AFormattedTextIsReportedAsWell) {
    const Outcome outcome = run_messages([] {
        exhaust(GetParam());
        for (;;) {
            zel_printf_strdup("%s", "short text");
        }
    });
    EXPECT_EQ(outcome.err, "Error: zel_vprintf_strdup (via zel_malloc): Not enough memory to allocate 16 bytes for "
                           "buffer allocation.\n");
    EXPECT_EQ(outcome.out, written_before(GetParam()));
    EXPECT_EQ(outcome.status, 1);
}

INSTANTIATE_TEST_SUITE_P(, ExhaustedMemory, kSituations, kSituationName);

#endif
#endif
