// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Texts of the memory library: copied, joined, formatted.
#include "malloc_support.h"

#include <array>
#include <cstdarg>
#include <cwchar>
#include <msg/base/limits.h>

using namespace zel::test;

namespace {

using Calls = std::vector<std::string>;

// A vsnprintf whose n-th attempt (from 0) fails, with that error or with errno as it is.
class FailingFormat {
public:
    FailingFormat(int nth, std::optional<int> error) : left_(nth), error_(error) {}

private:
    int attempt(char *buffer, size_t size, const char *format, va_list args) {
        if (left_-- != 0) {
            return hook::vsnprintf.real(buffer, size, format, args);
        }
        errno = error_.value_or(errno);
        return -1;
    }

    int left_;
    std::optional<int> error_;
    Interposed<int(char *, size_t, const char *, va_list)> formatting_{
        hook::vsnprintf, [this](char *buffer, size_t size, const char *format, va_list args) {
            return attempt(buffer, size, format, args);
        }};
};

__attribute__((format(printf, 1, 2))) char *format_list(const char *format, ...) {
    va_list args;
    va_start(args, format);
    char *text = zel_vprintf_strdup(format, args);
    va_end(args);
    return text;
}

// In its scope a failure handler provides the storage from a reserve of its own.
struct Reserve {
    Reserve() : before(zel_malloc_set_failure_handler(provide)) { sizes.clear(); }
    ~Reserve() { zel_malloc_set_failure_handler(before); }
    Reserve(const Reserve &) = delete;
    Reserve &operator=(const Reserve &) = delete;

    static void *provide(unsigned long size, const char * /*text*/) {
        sizes.push_back(size);
        block = hook::malloc.real(size);
        return block;
    }

    inline static std::vector<unsigned long> sizes;
    inline static void *block;
    ZelMallocFailureHandler before;
};

void release_blocks(const AllocatorLog &log, void *except) {
    for (void *block : log.blocks) {
        if (block != except) {
            zel_free(block);
        }
    }
}

} // namespace

TEST(ZelStrdup, TheResultIsACopyOfTheText) {
    const std::string text = "a text";
    for (const bool by_line : {false, true}) {
        const AllocatorLog log;
        char *copy = by_line ? zel_strdup_fl(text.c_str(), "N", 1, "f.c") : zel_strdup(text.c_str(), "f", "p");
        EXPECT_NE(copy, text.c_str());
        EXPECT_EQ(copy, text);
        EXPECT_EQ(log.calls, Calls{"malloc 7"});
        zel_free(copy);
    }
}

TEST(ZelStrdup, AnEmptyTextIsCopiedToo) {
    const AllocatorLog log;
    char *copy = zel_strdup("", "f", "p");
    EXPECT_STREQ(copy, "");
    EXPECT_EQ(log.calls, Calls{"malloc 1"});
    zel_free(copy);
}

TEST(ZelStrdup, ANullTextIsNullAndNothingIsAllocated) {
    const AllocatorLog log;
    EXPECT_EQ(zel_strdup(nullptr, "f", "p"), nullptr);
    EXPECT_EQ(zel_strdup_fl(nullptr, "N", 1, "f.c"), nullptr);
    EXPECT_EQ(ZEL_STRDUP(nullptr), nullptr);
    EXPECT_EQ(log.calls, Calls{});
}

TEST(ZelStrdup2, TheResultIsBothTextsJoined) {
    const std::vector<std::array<const char *, 3>> cases = {
        {"/usr", "/bin", "/usr/bin"}, {"", "b", "b"}, {"a", "", "a"}, {"", "", ""}};
    for (const auto &[a, b, joined] : cases) {
        char *text = zel_strdup2(a, b, "f", "p");
        EXPECT_STREQ(text, joined);
        zel_free(text);
        text = zel_strdup2_fl(a, b, "ZEL_STRDUP", 1, "f.c");
        EXPECT_STREQ(text, joined);
        zel_free(text);
    }
}

TEST(ZelStrdup2, TheCopiesOfBothTextsStayAllocated) {
    for (const bool by_line : {false, true}) {
        const AllocatorLog log;
        char *text =
            by_line ? zel_strdup2_fl("/usr", "/bin1", "ZEL_STRDUP", 1, "f.c") : zel_strdup2("/usr", "/bin1", "f", "p");
        EXPECT_EQ(log.calls, (Calls{"malloc 5", "malloc 6", "malloc 10"}));
        ASSERT_EQ(log.blocks.size(), 3U);
        EXPECT_STREQ(static_cast<char *>(log.blocks[0]), "/usr");
        EXPECT_STREQ(static_cast<char *>(log.blocks[1]), "/bin1");
        EXPECT_EQ(log.blocks[2], text);
        release_blocks(log, nullptr);
    }
}

TEST(ZelPrintfStrdup, ATextIsFormattedAsByPrintf) {
    char *text = zel_printf_strdup("%s has %d of %05.1f%%", "the index", -12, 99.25);
    EXPECT_STREQ(text, "the index has -12 of 099.2%");
    zel_free(text);
}

TEST(ZelVprintfStrdup, AnArgumentListIsFormatted) {
    char *text = format_list("%d %s", 3, "files, more than fit into the first buffer");
    EXPECT_STREQ(text, "3 files, more than fit into the first buffer");
    zel_free(text);
}

TEST(ZelPrintfStrdup, EveryAttemptStartsAtTheFirstArgument) {
    const std::string first(50, 'a');
    char *text = zel_printf_strdup("%s %d %s", first.c_str(), 7, "end");
    EXPECT_EQ(text, first + " 7 end");
    zel_free(text);
}

TEST(ZelPrintfStrdup, AnEmptyTextIsAText) {
    char *text = zel_printf_strdup("%s", "");
    EXPECT_STREQ(text, "");
    zel_free(text);
}

TEST(ZelPrintfStrdup, AnyLengthIsWrittenWhole) {
    for (size_t length = 0; length < 100; ++length) {
        const std::string expected(length, 'x');
        char *text = zel_printf_strdup("%s", expected.c_str());
        EXPECT_EQ(text, expected);
        zel_free(text);
    }
}

TEST(ZelPrintfStrdup, ATextThatCannotBeFormattedIsNullAndItsBufferReleased) {
    const AllocatorLog log;
    EXPECT_EQ(zel_printf_strdup("%lc", static_cast<wint_t>(0x20AC)), nullptr);
    EXPECT_EQ(errno, EILSEQ);
    ASSERT_EQ(log.calls.size(), 2U);
    EXPECT_EQ(log.calls.back(), "free");
}

TEST(ZelPrintfStrdup, AResizeThatFailsIsReportedUnderTheNestedEntry) {
    const Outcome outcome = run_unwrapped([] {
        const Interposed no_memory(hook::realloc, fail_nth(hook::realloc, 0, ENOMEM, nullptr));
        zel_printf_strdup("%040d", 7);
    });
    EXPECT_TRUE(ended_with_error(outcome, "zel_vprintf_strdup (via zel_realloc): Not enough memory to allocate 42 "
                                          "bytes for buffer resize."));
}

TEST(ZelPrintfStrdup, WhenTheHandlerReturnsNullForAResizeTheBufferStays) {
    const CaughtFailures caught;
    const AllocatorLog log;
    const Interposed no_memory(hook::realloc, fail_always(hook::realloc, ENOMEM, nullptr));
    EXPECT_EQ(zel_printf_strdup("%040d", 7), nullptr);
    EXPECT_EQ(CaughtFailures::list.size(), 1U);
    EXPECT_EQ(log.calls.size(), 1U) << "the buffer is not released";
    release_blocks(log, nullptr);
}

TEST(ZelPrintfStrdup, WhenTheHandlerReturnsNullForTheBufferSoDoesTheEntry) {
    const CaughtFailures caught;
    const FailingRequest no_memory(0);
    EXPECT_EQ(zel_printf_strdup("%040d", 7), nullptr);
    EXPECT_EQ(CaughtFailures::list.size(), 1U);
}

TEST(ZelPrintfStrdup, WhatAHandlerReturnsForTheBufferIsWrittenInto) {
    const Reserve reserve;
    const FailingRequest no_memory(0);
    char *text = zel_printf_strdup("%d", 7);
    EXPECT_STREQ(text, "7");
    EXPECT_EQ(Reserve::sizes, (std::vector<unsigned long>{zel::kFirstFormattedSize}));
    if (!zel::kSmall) {
        EXPECT_EQ(text, Reserve::block);
    }
    zel_free(text);
}

TEST(ZelPrintfStrdup, WhatAHandlerReturnsForTheBufferIsResized) {
    const Reserve reserve;
    const Interposed no_memory(hook::malloc, fail_always(hook::malloc, ENOMEM, nullptr));
    std::vector<void *> resized;
    const Interposed resizing(hook::realloc, [&resized](void *pointer, size_t size) {
        resized.push_back(pointer);
        return hook::realloc.real(pointer, size);
    });
    char *text = zel_printf_strdup("%040d", 7);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(text, std::string(39, '0') + "7");
    EXPECT_EQ(resized, std::vector<void *>{Reserve::block});
    zel_free(text);
}

TEST(ZelPrintfStrdup, WhatAHandlerReturnsForAFailedResizeIsTheBufferFromThenOn) {
    const Reserve reserve;
    void *before = nullptr;
    const Interposed no_memory(hook::realloc, [&before](void *pointer, size_t) -> void * {
        before = pointer;
        errno = ENOMEM;
        return nullptr;
    });
    char *text = zel_printf_strdup("%040d", 7);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(text, std::string(39, '0') + "7");
    EXPECT_EQ(text, Reserve::block);
    EXPECT_EQ(Reserve::sizes, std::vector<unsigned long>{42});
    zel_free(text);
    zel_free(before); // a block that cannot be resized stays
}

TEST(ZelPrintfStrdup, WhatAHandlerReturnsIsReleasedWhenTheTextCannotBeFormatted) {
    const Reserve reserve;
    const Interposed no_memory(hook::malloc, fail_always(hook::malloc, ENOMEM, nullptr));
    std::vector<void *> released;
    released.reserve(4);
    {
        const Interposed releasing(hook::free, [&released](void *pointer) {
            released.push_back(pointer);
            hook::free.real(pointer);
        });
        EXPECT_EQ(zel_printf_strdup("%lc", static_cast<wint_t>(0x20AC)), nullptr);
    }
    EXPECT_EQ(released, std::vector<void *>{Reserve::block});
}

// These tests hold the first size of a text, 16 bytes.
#ifndef ZEL_SMALL_CONSTANTS

TEST(ZelPrintfStrdupSize, OneSpareByteIsDemanded) {
    const std::vector<std::pair<int, Calls>> cases = {
        {1, {"malloc 16"}},
        {14, {"malloc 16"}},
        {15, {"malloc 16", "realloc 32"}},
        {16, {"malloc 16", "realloc 18"}},
        {31, {"malloc 16", "realloc 33"}},
        {40, {"malloc 16", "realloc 42"}},
    };
    for (const auto &[length, calls] : cases) {
        const AllocatorLog log;
        char *text = zel_printf_strdup("%*d", length, 7);
        EXPECT_EQ(log.calls, calls) << length;
        EXPECT_EQ(std::string(text).size(), static_cast<size_t>(length));
        zel_free(text);
    }
}

TEST(ZelPrintfStrdupSize, AnErrorWithoutANumberDoublesTheBuffer) {
    for (const std::optional<int> error : {std::optional<int>(), std::optional<int>(0), std::optional<int>(ERANGE)}) {
        const AllocatorLog log;
        const FailingFormat failing(0, error);
        errno = EINVAL; // an error from before the call
        char *text = zel_printf_strdup("%s", "text");
        EXPECT_STREQ(text, "text");
        EXPECT_EQ(log.calls, (Calls{"malloc 16", "realloc 32"}));
        zel_free(text);
    }
}

TEST(ZelPrintfStrdupSize, TheErrorOfOneAttemptIsForgottenBeforeTheNext) {
    const AllocatorLog log;
    const FailingFormat failing(1, std::nullopt);
    int attempts = 0;
    const auto outer = hook::vsnprintf.replacement;
    const Interposed formatting(hook::vsnprintf, [&](char *buffer, size_t size, const char *format, va_list args) {
        const int length = outer(buffer, size, format, args);
        errno = attempts++ == 0 ? EIO : errno;
        return length;
    });
    char *text = zel_printf_strdup("%040d", 7);
    EXPECT_EQ(std::string(text).size(), 40U);
    EXPECT_EQ(log.calls, (Calls{"malloc 16", "realloc 42", "realloc 84"}));
    zel_free(text);
}

TEST(ZelPrintfStrdupSize, AnyOtherErrorReleasesTheBuffer) {
    const AllocatorLog log;
    const FailingFormat failing(0, EOVERFLOW);
    EXPECT_EQ(zel_printf_strdup("%s", "text"), nullptr);
    EXPECT_EQ(log.calls, (Calls{"malloc 16", "free"}));
}

TEST(ZelPrintfStrdupSize, ALateErrorReleasesTheBufferToo) {
    const AllocatorLog log;
    const FailingFormat failing(1, EOVERFLOW);
    EXPECT_EQ(zel_printf_strdup("%040d", 7), nullptr);
    EXPECT_EQ(log.calls, (Calls{"malloc 16", "realloc 42", "free"}));
}

TEST(ZelPrintfStrdupSize, AFirstAllocationThatFailsIsReportedUnderTheNestedEntry) {
    const Outcome outcome = run_unwrapped([] {
        const FailingRequest no_memory(0);
        zel_printf_strdup("text");
    });
    EXPECT_TRUE(ended_with_error(outcome, "zel_vprintf_strdup (via zel_malloc): Not enough memory to allocate 16 bytes "
                                          "for buffer allocation."));
}

#endif
