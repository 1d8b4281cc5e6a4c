// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The lifetime of the text of a prefix: it ends after the message that began with it.
#include "msg_support.h"

#include <array>
#include <cerrno>
#include <csetjmp>
#include <cstdlib>
#include <cstring>
#include <support/interpose.h>

using namespace zel::test;

namespace {

// Watches the texts of prefixes. A text that is released is overwritten and recorded.
struct WatchedTexts {
    std::array<char *, 16> texts = {};
    size_t count = 0;
    std::string events;
    Interposed<void(void *)> releases;

    WatchedTexts() : releases(hook::free, [this](void *pointer) { release(pointer); }) {}

    void watch(const char *text) { texts.at(count++) = const_cast<char *>(text); }

    void release(void *pointer) {
        for (size_t index = 0; index < count; ++index) {
            if (texts[index] != nullptr && texts[index] == pointer) {
                events += std::string("[") + texts[index] + "]";
                memset(pointer, '?', strlen(texts[index]) + 1);
                texts[index] = nullptr;
            }
        }
        hook::free.real(pointer);
    }
};

// A prefix, and a call of the type that writes a message after it.
struct PrefixInUse {
    const char *name;
    int type;
    void (*set)(const char *text);
    const char *(*get)();
    void (*write)();
};

const PrefixInUse kPrefixesInUse[] = {
    {"print", MSG_INFO, msg_set_print_prefix, msg_get_print_prefix, [] { msg_print("x"); }},
    {"warn", MSG_WARNING, msg_set_warn_prefix, msg_get_warn_prefix, [] { msg_warn("x"); }},
    {"mp", MSG_INFO, msg_set_mp_prefix, msg_get_mp_prefix, [] { msg_print("x"); }},
    {"error", MSG_ERROR, msg_set_error_prefix, msg_get_error_prefix, [] { msg_error("x"); }},
    {"internal_error", MSG_ERROR, msg_set_internal_error_prefix, msg_get_internal_error_prefix,
     [] { msg_internal_error_ex(0, "x"); }},
};

void PrintTo(const PrefixInUse &prefix, std::ostream *out) {
    *out << prefix.name;
}

class MsgPrefixInUse : public testing::TestWithParam<PrefixInUse> {};

} // namespace

TEST_P(MsgPrefixInUse, ATextThatIsReplacedMeanwhileIsWrittenWholeAndThenReleased) {
    const Outcome outcome = run_messages([] {
        WatchedTexts watched;
        GetParam().set("old: ");
        watched.watch(GetParam().get());
        on_first_piece(GetParam().type, [&watched] {
            GetParam().set("new: ");
            watched.events += "set";
        });
        GetParam().write();
        fputs(watched.events.c_str(), stderr);
        GetParam().write();
    });
    EXPECT_EQ(outcome.out, "old: x\nnew: x\n");
    EXPECT_EQ(outcome.err, "set[old: ]");
}

TEST_P(MsgPrefixInUse, ATextThatNobodyReadsIsReleasedAtOnce) {
    const Outcome outcome = run_messages([] {
        WatchedTexts watched;
        GetParam().set("old: ");
        on_first_piece(GetParam().type, [&watched] {
            GetParam().set("one");
            watched.watch(GetParam().get());
            GetParam().set("two");
            watched.watch(GetParam().get());
            GetParam().set("three: ");
            watched.events += "set";
        });
        GetParam().write();
        fputs(watched.events.c_str(), stderr);
        GetParam().write();
    });
    EXPECT_EQ(outcome.out, "old: x\nthree: x\n");
    EXPECT_EQ(outcome.err, "[one][two]set");
}

INSTANTIATE_TEST_SUITE_P(, MsgPrefixInUse, testing::ValuesIn(kPrefixesInUse),
                         [](const testing::TestParamInfo<PrefixInUse> &prefix) { return prefix.param.name; });

// The last address is that of the NUL. It is written after the prefix has been replaced.
TEST(MsgPrefixLifetime, ACallersPointerIntoAPrefixKeepsIt) {
    // So long that malloc keeps no notes of its own where the text ended.
    const std::string old = "the prefix before it is replaced: ";
    for (const size_t offset : {size_t{0}, size_t{2}, old.size()}) {
        const Outcome outcome = run_messages([&old, offset] {
            WatchedTexts watched;
            msg_set_mp_prefix("[1] ");
            msg_set_warn_prefix(old.c_str());
            watched.watch(msg_get_warn_prefix());
            on_first_piece(MSG_INFO, [] { msg_set_warn_prefix("new: "); });
            msg_print_with_prefix(msg_get_warn_prefix() + offset, "x");
            fputs(watched.events.c_str(), stderr);
        });
        EXPECT_EQ(outcome.out, "[1] " + old.substr(offset) + "x\n");
        EXPECT_EQ(outcome.err, "[" + old + "]");
    }
}

TEST(MsgPrefixLifetime, LaterLinesHaveTheMpPrefixInForceInTheRoomOfTheFirst) {
    const Outcome outcome = run_messages([] {
        WatchedTexts watched;
        msg_set_width_limit(10);
        msg_set_mp_prefix("[3] ");
        watched.watch(msg_get_mp_prefix());
        on_first_piece(MSG_INFO, [] { msg_set_mp_prefix("[longer] "); });
        msg_print("aaaa bbbb cccc");
        fputs(watched.events.c_str(), stderr);
        msg_print("a");
    });
    EXPECT_EQ(outcome.out, "[3] aaaa\n[longer] bbbb\n[longer] cccc\n[longer] a\n");
    EXPECT_EQ(outcome.err, "[[3] ]");
}

TEST(MsgPrefixLifetime, AnMpPrefixSetOnEveryPieceIsWrittenWholeEachTime) {
    const Outcome outcome = run_messages([] {
        WatchedTexts watched;
        int pieces = 0;
        msg_set_mp_prefix("0>");
        watched.watch(msg_get_mp_prefix());
        msg_clear_streams(MSG_INFO);
        msg_add_stream(MSG_INFO, open_own_stream([&](const std::string &) {
                           msg_set_mp_prefix((std::to_string(++pieces) + ">").c_str());
                           watched.watch(msg_get_mp_prefix());
                       }));
        msg_add_stream(MSG_INFO, stdout);
        setvbuf(stdout, nullptr, _IONBF, 0);
        msg_print("a\nb");
        fputs(watched.events.c_str(), stderr);
    });
    // Five pieces reach the stream that sets: two prefixes, two texts with the newline
    // between them, the last newline.
    EXPECT_EQ(outcome.out, "0>a\n3>b\n");
    EXPECT_EQ(outcome.err, "[0>][1>][2>][3>][4>][5>]");
}

TEST(MsgPrefixLifetime, TheOutermostMessageThatReadsATextReleasesIt) {
    const Outcome outcome = run_messages([] {
        WatchedTexts watched;
        msg_set_print_prefix("old: ");
        watched.watch(msg_get_print_prefix());
        // Three nested messages after the same prefix. The stream of the innermost one
        // replaces the prefix.
        on_first_piece(MSG_DEBUG, [] { msg_set_print_prefix("new: "); });
        on_first_piece(MSG_ERROR, [&watched] {
            output(MSG_DEBUG, MSG_FMT_LINE, 0, 0, msg_get_print_prefix(), "inner");
            watched.events += "inner ended ";
        });
        on_first_piece(MSG_INFO, [&watched] {
            output(MSG_ERROR, MSG_FMT_LINE, 0, 0, msg_get_print_prefix(), "middle");
            watched.events += "middle ended ";
        });
        msg_print("outer");
        fputs(watched.events.c_str(), stderr);
        msg_print("next");
    });
    EXPECT_EQ(outcome.out, "old: inner\nold: middle\nold: outer\nnew: next\n");
    EXPECT_EQ(outcome.err, "inner ended middle ended [old: ]");
}

TEST(MsgPrefixLifetime, EachMessageReleasesTheTextThatItReads) {
    const Outcome outcome = run_messages([] {
        WatchedTexts watched;
        msg_set_print_prefix("one: ");
        watched.watch(msg_get_print_prefix());
        on_first_piece(MSG_ERROR, [] { msg_set_print_prefix("three: "); });
        on_first_piece(MSG_INFO, [&watched] {
            msg_set_print_prefix("two: ");
            watched.watch(msg_get_print_prefix());
            output(MSG_ERROR, MSG_FMT_LINE, 0, 0, msg_get_print_prefix(), "inner");
            watched.events += "inner ended ";
        });
        msg_print("outer");
        fputs(watched.events.c_str(), stderr);
        msg_print("next");
    });
    EXPECT_EQ(outcome.out, "two: inner\none: outer\nthree: next\n");
    EXPECT_EQ(outcome.err, "[two: ]inner ended [one: ]");
}

TEST(MsgPrefixLifetime, TheLeadTextOfAContinuationIsTheOldOne) {
    const Outcome outcome = run_messages([] {
        WatchedTexts watched;
        msg_set_print_prefix("old: ");
        watched.watch(msg_get_print_prefix());
        msg_print_wrap("open");
        // A continuation on an open line writes no prefix. The prefix is left to the next
        // one.
        on_first_piece(MSG_INFO, [] { msg_set_print_prefix("new: "); });
        output(MSG_INFO, MSG_FMT_LINE, 0, 1, msg_get_print_prefix(), " on");
        MSG_CONT("next");
        fputs(watched.events.c_str(), stderr);
    });
    EXPECT_EQ(outcome.out, "old: open on\nold: next\n");
    EXPECT_EQ(outcome.err, "[old: ]");
}

TEST(MsgPrefixLifetime, TheWarningOfASetterMayCallASetter) {
    const Outcome outcome = run_messages([] {
        WatchedTexts watched;
        msg_set_width_limit(0);
        msg_set_warn_prefix("old: ");
        watched.watch(msg_get_warn_prefix());
        on_first_piece(MSG_WARNING, [] { msg_set_warn_prefix("new: "); });
        {
            const Interposed failing(hook::malloc, fail_nth(hook::malloc, 0, ENOMEM, nullptr));
            msg_set_warn_prefix("text");
        }
        fputs(watched.events.c_str(), stderr);
        msg_warn("x");
    });
    EXPECT_EQ(outcome.out, "old: 2: Couldn't allocate 5 characters to store print prefix. Prefix unchanged.\nnew: x\n");
    EXPECT_EQ(outcome.err, "[old: ]");
}

TEST(MsgPrefixLifetime, AMessageLeftByLongjmpHarmsNoLaterOne) {
    const Outcome outcome = run_messages([] {
        WatchedTexts watched;
        static jmp_buf out_of_it;
        // Its text stays allocated. It is kept here, so that a sanitizer does not report
        // it.
        static const char *left_text;
        msg_set_print_prefix("left: ");
        left_text = msg_get_print_prefix();
        on_first_piece(MSG_INFO, [] { longjmp(out_of_it, 1); });
        if (setjmp(out_of_it) == 0) {
            msg_print("lost");
        }
        msg_set_print_prefix("one: ");
        watched.watch(msg_get_print_prefix());
        msg_print("text");
        on_first_piece(MSG_INFO, [] { msg_set_print_prefix("two: "); });
        msg_print("text");
        watched.watch(msg_get_print_prefix());
        msg_set_print_prefix("three: ");
        msg_print("text");
        fputs(watched.events.c_str(), stderr);
        fputs(left_text, stderr);
    });
    EXPECT_EQ(outcome.out, "one: text\none: text\nthree: text\n");
    EXPECT_EQ(outcome.err, "[one: ][two: ]left: ");
    EXPECT_EQ(outcome.status, 0);
}

TEST(MsgPrefixLifetime, SettingAPrefixInAMessageTakesNoMoreMemoryThanEver) {
    const Outcome outcome = run_messages([] {
        std::string sizes;
        msg_set_print_prefix("old: ");
        on_first_piece(MSG_INFO, [] { msg_set_print_prefix("12345"); });
        {
            const Interposed watching(hook::malloc, [&sizes](size_t size) {
                sizes += std::to_string(size) + " ";
                return hook::malloc.real(size);
            });
            msg_print("x");
        }
        fputs(sizes.c_str(), stderr);
    });
    EXPECT_EQ(outcome.out, "old: x\n");
    EXPECT_EQ(outcome.err, "6 ");
}
