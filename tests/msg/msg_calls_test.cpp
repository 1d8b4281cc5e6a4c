// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Type, prefix, layout and primary-only mark of each output call.
#include "msg_support.h"

#include <cerrno>
#include <cstdlib>
#include <vector>

using namespace zel::test;

namespace {

struct Call {
    const char *name;
    int type;
    const char *prefix;
    int fmt_type;
    bool primary_only;
    void (*write)(const char *text);
};

constexpr int kRaw = MSG_FMT_RAW;
constexpr int kWrap = MSG_FMT_WRAP;
constexpr int kLine = MSG_FMT_LINE;

// A call that takes a format and its arguments.
#define PLAIN(call) #call, [](const char *text) { call("%s", text); }
// A call that takes an argument ahead of its format.
#define WITH(call, first, label) #call label, [](const char *text) { call(first, "%s", text); }

template <typename Write>
Call make(int type, const char *prefix, int fmt_type, bool primary_only, const char *name, Write write) {
    return {name, type, prefix, fmt_type, primary_only, write};
}

const std::vector<Call> kCalls = {
    make(MSG_INFO, "p: ", kLine, false, PLAIN(msg_print)),
    make(MSG_INFO, "", kLine, false, PLAIN(msg_print_no_prefix)),
    make(MSG_INFO, "x: ", kLine, false, WITH(msg_print_with_prefix, "x: ", "")),
    make(MSG_INFO, "p: ", kWrap, false, PLAIN(msg_print_wrap)),
    make(MSG_INFO, "p: ", kRaw, false, PLAIN(msg_print_raw)),
    make(MSG_WARNING, "w: ", kLine, false, PLAIN(msg_warn)),
    make(MSG_WARNING, "w: ", kWrap, false, PLAIN(msg_warn_wrap)),
    make(MSG_WARNING, "w: ", kRaw, false, PLAIN(msg_warn_raw)),
    make(MSG_INFO, "p: ", kLine, true, PLAIN(msg_primary_print)),
    make(MSG_INFO, "p: ", kWrap, true, PLAIN(msg_primary_print_wrap)),
    make(MSG_INFO, "p: ", kRaw, true, PLAIN(msg_primary_print_raw)),
    make(MSG_WARNING, "w: ", kLine, true, PLAIN(msg_primary_warn)),
    make(MSG_WARNING, "w: ", kWrap, true, PLAIN(msg_primary_warn_wrap)),
    make(MSG_WARNING, "w: ", kRaw, true, PLAIN(msg_primary_warn_raw)),
    make(MSG_ERROR, "e: ", kLine, false, WITH(msg_error_ex, 0, "_of_all")),
    make(MSG_ERROR, "e: ", kWrap, false, WITH(msg_error_ex_wrap, 0, "_of_all")),
    make(MSG_ERROR, "e: ", kRaw, false, WITH(msg_error_ex_raw, 0, "_of_all")),
    make(MSG_ERROR, "e: ", kLine, true, WITH(msg_error_ex, 1, "_of_primary")),
    make(MSG_ERROR, "e: ", kWrap, true, WITH(msg_error_ex_wrap, 1, "_of_primary")),
    make(MSG_ERROR, "e: ", kRaw, true, WITH(msg_error_ex_raw, 1, "_of_primary")),
    make(MSG_ERROR, "i: ", kLine, false, WITH(msg_internal_error_ex, 0, "_of_all")),
    make(MSG_ERROR, "i: ", kWrap, false, WITH(msg_internal_error_ex_wrap, 0, "_of_all")),
    make(MSG_ERROR, "i: ", kRaw, false, WITH(msg_internal_error_ex_raw, 0, "_of_all")),
    make(MSG_ERROR, "i: ", kLine, true, WITH(msg_internal_error_ex, 1, "_of_primary")),
    make(MSG_ERROR, "i: ", kWrap, true, WITH(msg_internal_error_ex_wrap, 1, "_of_primary")),
    make(MSG_ERROR, "i: ", kRaw, true, WITH(msg_internal_error_ex_raw, 1, "_of_primary")),
    make(MSG_ERROR, "e: ", kLine, false, PLAIN(msg_error)),
};

void PrintTo(const Call &call, std::ostream *out) {
    *out << call.name;
}

// The output of the call for "one two three four five six" at width 20.
std::string expected_text(const Call &call) {
    const std::string mp = call.primary_only ? "" : "m ";
    const std::string lead = mp + call.prefix;
    if (call.fmt_type == kRaw) {
        return lead + "one two three four five six";
    }
    const std::string end = call.fmt_type == kLine ? "\n" : "";
    const std::string later = mp + std::string(std::string(call.prefix).size(), ' ');
    if (call.prefix[0] == '\0') {
        return lead + "one two three four\n" + later + "five six" + end;
    }
    return lead + "one two three\n" + later + "four five six" + end;
}

void set_all_prefixes() {
    msg_set_print_prefix("p: ");
    msg_set_warn_prefix("w: ");
    msg_set_mp_prefix("m ");
    msg_set_error_prefix("e: ");
    msg_set_internal_error_prefix("i: ");
    msg_set_width_limit(20);
}

// Runs the body with informational messages on standard output, warnings on standard
// error and errors in the stream.
Outcome run_apart(FILE *errors, const std::function<void()> &body) {
    return run_messages([errors, &body] {
        msg_remove_stream(MSG_ERROR, stderr);
        msg_add_stream(MSG_ERROR, errors);
        set_all_prefixes();
        body();
    });
}

class MsgCalls : public testing::TestWithParam<Call> {
protected:
    void SetUp() override { errors_ = open_scratch_stream(); }
    void TearDown() override { fclose(errors_); }
    FILE *errors_ = nullptr;
};

} // namespace

TEST_P(MsgCalls, ACallWritesWithItsOwnTypePrefixAndLayout) {
    const Call &call = GetParam();
    const Outcome outcome = run_apart(errors_, [&call] { call.write("one two three four five six"); });
    const std::string expected = expected_text(call);
    EXPECT_EQ(outcome.out, call.type == MSG_INFO ? expected : "");
    EXPECT_EQ(outcome.err, call.type == MSG_WARNING ? expected : "");
    EXPECT_EQ(contents(errors_), call.type == MSG_ERROR ? expected : "");
    EXPECT_EQ(outcome.status, 0);
}

TEST_P(MsgCalls, WithoutThePrimaryFlagOnlyAPrimaryOnlyCallIsSilent) {
    const Call &call = GetParam();
    const Outcome outcome = run_apart(errors_, [&call] {
        msg_set_primary(0);
        call.write("text");
    });
    const std::string written = outcome.out + outcome.err + contents(errors_);
    EXPECT_EQ(written.empty(), call.primary_only);
    EXPECT_EQ(outcome.status, 0);
}

TEST_P(MsgCalls, AContinuationOfACallHasItsTypeAndLayout) {
    const Call &call = GetParam();
    const Outcome outcome = run_apart(errors_, [&call] {
        call.write("a");
        MSG_CONT("b");
    });
    const std::string mp = call.primary_only ? "" : "m ";
    const std::string indentation(std::string(call.prefix).size(), ' ');
    const std::string first = mp + call.prefix + "a";
    const std::string expected = call.fmt_type == kLine ? first + "\n" + mp + indentation + "b\n" : first + "b";
    EXPECT_EQ(outcome.out, call.type == MSG_INFO ? expected : "");
    EXPECT_EQ(outcome.err, call.type == MSG_WARNING ? expected : "");
    EXPECT_EQ(contents(errors_), call.type == MSG_ERROR ? expected : "");
}

TEST_P(MsgCalls, ACallLeavesErrnoClear) {
    const Call &call = GetParam();
    const Outcome outcome = run_apart(errors_, [&call] {
        errno = ENOENT;
        call.write("one two three four five six");
        exit(errno == 0 ? 0 : 2);
    });
    EXPECT_EQ(outcome.status, 0);
}

INSTANTIATE_TEST_SUITE_P(, MsgCalls, testing::ValuesIn(kCalls),
                         [](const testing::TestParamInfo<Call> &call) { return std::string(call.param.name); });

TEST(MsgCallsDefault, ThePrefixesAreTheBuiltInOnes) {
    const Outcome outcome = run_messages([] {
        msg_print("one");
        msg_warn("two");
        msg_error("three");
        msg_internal_error_ex(0, "four");
    });
    EXPECT_EQ(outcome.out, "one\n");
    EXPECT_EQ(outcome.err, "Warning: two\nError: three\nInternal error: four\n");
}

TEST(MsgCallsDefault, ANullPrefixCountsAsEmpty) {
    const Outcome outcome = run_messages([] {
        msg_print_with_prefix(nullptr, "text");
        MSG_CONT("more");
    });
    EXPECT_EQ(outcome.out, "text\nmore\n");
}

TEST(MsgCallsDefault, TheArgumentsAreFormattedAsByPrintf) {
    const Outcome outcome = run_messages([] { msg_print("%d %s %05.1f %% %c", -7, "text", 2.25, 'z'); });
    EXPECT_EQ(outcome.out, "-7 text 002.2 % z\n");
}
