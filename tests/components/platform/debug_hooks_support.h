// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// What the tests of the start-up hook share: argument vectors that it may change, sleeps that take no time.
#ifndef ZEL_TESTS_COMPONENTS_PLATFORM_DEBUG_HOOKS_SUPPORT_H
#define ZEL_TESTS_COMPONENTS_PLATFORM_DEBUG_HOOKS_SUPPORT_H

#include <components/platform/debug_hooks.h>
#include <support/child.h>
#include <support/files.h>
#include <support/interpose.h>

#include <functional>
#include <string>
#include <vector>

namespace zel::test {

// An argument vector that the hook may change, and the count that goes with it.
struct Arguments {
    explicit Arguments(std::vector<std::string> words);
    std::vector<std::string> texts;
    std::vector<char *> argv;
    int32_t argc = 0;
};

// A sleep that takes no time: the clock moves on by what was asked for.
struct FakeClock {
    std::vector<unsigned> sleeps;
    Interposed<unsigned(unsigned)> sleeping{hook::sleep, [this](unsigned seconds) {
                                                sleeps.push_back(seconds);
                                                now += seconds;
                                                return 0U;
                                            }};
    Interposed<int(clockid_t, timespec *)> clock{hook::clock_gettime, [this](clockid_t, timespec *time) {
                                                     *time = {.tv_sec = now, .tv_nsec = 0};
                                                     return 0;
                                                 }};
    time_t now = 1000;
};

// Calls the hook with these arguments.
void call_hook(const std::vector<std::string> &words);

// The same, and prints what is left of them, and the variable.
void hook_and_print(const std::vector<std::string> &words);

// hook_and_print in a child where ZEL_DEBUG and SHELL are as given here, or unset.
Outcome run_hook(const std::vector<std::string> &words, const char *variable = nullptr, const char *shell = nullptr);

// Carries out a request of a program without arguments of its own.
void carry_out(const std::string &request);

// A shell command that prints the four variables, one on a line, each in brackets.
inline constexpr const char *kPrintVariables =
    "printf '[%s]\\n' \"$ZEL_DEBUG_PROMPT\" \"$ZEL_EXE\" \"$ZEL_EXE_PARMS\" \"$ZEL_DEBUG\"";

// An executable shell script; returns its path.
std::string script(const ScratchFolder &folder, const std::string &name, const std::string &body);

// In a child: makes standard error keep what is written until it is flushed.
void hold_back_errors();

// In a child: how many bytes stand in its standard error.
long errors_written();

} // namespace zel::test

#endif
