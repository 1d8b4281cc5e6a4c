// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Requests that fail: the text of the report, the failure handler, the entry's result.
#include "malloc_support.h"

#include <malloc/heap_report.h>
#include <msg/msg.h>

#include <cstring>

using namespace zel::test;

namespace {

// A call of an entry whose first request fails, and its report.
struct FailingCall {
    const char *entry;
    std::function<void *()> call;
    Failure failure;
};

char text_a[] = "abc";
char text_b[] = "defgh";

const std::vector<FailingCall> kFullForms = {
    {"zel_malloc",
     [] { return zel_malloc(100, "read", "a page"); },
     {100, "read (via zel_malloc): Not enough memory to allocate 100 bytes for a page."}},
    {"zel_calloc",
     [] { return zel_calloc(3, 7, "read", "a page"); },
     {21, "read (via zel_calloc): Not enough memory to allocate 21 bytes for a page."}},
    {"zel_realloc of null",
     [] { return zel_realloc(nullptr, 9, "read", "a page"); },
     {9, "read (via zel_realloc): Not enough memory to allocate 9 bytes for a page."}},
    {"zel_strdup",
     [] { return zel_strdup(text_b, "read", "a page"); },
     {6, "read (via zel_strdup): Not enough memory to allocate 6 bytes for a page."}},
    {"zel_strdup2",
     [] { return zel_strdup2(text_a, text_b, "read", "a page"); },
     {4, "read (via zel_strdup2): Not enough memory to allocate 4 bytes for a page."}},
};

const std::vector<FailingCall> kShortForms = {
    {"zel_malloc without a function",
     [] { return zel_malloc(100, nullptr, "a page"); },
     {100, "zel_malloc: Not enough memory to allocate 100 bytes."}},
    {"zel_malloc without a purpose",
     [] { return zel_malloc(100, "read", nullptr); },
     {100, "zel_malloc: Not enough memory to allocate 100 bytes."}},
    {"zel_calloc",
     [] { return zel_calloc(3, 7, nullptr, nullptr); },
     {21, "zel_calloc: Not enough memory to allocate 21 bytes."}},
    {"zel_realloc of null",
     [] { return zel_realloc(nullptr, 9, nullptr, "a page"); },
     {9, "zel_realloc: Not enough memory to allocate 9 bytes."}},
    {"zel_strdup",
     [] { return zel_strdup(text_b, "read", nullptr); },
     {6, "zel_strdup: Not enough memory to allocate 6 bytes."}},
    {"zel_strdup2",
     [] { return zel_strdup2(text_a, text_b, nullptr, nullptr); },
     {4, "zel_strdup2: Not enough memory to allocate 4 bytes."}},
};

const std::vector<FailingCall> kLineForms = {
    {"zel_malloc_fl",
     [] { return zel_malloc_fl(100, "ZEL_MALLOC_ARRAY", 42, "src/read.c"); },
     {100, "ZEL_MALLOC_ARRAY in src/read.c, line 42: Not enough memory to allocate 100 bytes."}},
    {"zel_calloc_fl",
     [] { return zel_calloc_fl(3, 7, "NAME", 1, "src/read.c"); },
     {21, "NAME in src/read.c, line 1: Not enough memory to allocate 21 bytes."}},
    {"zel_realloc_fl of null",
     [] { return zel_realloc_fl(nullptr, 9, "NAME", 2, "src/read.c"); },
     {9, "NAME in src/read.c, line 2: Not enough memory to allocate 9 bytes."}},
    {"zel_strdup_fl",
     [] { return zel_strdup_fl(text_b, "ZEL_STRDUP", 3, "src/read.c"); },
     {6, "ZEL_STRDUP in src/read.c, line 3: Not enough memory to allocate 6 bytes."}},
    {"zel_strdup2_fl",
     [] { return zel_strdup2_fl(text_a, text_b, "ZEL_STRDUP", 4, "src/read.c"); },
     {4, "ZEL_STRDUP in src/read.c, line 4: Not enough memory to allocate 4 bytes."}},
};

const std::vector<FailingCall> kIfRoomForms = {
    {"zel_malloc_if_room",
     [] { return zel_malloc_if_room(100); },
     {100, "zel_malloc_if_room: Not enough memory to allocate 100 bytes."}},
    {"zel_calloc_if_room",
     [] { return zel_calloc_if_room(3, 7); },
     {21, "zel_calloc_if_room: Not enough memory to allocate 21 bytes."}},
    {"zel_realloc_if_room of null",
     [] { return zel_realloc_if_room(nullptr, 9); },
     {9, "zel_realloc_if_room: Not enough memory to allocate 9 bytes."}},
};

// The report of the same request when the system gave another error than ENOMEM.
Failure with_error(const Failure &failure, int error) {
    const std::string out_of_memory = "Not enough memory to";
    Failure other = failure;
    other.text.replace(other.text.find(out_of_memory), out_of_memory.size(),
                       std::string(strerror(error)) + " while trying to");
    return other;
}

void expect_failure(const FailingCall &failing, int error, const Failure &expected) {
    SCOPED_TRACE(failing.entry);
    const CaughtFailures caught;
    const FailingRequest no_memory(0, error);
    EXPECT_EQ(failing.call(), nullptr);
    EXPECT_EQ(CaughtFailures::list, std::vector<Failure>{expected});
}

std::vector<FailingCall> all_calls() {
    std::vector<FailingCall> calls = kFullForms;
    calls.insert(calls.end(), kShortForms.begin(), kShortForms.end());
    calls.insert(calls.end(), kLineForms.begin(), kLineForms.end());
    return calls;
}

} // namespace

TEST(MallocFailure, FunctionAndPurposeAreNamedWhenMemoryHasRunOut) {
    for (const FailingCall &failing : kFullForms) {
        expect_failure(failing, ENOMEM, failing.failure);
    }
}

TEST(MallocFailure, FunctionAndPurposeAreNamedWithAnyOtherError) {
    for (const FailingCall &failing : kFullForms) {
        expect_failure(failing, EAGAIN, with_error(failing.failure, EAGAIN));
    }
}

TEST(MallocFailure, WithoutFunctionOrPurposeTheReportIsShort) {
    for (const FailingCall &failing : kShortForms) {
        expect_failure(failing, ENOMEM, failing.failure);
    }
}

TEST(MallocFailure, WithoutFunctionOrPurposeAnyOtherErrorIsNamed) {
    for (const FailingCall &failing : kShortForms) {
        expect_failure(failing, EPERM, with_error(failing.failure, EPERM));
    }
}

TEST(MallocFailure, NameFileAndLineAreNamedWhateverTheError) {
    for (const FailingCall &failing : kLineForms) {
        expect_failure(failing, ENOMEM, failing.failure);
        expect_failure(failing, EAGAIN, failing.failure);
    }
}

TEST(MallocFailure, AnotherErrorIsWrittenOutWhole) {
    const CaughtFailures caught;
    const FailingRequest no_memory(0, EAGAIN);
    zel_malloc(5, "read", "a page");
    ASSERT_EQ(CaughtFailures::list.size(), 1U);
    EXPECT_EQ(CaughtFailures::list[0].text,
              "read (via zel_malloc): Resource temporarily unavailable while trying to allocate 5 bytes for a page.");
}

TEST(MallocFailure, ABlockThatCannotBeResizedIsReportedAndStaysAsItWas) {
    char *block = ZEL_STRDUP("kept");
    {
        const CaughtFailures caught;
        const Interposed no_memory(hook::realloc, fail_always(hook::realloc, ENOMEM, nullptr));
        EXPECT_EQ(zel_realloc(block, 90, "read", "a page"), nullptr);
        EXPECT_EQ(zel_realloc_fl(block, 91, "NAME", 7, "f.c"), nullptr);
        EXPECT_EQ(zel_realloc_if_room(block, 92), nullptr);
        EXPECT_EQ(
            CaughtFailures::list,
            (std::vector<Failure>{{90, "read (via zel_realloc): Not enough memory to allocate 90 bytes for a page."},
                                  {91, "NAME in f.c, line 7: Not enough memory to allocate 91 bytes."}}));
    }
    EXPECT_STREQ(block, "kept");
    zel_free(block);
}

TEST(MallocFailure, TheMacrosReportWhereTheyStand) {
    const CaughtFailures caught;
    const Interposed no_memory(hook::malloc, fail_always(hook::malloc, ENOMEM, nullptr));
    const int line = __LINE__ + 1;
    EXPECT_EQ(ZEL_MALLOC_ARRAY(int32_t, 10), nullptr);
    EXPECT_EQ(ZEL_STRDUP("abc"), nullptr);
    const auto at = [](const char *name, int where) {
        return std::string(name) + " in " + __FILE__ + ", line " + std::to_string(where);
    };
    EXPECT_EQ(CaughtFailures::list,
              (std::vector<Failure>{{40, at("ZEL_MALLOC_ARRAY", line) + ": Not enough memory to allocate 40 bytes."},
                                    {4, at("ZEL_STRDUP", line + 1) + ": Not enough memory to allocate 4 bytes."}}));
}

TEST(MallocFailure, EachPieceOfAJoinedTextIsReportedWithItsOwnSize) {
    const std::vector<unsigned long> sizes = {4, 6, 9};
    for (int nth = 0; nth < 3; ++nth) {
        const CaughtFailures caught;
        zel_malloc_fail_after(nth);
        const unsigned long size = sizes[static_cast<size_t>(nth)];
        EXPECT_EQ(zel_strdup2(text_a, text_b, "read", "a page"), nullptr);
        EXPECT_EQ(CaughtFailures::list,
                  (std::vector<Failure>{{size, "read (via zel_strdup2): Not enough memory to allocate " +
                                                   std::to_string(size) + " bytes for a page."}}));
    }
}

// This test holds the size of a report: 10000 characters with its NUL.
TEST(MallocFailure, ALongReportIsCut) {
    const CaughtFailures caught;
    const FailingRequest no_memory(0);
    const std::string purpose(12000, 'x');
    zel_malloc(1, "read", purpose.c_str());
    const std::string whole = "read (via zel_malloc): Not enough memory to allocate 1 bytes for " + purpose + ".";
    ASSERT_EQ(CaughtFailures::list.size(), 1U);
    EXPECT_EQ(CaughtFailures::list[0].text, whole.substr(0, 9999));
}

TEST(MallocFailure, WithoutAHandlerEveryEntryEndsTheProcessWithItsReport) {
    for (const FailingCall &failing : all_calls()) {
        const Outcome outcome = run_unwrapped([&failing] {
            const FailingRequest no_memory(0);
            failing.call();
            printf("returned");
        });
        EXPECT_TRUE(ended_with_error(outcome, failing.failure.text)) << failing.entry;
    }
}

TEST(MallocFailure, TheReportIsAnErrorMessageLikeAnyOther) {
    const Outcome outcome = run_in_child([] {
        msg_set_width_limit(40);
        const FailingRequest no_memory(0);
        zel_malloc(7, "100%s", nullptr);
    });
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "Error: zel_malloc: Not enough memory to\n       allocate 7 bytes.\n");
}

TEST(MallocFailure, PercentSignsInADescriptionStandAsTheyAre) {
    const Outcome outcome = run_unwrapped([] {
        const FailingRequest no_memory(0);
        zel_malloc(7, "%s%n", "100%d");
    });
    EXPECT_TRUE(ended_with_error(outcome, "%s%n (via zel_malloc): Not enough memory to allocate 7 bytes for 100%d."));
}

TEST(MallocFailure, ASizeThatNoSystemProvidesEndsTheProcess) {
    const Outcome outcome = run_unwrapped([] {
        deny_huge();
        zel_malloc(kHuge, "read", "a page");
    });
    EXPECT_TRUE(ended_with_error(outcome, "read (via zel_malloc): Not enough memory to allocate " +
                                              std::to_string(kHuge) + " bytes for a page."));
}

TEST(MallocFailure, EveryEntryReportsASizeThatNoSystemProvides) {
    void *block = zel_malloc(8, "f", "p");
    const std::string tail = ": Not enough memory to allocate " + std::to_string(kHuge) + " bytes.";
    const std::vector<FailingCall> calls = {
        {"", [] { return zel_calloc(kHuge / 16, 16, nullptr, nullptr); }, {kHuge, "zel_calloc" + tail}},
        {"", [block] { return zel_realloc(block, kHuge, nullptr, nullptr); }, {kHuge, "zel_realloc" + tail}},
        {"", [] { return zel_malloc_fl(kHuge, "N", 1, "f.c"); }, {kHuge, "N in f.c, line 1" + tail}},
        {"", [] { return zel_calloc_fl(kHuge, 1, "N", 1, "f.c"); }, {kHuge, "N in f.c, line 1" + tail}},
        {"", [block] { return zel_realloc_fl(block, kHuge, "N", 1, "f.c"); }, {kHuge, "N in f.c, line 1" + tail}},
    };
    for (const FailingCall &failing : calls) {
        const Outcome outcome = run_unwrapped([&failing] {
            deny_huge();
            failing.call();
        });
        EXPECT_TRUE(ended_with_error(outcome, failing.failure.text));
    }
    zel_free(block);
}

TEST(MallocIfRoom, ASizeThatNoSystemProvidesIsNullWithoutAWord) {
    const Outcome outcome = run_unwrapped([] {
        deny_huge();
        void *block = zel_malloc_if_room(8);
        printf("%d", zel_malloc_if_room(kHuge) == nullptr);
        printf("%d", zel_calloc_if_room(kHuge / 16, 16) == nullptr);
        printf("%d", zel_realloc_if_room(nullptr, kHuge) == nullptr);
        printf("%d", zel_realloc_if_room(block, kHuge) == nullptr);
        zel_free(block);
    });
    EXPECT_EQ(outcome.out, "1111");
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
}

TEST(MallocIfRoom, WhenMemoryHasRunOutTheHandlerIsNotCalledAndErrnoSaysSo) {
    for (const FailingCall &failing : kIfRoomForms) {
        const CaughtFailures caught;
        const FailingRequest no_memory(0);
        errno = 0;
        EXPECT_EQ(failing.call(), nullptr) << failing.entry;
        EXPECT_EQ(errno, ENOMEM) << failing.entry;
        EXPECT_EQ(CaughtFailures::list, std::vector<Failure>{}) << failing.entry;
    }
}

TEST(MallocIfRoom, AnyOtherErrorIsReportedToTheHandler) {
    for (const FailingCall &failing : kIfRoomForms) {
        expect_failure(failing, EAGAIN, with_error(failing.failure, EAGAIN));
    }
}

TEST(MallocIfRoom, AnyOtherErrorIsReportedToTheHandlerForABlockToo) {
    void *block = zel_malloc(8, "f", "p");
    expect_failure({"zel_realloc_if_room", [block] { return zel_realloc_if_room(block, 20); }, {}}, EAGAIN,
                   with_error({20, "zel_realloc_if_room: Not enough memory to allocate 20 bytes."}, EAGAIN));
    zel_free(block);
}

TEST(MallocIfRoom, WithoutAHandlerAnyOtherErrorEndsTheProcess) {
    for (const FailingCall &failing : kIfRoomForms) {
        const Outcome outcome = run_unwrapped([&failing] {
            const FailingRequest no_memory(0, EAGAIN);
            failing.call();
        });
        EXPECT_TRUE(ended_with_error(outcome, with_error(failing.failure, EAGAIN).text)) << failing.entry;
    }
}

TEST(MallocHandler, TheHandlersResultIsThatOfEveryEntryAsItStands) {
    std::vector<FailingCall> calls = all_calls();
    for (const FailingCall &failing : calls) {
        SCOPED_TRACE(failing.entry);
        char storage[128] = "untouched";
        const CaughtFailures caught(storage);
        const FailingRequest no_memory(0);
        EXPECT_EQ(failing.call(), storage);
        EXPECT_STREQ(storage, "untouched");
        EXPECT_EQ(CaughtFailures::list.size(), 1U);
    }
}

TEST(MallocHandler, OfTheIfRoomEntriesTheHandlerSeesOtherErrorsOnly) {
    for (const FailingCall &failing : kIfRoomForms) {
        char storage[128] = "untouched";
        const CaughtFailures caught(storage);
        {
            const FailingRequest no_memory(0, ENOMEM);
            EXPECT_EQ(failing.call(), nullptr) << failing.entry;
        }
        const FailingRequest refused(0, EAGAIN);
        EXPECT_EQ(failing.call(), storage) << failing.entry;
        EXPECT_STREQ(storage, "untouched") << failing.entry;
    }
}

TEST(MallocHandler, OfAJoinedTextTheFirstPieceThatFailsDecides) {
    for (int nth = 0; nth < 3; ++nth) {
        char storage[] = "untouched";
        const CaughtFailures caught(storage);
        const AllocatorLog log;
        const Interposed failing(hook::malloc, fail_nth(hook::malloc, nth, ENOMEM, nullptr));
        EXPECT_EQ(zel_strdup2_fl(text_a, text_b, "ZEL_STRDUP", 1, "f.c"), storage);
        EXPECT_STREQ(storage, "untouched");
        EXPECT_EQ(CaughtFailures::list.size(), 1U);
    }
}

TEST(MallocHandler, WithAHandlerNothingIsPrinted) {
    const Outcome outcome = run_unwrapped([] {
        const CaughtFailures caught;
        for (const FailingCall &failing : all_calls()) {
            const FailingRequest no_memory(0);
            failing.call();
        }
    });
    EXPECT_EQ(outcome.out + outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
}

TEST(MallocHandler, SettingAHandlerReturnsTheOneBefore) {
    const ZelMallocFailureHandler first = [](unsigned long, const char *) -> void * { return nullptr; };
    const ZelMallocFailureHandler second = [](unsigned long, const char *) -> void * { return &text_a; };
    EXPECT_EQ(zel_malloc_set_failure_handler(first), nullptr);
    EXPECT_EQ(zel_malloc_set_failure_handler(second), first);
    EXPECT_EQ(zel_malloc_set_failure_handler(nullptr), second);
    EXPECT_EQ(zel_malloc_set_failure_handler(nullptr), nullptr);
}

TEST(MallocHandler, WithoutTheHandlerThatWasTakenAwayFailuresAreFatalAgain) {
    const Outcome outcome = run_unwrapped([] {
        const FailingRequest no_memory(1);
        {
            const CaughtFailures caught;
            zel_free(zel_malloc(1, "read", "a page"));
        }
        zel_malloc(5, "read", "a page");
    });
    EXPECT_TRUE(ended_with_error(outcome, "read (via zel_malloc): Not enough memory to allocate 5 bytes for a page."));
}
