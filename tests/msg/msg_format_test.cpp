// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Formatting a text of any length.
#include "msg_support.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <support/interpose.h>

using namespace zel::test;

namespace {

// Records the sizes of the storage asked for, first and later.
struct Sizes {
    std::array<size_t, 8> asked = {};
    size_t count = 0;
    void note(size_t size) { asked.at(count++) = size; }
    std::string text() const {
        std::string text;
        std::for_each_n(asked.begin(), count, [&text](size_t size) { text += std::to_string(size) + " "; });
        return text;
    }
};

// The sizes asked for while the body runs.
std::string sizes_asked_for(const std::function<void()> &body) {
    Sizes sizes;
    const Interposed first(hook::malloc, [&sizes](size_t size) {
        sizes.note(size);
        return hook::malloc.real(size);
    });
    const Interposed later(hook::realloc, [&sizes](void *pointer, size_t size) {
        sizes.note(size);
        return hook::realloc.real(pointer, size);
    });
    body();
    return sizes.text();
}

// Formats a text of that length and checks it. Returns the sizes asked for.
std::string sizes_for_length(size_t initial_size, size_t length) {
    const std::string wanted(length, 'x');
    char *text = nullptr;
    std::string sizes = sizes_asked_for([&] { text = vformat(initial_size, "%s", wanted.c_str()); });
    EXPECT_STREQ(text, wanted.c_str());
    free(text);
    return sizes;
}

// A vsnprintf whose first call gives -1 with that error.
std::function<int(char *, size_t, const char *, va_list)> fail_first_with(int error) {
    return [error, calls = 0](char *buffer, size_t size, const char *format, va_list args) mutable {
        if (calls++ == 0) {
            errno = error;
            return -1;
        }
        return hook::vsnprintf.real(buffer, size, format, args);
    };
}

} // namespace

TEST(MsgFormat, ATextShorterThanTheBufferByTwoFitsAtOnce) {
    EXPECT_EQ(sizes_for_length(10, 0), "10 ");
    EXPECT_EQ(sizes_for_length(10, 8), "10 ");
}

TEST(MsgFormat, ATextThatJustFillsItsBufferDoublesIt) {
    EXPECT_EQ(sizes_for_length(10, 9), "10 20 ");
    EXPECT_EQ(sizes_for_length(1, 0), "1 2 ");
}

TEST(MsgFormat, ALongerTextAsksForItsLengthAndTwo) {
    EXPECT_EQ(sizes_for_length(10, 10), "10 12 ");
    EXPECT_EQ(sizes_for_length(10, 1000), "10 1002 ");
    EXPECT_EQ(sizes_for_length(1, 1), "1 3 ");
}

TEST(MsgFormat, AnInitialSizeOfZeroGrowsToo) {
    EXPECT_EQ(sizes_for_length(0, 5), "0 7 ");
}

TEST(MsgFormat, EachAttemptStartsWithTheFirstArgument) {
    char *text = vformat(1, "%d %s %ld", 1, "two", 3L);
    EXPECT_STREQ(text, "1 two 3");
    free(text);
}

TEST(MsgFormat, AnUnknownLengthDoublesTheBuffer) {
    for (const int error : {0, ERANGE}) {
        const Interposed failing(hook::vsnprintf, fail_first_with(error));
        EXPECT_EQ(sizes_for_length(10, 5), "10 20 ") << error;
    }
}

TEST(MsgFormat, ATextThatCannotBeConvertedGivesNull) {
    const Interposed failing(hook::vsnprintf, fail_first_with(EILSEQ));
    char *text = nullptr;
    // A sanitizer reports a buffer that is not released.
    EXPECT_EQ(sizes_asked_for([&text] { text = vformat(10, "text"); }), "10 ");
    EXPECT_EQ(text, nullptr);
}

TEST(MsgFormat, ErrnoIsClearAtEachAttemptAndAfterwards) {
    std::string seen;
    const Interposed watching(hook::vsnprintf, [&seen](char *buffer, size_t size, const char *format, va_list args) {
        seen += std::to_string(errno) + " ";
        const int length = hook::vsnprintf.real(buffer, size, format, args);
        errno = ERANGE;
        return length;
    });
    errno = EPERM;
    free(vformat(3, "long text"));
    EXPECT_EQ(seen, "0 0 ");
    const Interposed plain(hook::vsnprintf, hook::vsnprintf.real);
    errno = EPERM;
    free(vformat(30, "text"));
    EXPECT_EQ(errno, 0);
}

TEST(MsgFormat, WithoutMemoryAtFirstTheResultIsNull) {
    const Interposed failing(hook::malloc, fail_nth(hook::malloc, 0, ENOMEM, nullptr));
    EXPECT_EQ(vformat(10, "text"), nullptr);
}

TEST(MsgFormat, ABufferThatCannotGrowIsLeftAllocated) {
    const Outcome outcome = run_messages([] {
        // Storage that is not from the heap: releasing it would end the process.
        static std::array<char, 16> storage;
        const Interposed first(hook::malloc, [](size_t) -> void * { return storage.data(); });
        const Interposed later(hook::realloc, fail_nth(hook::realloc, 0, ENOMEM, nullptr));
        const char *text = vformat(storage.size(), "%s", "a text longer than its storage");
        fputs(text == nullptr ? storage.data() : "a result", stderr);
    });
    EXPECT_EQ(outcome.err, "a text longer t");
    EXPECT_EQ(outcome.signal, 0);
    EXPECT_EQ(outcome.status, 0);
}

TEST(MsgFormat, AMessageMayBeMuchLongerThanItsFirstBuffer) {
    const std::string text(100000, 'x');
    const Outcome outcome = run_messages([&text] { msg_print("%s", text.c_str()); });
    EXPECT_EQ(outcome.out, text + "\n");
}

#ifndef ZEL_SMALL_CONSTANTS
// Holds the first size of 10000 bytes.
TEST(MsgFormatSize, AMessageThatTenThousandBytesHoldAsksForNone) {
    const auto sizes = [](size_t length) {
        return run_messages([length] {
                   _msg_get_stream_desc(MSG_ERROR);
                   const std::string text(length, 'x');
                   fputs(sizes_asked_for([&text] { msg_error("%s", text.c_str()); }).c_str(), stdout);
                   putchar('|');
                   fputs(sizes_asked_for([&text] { msg_error("%s.", text.c_str()); }).c_str(), stdout);
               })
            .out;
    };
    EXPECT_EQ(sizes(0), "|");
    EXPECT_EQ(sizes(9997), "|");
    EXPECT_EQ(sizes(9998), "|20000 ");
    EXPECT_EQ(sizes(9999), "20000 |10002 ");
    EXPECT_EQ(sizes(20000), "20002 |20003 ");
}
#endif
