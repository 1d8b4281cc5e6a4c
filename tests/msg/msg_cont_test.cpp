// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Continuing the last message.
#include "msg_support.h"

#include <cstdarg>
#include <cstring>
#include <support/interpose.h>
#include <unistd.h>

using namespace zel::test;

namespace {

__attribute__((format(printf, 1, 2))) void vcont(const char *format, ...) {
    va_list args;
    va_start(args, format);
    msg_vcont(format, args);
    va_end(args);
}

const std::string kTooEarly = "Error: MSG_CONT called before any other message function.\n";

} // namespace

TEST(MsgCont, AContinuationBeforeAnyMessageEndsTheProcess) {
    for (void (*write)() : {+[] { MSG_CONT("text"); }, +[] { vcont("text"); }}) {
        const Outcome outcome = run_messages(write);
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(outcome.err, kTooEarly);
        EXPECT_EQ(outcome.status, 1);
    }
}

TEST(MsgCont, AnUnwrittenMessageIsNoMessage) {
    const Outcome outcome = run_messages([] {
        msg_set_primary(0);
        msg_primary_print("text");
        msg_diag("text");
        MSG_CONT("more");
    });
    EXPECT_EQ(outcome.err, kTooEarly);
}

TEST(MsgCont, AfterAnOpenLineAContinuationGoesOnThere) {
    const Outcome outcome = run_messages([] {
        msg_print_wrap("Loading");
        MSG_CONT(" %d", 1);
        vcont(" %d", 2);
        MSG_CONT("\n");
        MSG_CONT("next");
    });
    EXPECT_EQ(outcome.out, "Loading 1 2\nnext");
}

TEST(MsgCont, AfterALineAContinuationStandsIndentedOnItsOwnLine) {
    const Outcome outcome = run_messages([] {
        msg_set_print_prefix("ab: ");
        msg_print("Loading");
        MSG_CONT("one");
        vcont("two\n%s", "three");
        MSG_CONT("%s", "");
        MSG_CONT("four");
    });
    EXPECT_EQ(outcome.out, "ab: Loading\n    one\n    two\n    three\n    \n    four\n");
}

TEST(MsgCont, AContinuationUnderAnEmptyPrefixIsNotIndented) {
    const Outcome outcome = run_messages([] {
        msg_print("Loading");
        MSG_CONT("one");
    });
    EXPECT_EQ(outcome.out, "Loading\none\n");
}

TEST(MsgCont, AfterARawTextAContinuationIsRaw) {
    const Outcome outcome = run_messages([] {
        msg_set_width_limit(10);
        msg_warn_raw("one two three");
        MSG_CONT(" four five\nsix seven eight");
    });
    EXPECT_EQ(outcome.err, "Warning: one two three four five\n         six seven eight");
}

TEST(MsgCont, AContinuationHasNewlineAndFlushAtItsEndAndNotAtItsStart) {
    const Outcome outcome = run_messages([] {
        int flushes = 0;
        msg_print_wrap("open");
        {
            const Interposed flush(hook::fflush, [&flushes](FILE *) { return ++flushes, 0; });
            MSG_CONT(" on");
        }
        msg_print("line");
        printf("%d\n", flushes);
        {
            const Interposed flush(hook::fflush, [&flushes](FILE *stream) {
                ++flushes;
                return hook::fflush.real(stream);
            });
            MSG_CONT("on");
        }
        fprintf(stderr, "%d", flushes);
        _exit(0);
    });
    EXPECT_EQ(outcome.out, "open on\nline\n0\non\n");
    EXPECT_EQ(outcome.err, "1");
}

TEST(MsgCont, AContinuationFollowsTheLastMessageWhateverLineIsOpen) {
    const Outcome outcome = run_messages([] {
        msg_print_wrap("open");
        msg_warn_wrap("text");
        MSG_CONT(" more");
    });
    EXPECT_EQ(outcome.out, "open");
    EXPECT_EQ(outcome.err, "\nWarning: text more");
}

TEST(MsgCont, TheLeadTextIsACopy) {
    const Outcome outcome = run_messages([] {
        char prefix[] = "> ";
        msg_print_wrap("open");
        output(MSG_INFO, MSG_FMT_LINE, 0, 1, prefix, " on");
        strcpy(prefix, "??");
        MSG_CONT("next");
        MSG_CONT("last");
    });
    // A continuation that opened no line leaves its prefix to the next one. That one
    // opens a line and leaves spaces.
    EXPECT_EQ(outcome.out, "open on\n> next\n  last\n");
}

TEST(MsgCont, ALeadTextOfAnyLengthIsKept) {
    for (const size_t length : {49U, 50U, 60U, 1000U}) {
        const std::string prefix(length, 'P');
        const Outcome outcome = run_messages([&prefix] {
            msg_set_width_limit(0);
            msg_print_wrap("open");
            output(MSG_INFO, MSG_FMT_LINE, 0, 1, prefix.c_str(), " on");
            MSG_CONT("next");
            MSG_CONT("last");
        });
        std::string expected = "open on\n" + prefix + "next\n";
        expected += std::string(std::min<size_t>(length, 49), ' ') + "last\n";
        EXPECT_EQ(outcome.out, expected);
    }
}

TEST(MsgCont, ALongLeadTextIsReleasedWhenAnotherMessageIsTheLast) {
    const Outcome outcome = run_messages([] {
        const std::string prefix(1000, 'P');
        int held = 0;
        msg_print_wrap("open");
        {
            const Interposed takes(hook::malloc, [&held](size_t size) {
                ++held;
                return hook::malloc.real(size);
            });
            const Interposed gives(hook::free, [&held](void *pointer) {
                held -= pointer == nullptr ? 0 : 1;
                hook::free.real(pointer);
            });
            output(MSG_INFO, MSG_FMT_WRAP, 0, 1, prefix.c_str(), "on");
            output(MSG_INFO, MSG_FMT_WRAP, 0, 1, prefix.c_str(), "on");
            MSG_CONT("on");
            MSG_CONT("on");
        }
        fprintf(stderr, "%d", held);
    });
    EXPECT_EQ(outcome.err, "1");
}

TEST(MsgCont, ALongLeadTextOutlivesAContinuationThatIsNotWritten) {
    const std::string prefix(60, 'P');
    const Outcome outcome = run_messages([&prefix] {
        msg_primary_print_wrap("open");
        output(MSG_INFO, MSG_FMT_LINE, 1, 1, prefix.c_str(), " on");
        msg_set_primary(0);
        MSG_CONT("unwritten");
        msg_set_primary(1);
        MSG_CONT("next");
    });
    EXPECT_EQ(outcome.out, "open on\n" + prefix + "next\n");
}

TEST(MsgCont, ALeadTextIsKeptEvenIfThePrefixIsSetAnew) {
    const Outcome outcome = run_messages([] {
        msg_set_print_prefix("abcdef: ");
        msg_print("one");
        msg_set_print_prefix("x: ");
        MSG_CONT("two");
        msg_print("three");
    });
    EXPECT_EQ(outcome.out, "abcdef: one\n        two\nx: three\n");
}

TEST(MsgCont, AContinuedPrimaryMessageNeedsThePrimaryFlag) {
    const Outcome outcome = run_messages([] {
        msg_primary_print("one");
        msg_set_primary(0);
        MSG_CONT("two");
        msg_set_primary(1);
        MSG_CONT("three");
    });
    EXPECT_EQ(outcome.out, "one\nthree\n");
}

TEST(MsgCont, TheDollarSignRuleHoldsInAContinuation) {
    const Outcome outcome = run_messages([] {
        msg_print("one");
        MSG_CONT("$$2");
        MSG_CONT("$3");
    });
    EXPECT_EQ(outcome.out, "one\n$2\n");
    EXPECT_EQ(outcome.err.substr(0, 28), "Error: Internationalization ");
    EXPECT_EQ(outcome.status, 1);
}

TEST(MsgCont, AnUnknownLayoutIsContinuedWithoutAWidth) {
    const Outcome outcome = run_messages([] {
        msg_set_width_limit(0);
        output(MSG_INFO, 9, 0, 0, "", "one");
        MSG_CONT(" two");
    });
    EXPECT_EQ(outcome.out, "one two");
    EXPECT_EQ(outcome.status, 0);
}
