// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Thousands of generated messages, laid out by the library as by the plain reference.
#include "msg_reference.h"
#include "msg_support.h"

#include <cstdint>
#include <random>
#include <vector>

using namespace zel::test;

namespace {

constexpr uint32_t kRuns = 250;
constexpr uint32_t kShares = 10; // tests among which the runs are divided
constexpr size_t kStepsInARun = 24;

struct Step {
    enum Kind { message, cont, set_width, set_mp_prefix, set_primary } kind;
    int type;
    int fmt_type;
    bool flag; // primary-only, or the primary flag
    bool continuation;
    std::string text; // of the message, or the mp prefix
    std::string prefix;
    int32_t width;
};

// Numbers that are the same everywhere: the sequence of the engine is fixed. The
// distributions of the standard library are not.
class Dice {
public:
    explicit Dice(uint32_t seed) : engine_(seed) {}
    size_t below(size_t bound) { return engine_() % bound; }
    bool one_in(size_t bound) { return below(bound) == 0; }

private:
    std::mt19937 engine_;
};

std::string piece_of_text(Dice &dice) {
    switch (dice.below(8)) {
    case 0:
        return std::string(1 + dice.below(4), ' ');
    case 1:
        return dice.one_in(2) ? "\t" : " \t ";
    case 2:
        return dice.one_in(3) ? "\n" : " ";
    case 3:
        return dice.one_in(4) ? std::string(1 + dice.below(120), 'L') : " ";
    case 4:
        return " ";
    default:
        return std::string(1 + dice.below(9), static_cast<char>('a' + dice.below(26)));
    }
}

std::string some_text(Dice &dice) {
    std::string text;
    for (size_t pieces = dice.below(40); pieces > 0; --pieces) {
        text += piece_of_text(dice);
    }
    return text;
}

std::string some_prefix(Dice &dice, size_t longest) {
    std::string prefix;
    for (size_t length = dice.one_in(4) ? 0 : dice.below(longest + 1); length > 0; --length) {
        prefix += static_cast<char>('A' + length % 26);
    }
    return prefix;
}

int32_t some_width(Dice &dice) {
    switch (dice.below(5)) {
    case 0:
        return dice.one_in(2) ? 0 : 1;
    case 1:
        return 78;
    case 2:
        return static_cast<int32_t>(dice.below(200));
    default:
        return static_cast<int32_t>(2 + dice.below(40));
    }
}

Step some_step(Dice &dice) {
    switch (dice.below(10)) {
    case 0:
        return {.kind = Step::set_width,
                .type = 0,
                .fmt_type = 0,
                .flag = false,
                .continuation = false,
                .text = "",
                .prefix = "",
                .width = some_width(dice)};
    case 1:
        return {.kind = dice.one_in(2) ? Step::set_mp_prefix : Step::set_primary,
                .type = 0,
                .fmt_type = 0,
                .flag = !dice.one_in(4),
                .continuation = false,
                .text = some_prefix(dice, 12),
                .prefix = "",
                .width = 0};
    case 2:
    case 3:
    case 4:
        return {.kind = Step::cont,
                .type = 0,
                .fmt_type = 0,
                .flag = false,
                .continuation = true,
                .text = some_text(dice),
                .prefix = "",
                .width = 0};
    default:
        return {.kind = Step::message,
                .type = 1 << dice.below(4),
                .fmt_type = static_cast<int>(dice.below(3)),
                .flag = dice.one_in(4),
                .continuation = dice.one_in(8),
                .text = some_text(dice),
                .prefix = some_prefix(dice, 60),
                .width = 0};
    }
}

// The steps of one run. The first is a message, so that a continuation may follow.
std::vector<Step> some_steps(uint32_t seed) {
    Dice dice(seed);
    std::vector<Step> steps = {{.kind = Step::message,
                                .type = MSG_INFO,
                                .fmt_type = static_cast<int>(seed % 3),
                                .flag = false,
                                .continuation = false,
                                .text = some_text(dice),
                                .prefix = some_prefix(dice, 20),
                                .width = 0}};
    while (steps.size() < kStepsInARun) {
        steps.push_back(some_step(dice));
    }
    return steps;
}

void take(const Step &step) {
    switch (step.kind) {
    case Step::message:
        output(step.type, step.fmt_type, step.flag ? 1 : 0, step.continuation ? 1 : 0, step.prefix.c_str(), "%s",
               step.text.c_str());
        return;
    case Step::cont:
        MSG_CONT("%s", step.text.c_str());
        return;
    case Step::set_width:
        msg_set_width_limit(step.width);
        return;
    case Step::set_mp_prefix:
        msg_set_mp_prefix(step.text.c_str());
        return;
    case Step::set_primary:
        msg_set_primary(step.flag ? 1 : 0);
        return;
    }
}

void take(const Step &step, MsgReference &reference) {
    switch (step.kind) {
    case Step::message:
        reference.message(step.type, step.fmt_type, step.flag, step.continuation, step.prefix, step.text);
        return;
    case Step::cont:
        reference.cont(step.text);
        return;
    case Step::set_width:
        reference.width = step.width;
        return;
    case Step::set_mp_prefix:
        reference.mp_prefix = step.text;
        return;
    case Step::set_primary:
        reference.primary = step.flag;
        return;
    }
}

uint32_t seed_of(uint32_t run) {
    return 20000 + run;
}

class MsgReferenceRuns : public testing::TestWithParam<uint32_t> {};

} // namespace

TEST(MsgReferenceItself, LaysOutTheKnownExamples) {
    MsgReference reference;
    reference.width = 20;
    reference.message(1, 2, false, false, "ab: ", "one two three four five six");
    reference.cont("on");
    EXPECT_EQ(reference.out, "ab: one two three\n    four five six\n    on\n");
    reference.mp_prefix = "[3] ";
    reference.message(8, 1, false, false, "Error: ", "one\ntwo");
    reference.cont(" three");
    EXPECT_EQ(reference.err, "[3] Error: one\n[3]        two three");
}

TEST(MsgReferenceItself, TheGeneratedStepsHoldEverySituation) {
    int messages = 0;
    int long_prefixes = 0;
    int prefixes_beyond_the_width = 0;
    int chains = 0;
    for (uint32_t run = 0; run < kRuns; ++run) {
        const std::vector<Step> steps = some_steps(seed_of(run));
        int32_t width = 78;
        int chain = 0;
        for (const Step &step : steps) {
            const auto length = static_cast<int32_t>(step.prefix.size());
            width = step.kind == Step::set_width ? step.width : width;
            chain = step.kind == Step::cont ? chain + 1 : 0;
            messages += step.kind == Step::message || step.kind == Step::cont ? 1 : 0;
            long_prefixes += length > 49 ? 1 : 0;
            prefixes_beyond_the_width += width > 0 && length > width && step.fmt_type != MSG_FMT_RAW ? 1 : 0;
            chains += chain == 3 ? 1 : 0;
        }
    }
    EXPECT_GT(messages, 4000);
    EXPECT_GT(long_prefixes, 200);
    EXPECT_GT(prefixes_beyond_the_width, 200);
    EXPECT_GT(chains, 50);
}

TEST_P(MsgReferenceRuns, TheLibraryLaysOutGeneratedMessagesLikeTheReference) {
    for (uint32_t run = GetParam(); run < kRuns; run += kShares) {
        const std::vector<Step> steps = some_steps(seed_of(run));
        MsgReference reference;
        for (const Step &step : steps) {
            take(step, reference);
        }
        const Outcome outcome = run_messages([&steps] {
            for (const Step &step : steps) {
                take(step);
            }
        });
        ASSERT_EQ(outcome.out, reference.out) << "run " << run;
        ASSERT_EQ(outcome.err, reference.err) << "run " << run;
        ASSERT_EQ(outcome.status, 0) << "run " << run;
    }
}

INSTANTIATE_TEST_SUITE_P(, MsgReferenceRuns, testing::Range(0U, kShares));
