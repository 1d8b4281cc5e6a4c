// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The companion's open: it finds its end in the environment.
#include "pair_support.h"

#include <malloc/zel_malloc.h>
#include <msg/msg.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

using namespace zel::test;

namespace {

constexpr const char *kHybridVariable = "ZEL_TEST_PAIR_HYBRID";
constexpr const char *kWrongType = "Failing to start due to wrong type on linux";

// The handle that a value of the variable gives. Freed where the scope ends, its descriptors left alone.
class Opened {
public:
    explicit Opened(const std::optional<std::string> &value, int ignore_signals = 0, int blocking = 1) : ph(nullptr) {
        const ScopedVariable variable(kPairVariable, value);
        ph = platform_pair_child_open(kPairVariable, ignore_signals, blocking);
    }
    ~Opened() { free(ph); }
    Opened(const Opened &) = delete;
    Opened &operator=(const Opened &) = delete;

    PairHandle *ph;
};

void expect_address(const PairHandle *ph, int32_t pid, int fd) {
    EXPECT_EQ(ph->companion_pid, pid);
    EXPECT_EQ(ph->rx_fd, fd);
    EXPECT_EQ(ph->tx_fd, fd);
    EXPECT_EQ(ph->error_number, 0);
    EXPECT_EQ(ph->error_text, nullptr);
}

void expect_kind(const std::string &value, int32_t kind) {
    SCOPED_TRACE(value);
    const Opened opened(value);
    EXPECT_EQ(opened.ph->kind, kind);
    EXPECT_EQ(opened.ph->hybrid_environment, kind == 13 ? 1 : 0);
    EXPECT_EQ(platform_pair_hybrid_environment(opened.ph), kind == 13 ? 1 : 0);
}

void expect_not_open(const std::optional<std::string> &value, int32_t kind, int32_t error, const char *text) {
    SCOPED_TRACE(value.value_or("unset"));
    const Opened opened(value);
    EXPECT_EQ(opened.ph->kind, kind);
    EXPECT_EQ(opened.ph->error_number, error);
    EXPECT_STREQ(opened.ph->error_text, text);
    EXPECT_EQ(opened.ph->companion_pid, 0);
    EXPECT_EQ(opened.ph->rx_fd, -1);
    EXPECT_EQ(opened.ph->tx_fd, -1);
    EXPECT_EQ(platform_pair_ok(opened.ph), error == 0 ? 1 : 0);
}

void expect_unreadable(const std::string &value) {
    expect_not_open(value, 12, -1, nullptr);
}

void expect_wrong_type(const std::optional<std::string> &value) {
    expect_not_open(value, 0, 0, kWrongType);
}

// The signals whose handling an open changes, in order, to what: "1 ignored ".
std::string signals_changed_by(const std::optional<std::string> &value, int ignore_signals) {
    std::string changed;
    const Interposed recorded(
        hook::sigaction, [&changed](int signal, const struct sigaction *action, struct sigaction *) {
            changed += std::to_string(signal) + (action->sa_handler == SIG_IGN ? " ignored " : " handled ");
            return 0;
        });
    const Opened opened(value, ignore_signals);
    return changed;
}

constexpr const char *kSevenIgnored = "1 ignored 2 ignored 3 ignored 6 ignored 13 ignored 15 ignored 23 ignored ";

} // namespace

TEST(PairChildOpen, ThePlainTagOpensKindTen) {
    const Opened opened("123 7 pid-rtx_fd");
    EXPECT_EQ(opened.ph->kind, 10);
    EXPECT_EQ(opened.ph->hybrid_environment, 0);
    expect_address(opened.ph, 123, 7);
}

TEST(PairChildOpen, TheLocalTagOpensKindTwelve) {
    const Opened opened("123 7 pid-rtx_fd_l");
    EXPECT_EQ(opened.ph->kind, 12);
    EXPECT_EQ(opened.ph->hybrid_environment, 0);
    expect_address(opened.ph, 123, 7);
}

TEST(PairChildOpen, TheHybridTagAloneOpensADescriptorOfKindThirteen) {
    const Opened opened("123 7 pid-rtx_fd_w");
    EXPECT_EQ(opened.ph->kind, 13);
    EXPECT_EQ(opened.ph->hybrid_environment, 1);
    expect_address(opened.ph, 123, 7);
}

TEST(PairChildOpen, TheOtherFieldsHaveTheirInitialValues) {
    const Opened opened("123 7 pid-rtx_fd_l", 0, 9);
    EXPECT_EQ(opened.ph->parent, 0);
    EXPECT_EQ(opened.ph->blocking, 9);
    EXPECT_EQ(opened.ph->child_exit_status, 256);
    EXPECT_EQ(opened.ph->child_term_signal, 0);
    EXPECT_EQ(opened.ph->self, opened.ph);
    EXPECT_EQ(platform_pair_valid(opened.ph), 1);
}

TEST(PairChildOpen, TheFirstKnownTagAnywhereInTheValueDecides) {
    expect_kind("1 2 pid-rtx_fd_l pid-rtx_fd_w", 12);
    expect_kind("1 2 pid-rtx_fd_w pid-rtx_fd_l", 12);
    expect_kind("1 2 pid-rtx_fd pid-rtx_fd_w", 13);
    expect_kind("1 2 pid-rtx_fd pid-rtx_fd_l", 12);
    expect_kind("1 2 xpid-rtx_fdx", 10);
    expect_kind("1 2 pid-rtx_fd_x", 10);
    expect_kind("1 2pid-rtx_fd_large", 12);
}

TEST(PairChildOpen, OnlyTheTwoLeadingNumbersAreRead) {
    for (const char *value : {"  123\t7 pid-rtx_fd", "123   7 8 9 pid-rtx_fd", "+123 +7 pid-rtx_fd", "123 7pid-rtx_fd",
                              "0123 07 pid-rtx_fd"}) {
        SCOPED_TRACE(value);
        const Opened opened(value);
        expect_address(opened.ph, 123, 7);
    }
}

TEST(PairChildOpen, ANegativeNumberIsANumber) {
    const Opened opened("-123 -7 pid-rtx_fd");
    expect_address(opened.ph, -123, -7);
}

TEST(PairChildOpen, LettersInPlaceOfNumbersAreAnError) {
    expect_unreadable("abc pid-rtx_fd_l");
    expect_unreadable("pid-rtx_fd_l");
    expect_unreadable("x 1 2 pid-rtx_fd_l");
}

TEST(PairChildOpen, OneNumberIsTooFew) {
    expect_unreadable("123 pid-rtx_fd_l");
    expect_unreadable("123 x 7 pid-rtx_fd_l");
    expect_unreadable("123,7 pid-rtx_fd_l");
}

TEST(PairChildOpen, ANumberBeyondThirtyTwoBitsIsAnError) {
    expect_unreadable("2147483648 7 pid-rtx_fd_l");
    expect_unreadable("123 -2147483649 pid-rtx_fd_l");
    expect_unreadable("99999999999999999999999 7 pid-rtx_fd_l");
    const Opened largest("2147483647 -2147483648 pid-rtx_fd_l");
    expect_address(largest.ph, INT32_MAX, INT32_MIN);
}

TEST(PairChildOpen, ReadingTheNumbersLeavesErrnoAsItWas) {
    for (const char *value : {"123 7 pid-rtx_fd", "99999999999999999999999 7 pid-rtx_fd", "abc pid-rtx_fd"}) {
        SCOPED_TRACE(value);
        const ScopedVariable variable(kPairVariable, value);
        errno = E2BIG;
        PairHandle *ph = platform_pair_child_open(kPairVariable, 0, 1);
        const int after = errno;
        free(ph);
        EXPECT_EQ(after, E2BIG);
    }
}

TEST(PairChildOpen, AnUnsetVariableIsAHealthyHandleOfTheWrongType) {
    expect_wrong_type(std::nullopt);
}

TEST(PairChildOpen, AValueWithoutATagIsOfTheWrongType) {
    expect_wrong_type("123 7");
    expect_wrong_type("");
    expect_wrong_type("123 7 pid-rtx");
    expect_wrong_type("123 7 PID-RTX_FD_L");
}

TEST(PairChildOpen, TheWrongTypeIsToldBeforeTheHybridVariableIsRead) {
    const ScopedVariable hybrid(kHybridVariable, "1");
    expect_wrong_type(std::nullopt);
    expect_wrong_type("123 7");
}

TEST(PairChildOpen, AnEndOfAPairIsOpened) {
    LocalPair pair;
    EXPECT_EQ(platform_pair_send(pair.ph, "word", 4), 4);
    char text[8] = "";
    EXPECT_EQ(recv(pair.peer, text, sizeof text, 0), 4);
    EXPECT_STREQ(text, "word");
    EXPECT_EQ(platform_pair_companion_pid(pair.ph), getpid());
}

TEST(PairChildOpen, TheModeOfTheDescriptorIsNotTouched) {
    int calls = 0;
    const Interposed counting(hook::fcntl, count_calls(hook::fcntl, calls, 0));
    const Opened blocking("123 7 pid-rtx_fd_l", 0, 1);
    const Opened not_blocking("123 7 pid-rtx_fd_l", 0, 0);
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(not_blocking.ph->blocking, 0);
}

TEST(PairChildOpen, SevenSignalsAreIgnoredInOrder) {
    EXPECT_EQ(signals_changed_by("123 7 pid-rtx_fd_l", 1), kSevenIgnored);
    EXPECT_EQ(signals_changed_by("123 7 pid-rtx_fd", -1), kSevenIgnored);
    EXPECT_EQ(signals_changed_by("123 7 pid-rtx_fd_w", 1), kSevenIgnored);
}

TEST(PairChildOpen, SignalsAreIgnoredBeforeTheValueIsRead) {
    EXPECT_EQ(signals_changed_by("abc pid-rtx_fd_l", 1), kSevenIgnored);
}

TEST(PairChildOpen, SignalsStayAsTheyWereUnlessThatIsAsked) {
    EXPECT_EQ(signals_changed_by("123 7 pid-rtx_fd_l", 0), "");
}

TEST(PairChildOpen, TheWrongTypeChangesNoSignal) {
    EXPECT_EQ(signals_changed_by("123 7", 1), "");
    EXPECT_EQ(signals_changed_by(std::nullopt, 1), "");
}

TEST(PairChildOpen, ACompanionThatIgnoresTheSignalsGoesOnServing) {
    PairHandle *ph = start({.companion = "pair_stubborn"});
    int32_t ready;
    ASSERT_TRUE(receive_value(ph, &ready));
    for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGABRT, SIGPIPE, SIGTERM, SIGURG}) {
        kill(ph->companion_pid, signal);
    }
    EXPECT_TRUE(echoes(ph, 5));
    EXPECT_EQ(finish(ph), kServed);
}

TEST(PairChildOpen, TheNameOfTheHybridVariableStaysAllocated) {
    // The name is the one block of its size.
    std::vector<void *> allocated;
    allocated.reserve(64);
    std::vector<void *> released;
    released.reserve(64);
    const size_t size = strlen(kHybridVariable) + 1;
    PairHandle *ph = nullptr;
    {
        const ScopedVariable variable(kPairVariable, "123 7 pid-rtx_fd_l");
        const Interposed requests(hook::malloc, [&](size_t wanted) {
            void *block = hook::malloc.real(wanted);
            if (wanted == size) {
                allocated.push_back(block);
            }
            return block;
        });
        const Interposed releases(hook::free, [&](void *block) {
            released.push_back(block);
            hook::free.real(block);
        });
        ph = platform_pair_child_open(kPairVariable, 0, 1);
        ph->rx_fd = ph->tx_fd = -1;
        platform_pair_close(ph);
    }
    ASSERT_EQ(allocated.size(), 1u);
    EXPECT_EQ(std::count(released.begin(), released.end(), allocated[0]), 0);
    EXPECT_STREQ(static_cast<char *>(allocated[0]), kHybridVariable);
    EXPECT_EQ(std::count(released.begin(), released.end(), ph), 1);
}

TEST(PairChildOpen, NoMemoryForTheHandleEndsTheProcessWithAnError) {
    const Outcome outcome = run_in_child([] {
        const Interposed failing(hook::malloc, [](size_t size) -> void * {
            return size == sizeof(PairHandle) ? nullptr : hook::malloc.real(size);
        });
        Opened("123 7 pid-rtx_fd_l");
    });
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "Error: platform_pair_child_open: Not enough memory to allocate " +
                               std::to_string(sizeof(PairHandle)) + " bytes.\n");
}

namespace {

// No memory for a text as long as the name of the hybrid variable.
struct NoMemoryForTheName {
    Interposed<void *(size_t)> failing{hook::malloc, [](size_t size) -> void * {
                                           if (size == strlen(kHybridVariable) + 1) {
                                               errno = ENOMEM;
                                               return nullptr;
                                           }
                                           return hook::malloc.real(size);
                                       }};
};

} // namespace

TEST(PairChildOpen, NoMemoryForTheHybridVariablesNameEndsTheProcess) {
    const Outcome outcome = run_in_child([] {
        msg_set_width_limit(0);
        const NoMemoryForTheName no_memory;
        Opened("123 7 pid-rtx_fd_l");
    });
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "Error: platform_pair_child_open (via zel_strdup2): Not enough memory to allocate 21 bytes "
                           "for hybrid variable name.\n");
}

TEST(PairChildOpen, AFailureHandlerThatMakesNothingOfTheNameMeansNotHybrid) {
    const ScopedVariable hybrid(kHybridVariable, "1");
    const ZelMallocFailureHandler before =
        zel_malloc_set_failure_handler([](unsigned long, const char *) -> void * { return nullptr; });
    {
        const NoMemoryForTheName no_memory;
        const Opened opened("123 7 pid-rtx_fd_w");
        EXPECT_EQ(opened.ph->kind, 13);
        expect_address(opened.ph, 123, 7);
    }
    zel_malloc_set_failure_handler(before);
}

TEST(PairChildOpen, WhatAFailureHandlerReturnsIsTheNameOfTheHybridVariable) {
    static char other[] = "ZEL_TEST_OTHER_NAME";
    const ScopedVariable hybrid(kHybridVariable, "0");
    const ScopedVariable asked(other, "1");
    const ZelMallocFailureHandler before =
        zel_malloc_set_failure_handler([](unsigned long, const char *) -> void * { return other; });
    {
        const NoMemoryForTheName no_memory;
        const Interposed refusing(hook::connect, fail_always(hook::connect, ECONNREFUSED, -1));
        const Opened opened("123 7 pid-rtx_fd_w");
        EXPECT_EQ(opened.ph->error_number, ECONNREFUSED) << "a connection to port 7 was tried";
        EXPECT_EQ(opened.ph->rx_fd, -1);
    }
    zel_malloc_set_failure_handler(before);
}
