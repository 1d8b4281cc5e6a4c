// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The message library when memory runs out.
#include "msg_support.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <support/interpose.h>

using namespace zel::test;

namespace {

const std::string kLost = "A message could not be formatted and is lost.\n";
const std::string kNoFirstSlots = "Couldn't allocate initial storage space for stream output array.";
const std::string kNoMoreSlots = "Warning: Couldn't allocate more storage for stream array.  Not adding stream.\n";

// A text that the fixed area does not hold.
const std::string kLongText(30000, 'x');

// Text buffers that could not grow are left allocated. They are kept here, so that a
// sanitizer does not report them.
std::array<void *, 64> kept;

// A malloc whose n-th call fails. The results of the other calls are kept.
std::function<void *(size_t)> malloc_failing_at(int nth) {
    return [nth, calls = 0](size_t size) mutable -> void * {
        if (calls == nth) {
            ++calls;
            errno = ENOMEM;
            return nullptr;
        }
        void *pointer = hook::malloc.real(size);
        kept.at(static_cast<size_t>(calls++)) = pointer;
        return pointer;
    };
}

// A realloc whose n-th call fails. A kept block that it moves stays kept.
std::function<void *(void *, size_t)> realloc_failing_at(int nth) {
    return [nth, calls = 0](void *pointer, size_t size) mutable -> void * {
        if (calls++ == nth) {
            errno = ENOMEM;
            return nullptr;
        }
        void **slot = std::find(kept.begin(), kept.end(), pointer);
        void *moved = hook::realloc.real(pointer, size);
        if (slot != kept.end()) {
            *slot = moved;
        }
        return moved;
    };
}

// A vsnprintf that gives no length for a text that does not fit: the buffer doubles until
// it has that size.
std::function<int(char *, size_t, const char *, va_list)> length_unknown_below(size_t enough) {
    return [enough](char *buffer, size_t size, const char *format, va_list args) {
        if (size < enough) {
            errno = ERANGE;
            return -1;
        }
        return hook::vsnprintf.real(buffer, size, format, args);
    };
}

// Puts the stream into each slot that the list of the type has.
const MsgStreamDesc *fill_list(int type, FILE *stream) {
    const MsgStreamDesc *desc = _msg_get_stream_desc(type);
    msg_clear_streams(type);
    msg_add_stream(type, stream);
    for (int32_t free_slots = desc->capacity - desc->count; free_slots > 0; --free_slots) {
        msg_add_stream(type, stream);
    }
    return desc;
}

} // namespace

TEST(MsgMemory, WithoutTheFirstSlotsOfAListTheProcessEnds) {
    EXPECT_EQ(kNoFirstSlots.size(), 64U);
    const Outcome outcome = run_messages([] {
        _msg_get_stream_desc(MSG_DIAG);
        const Interposed failing(hook::malloc, fail_always(hook::malloc, ENOMEM, nullptr));
        msg_add_stream(MSG_DIAG, stdout);
    });
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, kNoFirstSlots);
    EXPECT_EQ(outcome.status, 1);
}

TEST(MsgMemory, AListThatCannotGrowKeepsItsStreamsAndWarns) {
    const Outcome outcome = run_messages([] {
        const MsgStreamDesc *desc = fill_list(MSG_DIAG, stdout);
        const MsgStreamDesc before = *desc;
        {
            // Only the growth of the list fails. The warning finds memory.
            const Interposed failing(hook::realloc, fail_nth(hook::realloc, 0, ENOMEM, nullptr));
            msg_add_stream(MSG_DIAG, stderr);
        }
        const bool same = desc->count == before.count && desc->capacity == before.capacity;
        printf("%d%d ", same, desc->streams == before.streams);
        msg_add_stream(MSG_DIAG, stderr);
        printf("%d%d ", desc->count == before.count + 1, desc->capacity > before.capacity);
        printf("%d", desc->streams[before.count] == stderr);
    });
    EXPECT_EQ(outcome.out, "11 11 1");
    EXPECT_EQ(outcome.err, kNoMoreSlots);
    EXPECT_EQ(outcome.status, 0);
}

TEST(MsgMemory, TheListOfTheWarningsItselfSurvivesNotGrowing) {
    const Outcome outcome = run_messages([] {
        fill_list(MSG_WARNING, stdout);
        msg_remove_stream(MSG_WARNING, stdout);
        msg_add_stream(MSG_WARNING, stderr);
        const Interposed failing(hook::realloc, fail_nth(hook::realloc, 0, ENOMEM, nullptr));
        msg_add_stream(MSG_WARNING, stdout);
    });
    EXPECT_EQ(outcome.err, kNoMoreSlots);
    EXPECT_EQ(outcome.status, 0);
}

TEST(MsgMemory, AMessageThatFindsNoMemoryIsReplacedByAFixedText) {
    const Outcome outcome = run_messages([] {
        _msg_get_stream_desc(MSG_INFO);
        int calls = 0;
        {
            const Interposed failing(hook::malloc, [&calls](size_t) -> void * { return ++calls, nullptr; });
            msg_print("%s", kLongText.c_str());
        }
        printf("%d ", calls);
        msg_print("more");
    });
    // The text was the only request for memory.
    EXPECT_EQ(outcome.out, "1 more\n");
    EXPECT_EQ(outcome.err, kLost);
    EXPECT_EQ(outcome.status, 0);
}

TEST(MsgMemory, ALostMessageIsTheOneThatIsContinued) {
    const Outcome outcome = run_messages([] {
        msg_print("before");
        errno = ENOENT;
        const Interposed failing(hook::malloc, fail_nth(hook::malloc, 0, ENOMEM, nullptr));
        msg_fatal_syserr("%s", kLongText.c_str());
    });
    EXPECT_EQ(outcome.out, "before\n");
    EXPECT_EQ(outcome.err, kLost + "Error: System error message: No such file or directory\n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(MsgMemory, ALostMessageIsRecordedWithTypeLayoutAndPrefix) {
    const Outcome outcome = run_messages([] {
        msg_print("before");
        {
            const Interposed failing(hook::malloc, fail_always(hook::malloc, ENOMEM, nullptr));
            output(MSG_WARNING, MSG_FMT_RAW, 1, 0, "P: ", "%s", kLongText.c_str());
        }
        msg_set_mp_prefix("[3] ");
        MSG_CONT("next");
    });
    EXPECT_EQ(outcome.out, "before\n");
    EXPECT_EQ(outcome.err, kLost + "P: next");
}

TEST(MsgMemory, AMessageThatCannotBeConvertedIsReplacedByAFixedText) {
    const Outcome outcome = run_messages([] {
        msg_print("a%ls", L"\u20ac");
        msg_print("more");
    });
    EXPECT_EQ(outcome.out, "more\n");
    EXPECT_EQ(outcome.err, kLost);
}

TEST(MsgMemory, WhicheverAllocationFailsTheProcessSaysSoOrGoesOn) {
    int nth = 0;
    for (std::string err = "?"; !err.empty(); ++nth) {
        ASSERT_LT(nth, 60);
        const Outcome outcome = run_messages([nth] {
            const Interposed failing(hook::malloc, malloc_failing_at(nth));
            msg_print_raw("%s", kLongText.c_str());
            msg_print_raw("%s", kLongText.c_str());
            msg_print("last");
        });
        err = outcome.err;
        // The four lists that are not empty at first come before any text.
        const bool lists = nth < 4;
        EXPECT_EQ(outcome.status, lists ? 1 : 0) << nth;
        EXPECT_TRUE(err.empty() || err == (lists ? kNoFirstSlots : kLost)) << nth << err;
        EXPECT_TRUE(!err.empty() || outcome.out == kLongText + "\n" + kLongText + "\nlast\n") << nth;
    }
    EXPECT_EQ(nth, 7); // Four lists, two texts, and the round in which nothing failed.
}

TEST(MsgMemory, WhicheverReallocationFailsTheMessageIsReplacedByAFixedText) {
    int nth = 0;
    for (std::string err = "?"; !err.empty(); ++nth) {
        ASSERT_LT(nth, 60);
        const Outcome outcome = run_messages([nth] {
            const Interposed keeping(hook::malloc, malloc_failing_at(-1));
            const Interposed failing(hook::realloc, realloc_failing_at(nth));
            const Interposed unknown(hook::vsnprintf, length_unknown_below(100000));
            msg_print("%s", kLongText.c_str());
        });
        err = outcome.err;
        EXPECT_EQ(err, outcome.out.empty() ? kLost : "") << nth;
        EXPECT_EQ(outcome.status, 0) << nth;
    }
    EXPECT_GT(nth, 1);
}

TEST(MsgMemory, ALongLeadTextThatFindsNoMemoryIsCutToFortyNineCharacters) {
    const Outcome outcome = run_messages([] {
        const std::string prefix(60, 'P');
        msg_set_width_limit(0);
        msg_print_wrap("open");
        {
            // The first allocation is the text's, the second that of the lead text.
            const Interposed failing(hook::malloc, fail_nth(hook::malloc, 1, ENOMEM, nullptr));
            output(MSG_INFO, MSG_FMT_LINE, 0, 1, prefix.c_str(), " on%s", kLongText.c_str());
        }
        MSG_CONT("next");
    });
    EXPECT_EQ(outcome.out, "open on" + kLongText + "\n" + std::string(49, 'P') + "next\n");
    EXPECT_EQ(outcome.err, "");
}
