// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Messages within messages: a stream of the program writes one while it is written to.
#include "msg_support.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csetjmp>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <support/interpose.h>

using namespace zel::test;

namespace {

const std::string kLost = "A message could not be formatted and is lost.\n";

// Adds the size of each request to the text until its scope ends.
struct RequestsNoted {
    Interposed<void *(size_t)> first;
    Interposed<void *(void *, size_t)> later;
    explicit RequestsNoted(std::string &sizes)
        : first(hook::malloc,
                [&sizes](size_t size) {
                    sizes += std::to_string(size) + " ";
                    return hook::malloc.real(size);
                }),
          later(hook::realloc, [&sizes](void *pointer, size_t size) {
              sizes += "to " + std::to_string(size) + " ";
              return hook::realloc.real(pointer, size);
          }) {}
};

jmp_buf out_of_the_message;

// A message whose stream never comes back.
void leave_a_message() {
    on_first_piece(MSG_INFO, [] { longjmp(out_of_the_message, 1); });
    if (setjmp(out_of_the_message) == 0) {
        msg_print("left");
    }
    msg_clear_streams(MSG_INFO);
    msg_add_stream(MSG_INFO, stdout);
}

} // namespace

TEST(MsgNested, ThreeMessagesInEachOtherAreWhole) {
    const Outcome outcome = run_messages([] {
        on_first_piece(MSG_ERROR, [] { output(MSG_DEBUG, MSG_FMT_LINE, 0, 0, "", "innermost %d", 3); });
        on_first_piece(MSG_WARNING, [] { output(MSG_ERROR, MSG_FMT_LINE, 0, 0, "", "middle %d", 2); });
        on_first_piece(MSG_INFO, [] { output(MSG_WARNING, MSG_FMT_LINE, 0, 0, "", "in it %d", 1); });
        msg_print("outer %d", 0);
        msg_print("next");
    });
    EXPECT_EQ(outcome.out, "innermost 3\nmiddle 2\nin it 1\nouter 0\nnext\n");
    EXPECT_EQ(outcome.status, 0);
}

TEST(MsgNested, AMessageByItselfAsksForNoMemory) {
    const Outcome outcome = run_messages([] {
        std::string sizes;
        _msg_get_stream_desc(MSG_INFO);
        {
            const RequestsNoted noted(sizes);
            msg_print("one");
            MSG_CONT("two");
            msg_warn("%d", 3);
        }
        fputs(sizes.c_str(), stdout);
    });
    EXPECT_EQ(outcome.out, "one\ntwo\n");
    EXPECT_EQ(outcome.err, "Warning: 3\n");
}

TEST(MsgNested, AMessageInAMessageWithoutMemoryIsReplacedByTheFixedText) {
    const Outcome outcome = run_messages([] {
        on_first_piece(MSG_INFO, [] {
            const Interposed failing(hook::malloc, fail_always(hook::malloc, ENOMEM, nullptr));
            msg_error("inner");
        });
        msg_print("outer");
        msg_print("next");
    });
    EXPECT_EQ(outcome.out, "outer\nnext\n");
    EXPECT_EQ(outcome.err, kLost);
}

TEST(MsgNested, AnExitHandlerMayWriteWhenAStreamEndsTheProcess) {
    const Outcome outcome = run_messages([] {
        atexit([] { msg_error("handler"); });
        on_first_piece(MSG_INFO, [] { exit(3); });
        msg_print("outer");
    });
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "Error: handler\n");
    EXPECT_EQ(outcome.status, 3);
}

TEST(MsgNested, ARefusedFormatInAMessageEndsTheProcessWithItsText) {
    const Outcome outcome = run_messages([] {
        on_first_piece(MSG_INFO, [] { msg_warn("$x"); });
        msg_print("outer");
    });
    EXPECT_EQ(outcome.err.substr(0, 59), "Error: Internationalization interface not yet supported.\n  ");
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.status, 1);
}

TEST(MsgNested, ARefusedFormatLeavesNoTraceInTheHandlersOfTheExit) {
    const Outcome outcome = run_messages([] {
        atexit([] { msg_print("handler"); });
        msg_print("$x");
    });
    EXPECT_EQ(outcome.out, "handler\n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(MsgNested, MessagesAfterOneThatWasLeftByLongjmpAreWhole) {
    const Outcome outcome = run_messages([] {
        leave_a_message();
        msg_print("%s", "one");
        msg_print("%s", std::string(20000, 'x').c_str());
        msg_print("%s", "two");
    });
    EXPECT_EQ(outcome.out, "one\n" + std::string(20000, 'x') + "\ntwo\n");
    EXPECT_EQ(outcome.status, 0);
}

TEST(MsgNested, AMessageThatWasLeftByLongjmpKeepsTheFixedArea) {
    const Outcome outcome = run_messages([] {
        leave_a_message();
        std::string sizes;
        {
            const RequestsNoted noted(sizes);
            msg_print("one");
        }
        fputs(sizes.empty() ? "nothing asked for" : "allocated", stderr);
        const Interposed failing(hook::malloc, fail_always(hook::malloc, ENOMEM, nullptr));
        msg_print("two");
    });
    EXPECT_EQ(outcome.out, "one\n");
    EXPECT_EQ(outcome.err, "allocated" + kLost);
}

TEST(MsgNested, TheAreaIsFreeAgainAfterAMessageThatCouldNotBeConverted) {
    const Outcome outcome = run_messages([] {
        _msg_get_stream_desc(MSG_INFO);
        std::string sizes;
        {
            const RequestsNoted noted(sizes);
            msg_print("a%ls", L"\u20ac");
            msg_print("next");
        }
        fputs(sizes.c_str(), stdout);
    });
    EXPECT_EQ(outcome.out, "next\n");
    EXPECT_EQ(outcome.err, kLost);
}

TEST(MsgNested, TheErrorNumberIsClearAtEachAttempt) {
    const Outcome outcome = run_messages([] {
        _msg_get_stream_desc(MSG_INFO);
        std::string seen;
        {
            const Interposed watching(hook::vsnprintf,
                                      [&seen](char *buffer, size_t size, const char *format, va_list args) {
                                          seen += std::to_string(errno) + " ";
                                          const int length = hook::vsnprintf.real(buffer, size, format, args);
                                          errno = ERANGE;
                                          return length;
                                      });
            errno = EPERM;
            msg_print("%s", std::string(20000, ' ').c_str());
        }
        fputs(seen.c_str(), stderr);
    });
    EXPECT_EQ(outcome.err, "0 0 ");
}

// ---- Lists and texts of the system that a stream changes meanwhile --------------------------------------------------

TEST(MsgNested, AStreamMayAddStreamsWhileTheSyncModeForcesItToDisk) {
    const Outcome outcome = run_messages([] {
        // A list that grows moves. Its old place is overwritten.
        const Interposed moving(hook::realloc, [](void *pointer, size_t size) {
            void *moved = hook::malloc.real(size);
            const size_t before = malloc_usable_size(pointer);
            memcpy(moved, pointer, std::min(before, size));
            memset(pointer, 0xFF, before);
            hook::free.real(pointer);
            return moved;
        });
        FILE *own = open_own_stream([](const std::string &) {
            for (int count = 0; count < 20; ++count) {
                msg_add_stream(MSG_DIAG, stdout);
            }
        });
        std::array<char, 1000> buffer;
        setvbuf(own, buffer.data(), _IOFBF, buffer.size());
        msg_add_stream(MSG_DIAG, own);
        msg_add_stream(MSG_DIAG, stderr);
        fputs("text", own);
        printf("%d ", msg_sync_mode(MSG_DIAG, 1));
        printf("%d", _msg_get_stream_desc(MSG_DIAG)->count);
        fclose(own);
    });
    EXPECT_EQ(outcome.out, "1 22");
    EXPECT_EQ(outcome.status, 0);
}

TEST(MsgNested, AStreamMayAskForAnErrorTextWhileOneIsWrittenToIt) {
    const Outcome outcome = run_messages([] {
        // The C library keeps the text of one unknown error at a time.
        msg_add_stream(MSG_DIAG, open_own_stream([](const std::string &piece) {
                           strerror(7654321);
                           fputs(piece.c_str(), stdout);
                       }));
        errno = 1234567;
        // The text is longer than the buffer now: the buffer is written within the error
        // text.
        msg_diag("%s%%m.", std::string(16378, 'x').c_str());
    });
    EXPECT_EQ(outcome.out.substr(0, 16378), std::string(16378, 'x'));
    EXPECT_EQ(outcome.out.substr(16378), "Unknown error 1234567.");
    EXPECT_EQ(outcome.status, 0);
}

#ifndef ZEL_SMALL_CONSTANTS
// Holds the first size of 10000 bytes.
TEST(MsgNestedSize, AMessageInAMessageStartsWithTenThousandBytesFromMalloc) {
    const auto sizes = [](size_t length) {
        return run_messages([length] {
                   std::string asked;
                   const std::string text(length, 'x');
                   msg_add_stream(MSG_DEBUG, stderr);
                   on_first_piece(MSG_INFO, [&] {
                       const RequestsNoted noted(asked);
                       output(MSG_DEBUG, MSG_FMT_RAW, 0, 0, "", "%s", text.c_str());
                   });
                   msg_clear_streams(MSG_DEBUG);
                   msg_print("outer");
                   fputs(asked.c_str(), stderr);
               })
            .err;
    };
    EXPECT_EQ(sizes(0), "10000 ");
    EXPECT_EQ(sizes(9998), "10000 ");
    EXPECT_EQ(sizes(9999), "10000 to 20000 ");
    EXPECT_EQ(sizes(20000), "10000 to 20002 ");
}
#endif
