// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The five prefixes.
#include "msg_support.h"

#include <cerrno>
#include <cstring>
#include <support/interpose.h>
#include <vector>

using namespace zel::test;

namespace {

struct PrefixCalls {
    const char *name;
    const char *initial;
    int number; // as the warning of the setter gives it
    void (*set)(const char *text);
    const char *(*get)();
};

const std::vector<PrefixCalls> kPrefixes = {
    {"print", "", 1, msg_set_print_prefix, msg_get_print_prefix},
    {"warn", "Warning: ", 2, msg_set_warn_prefix, msg_get_warn_prefix},
    {"mp", "", 3, msg_set_mp_prefix, msg_get_mp_prefix},
    {"error", "Error: ", 4, msg_set_error_prefix, msg_get_error_prefix},
    {"internal_error", "Internal error: ", 5, msg_set_internal_error_prefix, msg_get_internal_error_prefix},
};

void PrintTo(const PrefixCalls &prefix, std::ostream *out) {
    *out << prefix.name;
}

void print_all_prefixes() {
    for (const PrefixCalls &prefix : kPrefixes) {
        printf("%s|", prefix.get());
    }
}

class MsgEachPrefix : public testing::TestWithParam<PrefixCalls> {};

} // namespace

TEST_P(MsgEachPrefix, APrefixHasItsDefault) {
    EXPECT_EQ(run_messages([] { fputs(GetParam().get(), stdout); }).out, GetParam().initial);
}

TEST_P(MsgEachPrefix, APrefixIsACopyOfTheTextSet) {
    const Outcome outcome = run_messages([] {
        char text[] = "first: ";
        GetParam().set(text);
        memset(text, '?', strlen(text));
        printf("%s", GetParam().get());
        GetParam().set("second: ");
        printf("%s", GetParam().get());
    });
    EXPECT_EQ(outcome.out, "first: second: ");
}

TEST_P(MsgEachPrefix, ASetterLeavesTheOtherPrefixesAlone) {
    const Outcome outcome = run_messages([] {
        GetParam().set("set");
        print_all_prefixes();
    });
    std::string expected;
    for (const PrefixCalls &prefix : kPrefixes) {
        expected += (prefix.set == GetParam().set ? "set" : prefix.initial) + std::string("|");
    }
    EXPECT_EQ(outcome.out, expected);
}

TEST_P(MsgEachPrefix, APrefixIsEmptyWhenSetToNull) {
    const Outcome outcome = run_messages([] {
        GetParam().set("text");
        GetParam().set(nullptr);
        printf("[%s]", GetParam().get());
    });
    EXPECT_EQ(outcome.out, "[]");
}

TEST_P(MsgEachPrefix, APrefixMayBeSetToItsOwnText) {
    const Outcome outcome = run_messages([] {
        GetParam().set(GetParam().get());
        GetParam().set("own text");
        GetParam().set(GetParam().get());
        GetParam().set(GetParam().get() + 4);
        printf("%s", GetParam().get());
    });
    EXPECT_EQ(outcome.out, "text");
}

TEST_P(MsgEachPrefix, APrefixTakesAsMuchMemoryAsTheTextAndOne) {
    const Outcome outcome = run_messages([] {
        size_t asked = 0;
        const Interposed watching(hook::malloc, [&asked](size_t size) {
            asked = asked * 1000 + size;
            return hook::malloc.real(size);
        });
        GetParam().set("12345");
        GetParam().set(nullptr);
        printf("%zu", asked);
    });
    EXPECT_EQ(outcome.out, "6001");
}

INSTANTIATE_TEST_SUITE_P(, MsgEachPrefix, testing::ValuesIn(kPrefixes),
                         [](const testing::TestParamInfo<PrefixCalls> &prefix) { return prefix.param.name; });

TEST(MsgPrefix, ASetterWithoutMemoryWarnsAndKeepsThePrefix) {
    for (const PrefixCalls &prefix : kPrefixes) {
        const Outcome outcome = run_messages([&prefix] {
            msg_set_width_limit(0);
            _msg_get_stream_desc(MSG_WARNING);
            const Interposed failing(hook::malloc, fail_nth(hook::malloc, 0, ENOMEM, nullptr));
            prefix.set("12345678");
            print_all_prefixes();
        });
        EXPECT_EQ(outcome.out, "|Warning: ||Error: |Internal error: |");
        EXPECT_EQ(outcome.err, "Warning: " + std::to_string(prefix.number) +
                                   ": Couldn't allocate 9 characters to store print prefix. Prefix unchanged.\n");
        EXPECT_EQ(outcome.status, 0);
    }
}

TEST(MsgPrefix, ASetterWithoutMemoryKeepsATextSetBefore) {
    const Outcome outcome = run_messages([] {
        msg_set_print_prefix("before: ");
        _msg_get_stream_desc(MSG_WARNING);
        {
            const Interposed failing(hook::malloc, fail_nth(hook::malloc, 0, ENOMEM, nullptr));
            msg_set_print_prefix("after: ");
        }
        msg_print("text");
        msg_set_print_prefix("after: ");
        msg_print("text");
    });
    EXPECT_EQ(outcome.out, "before: text\nafter: text\n");
}

TEST(MsgPrefix, ANullWarnPrefixLeavesWarningsBare) {
    const Outcome outcome = run_messages([] {
        msg_set_warn_prefix(nullptr);
        msg_warn("one\ntwo");
    });
    EXPECT_EQ(outcome.err, "one\ntwo\n");
}

TEST(MsgPrefix, TheErrorPrefixAlsoOpensTheLibrarysOwnFatalTexts) {
    const Outcome outcome = run_messages([] {
        msg_set_error_prefix("E: ");
        msg_type_name(3);
    });
    EXPECT_EQ(outcome.err, "E: Internal error: Unknown message type: 3\n");
}

TEST(MsgPrefix, TheMpPrefixOpensEveryLine) {
    const Outcome outcome = run_messages([] {
        msg_set_mp_prefix("[3] ");
        msg_error("one\ntwo");
        MSG_CONT("three");
        output(MSG_DEBUG, MSG_FMT_RAW, 0, 0, "d: ", "one\ntwo\n");
        msg_print("wrapped");
    });
    EXPECT_EQ(outcome.err, "[3] Error: one\n[3]        two\n[3]        three\n");
    EXPECT_EQ(outcome.out, "[3] d: one\n[3]    two\n[3] wrapped\n");
}

TEST(MsgPrefix, APrimaryMessageNeverHasTheMpPrefix) {
    const Outcome outcome = run_messages([] {
        msg_set_mp_prefix("[3] ");
        msg_error_ex(1, "one\ntwo");
        MSG_CONT("three");
    });
    EXPECT_EQ(outcome.err, "Error: one\n       two\n       three\n");
}

TEST(MsgPrefix, TheMpPrefixTakesRoomFromTheText) {
    const auto wrapped = [](int primary_only) {
        return run_messages([primary_only] {
                   msg_set_width_limit(10);
                   msg_set_mp_prefix("[3] ");
                   output(MSG_INFO, MSG_FMT_LINE, primary_only, 0, "", "aaaa bbbb");
               })
            .out;
    };
    EXPECT_EQ(wrapped(0), "[3] aaaa\n[3] bbbb\n");
    EXPECT_EQ(wrapped(1), "aaaa bbbb\n");
}

TEST(MsgPrefix, TheIndentationHasAtMostFortyNineSpaces) {
    for (const size_t length : {48U, 49U, 50U, 60U}) {
        const std::string prefix(length, 'P');
        const Outcome outcome = run_messages([&prefix] { msg_print_with_prefix(prefix.c_str(), "one\ntwo"); });
        EXPECT_EQ(outcome.out, prefix + "one\n" + std::string(std::min<size_t>(length, 49), ' ') + "two\n");
    }
}
