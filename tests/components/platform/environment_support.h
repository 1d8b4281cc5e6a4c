// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// What the tests of the environment services share: children with a known environment, a clock that stands still.
#ifndef ZEL_TESTS_COMPONENTS_PLATFORM_ENVIRONMENT_SUPPORT_H
#define ZEL_TESTS_COMPONENTS_PLATFORM_ENVIRONMENT_SUPPORT_H

#include <components/platform/environment.h>
#include <support/child.h>
#include <support/files.h>
#include <support/interpose.h>

#include <functional>
#include <map>
#include <string>

namespace zel::test {

using Variables = std::map<std::string, std::string>;

// Runs the body in a child in which, of the variables that the environment services read, just these are set. The time
// zone is UTC unless TZ is among them.
Outcome run_with(const Variables &variables, const std::function<void()> &body);

// 2006-03-07 14:05:09 UTC, a Tuesday.
inline constexpr time_t kTuesday = 1141740309;
inline constexpr const char *kTuesdayStamp = "060207140509";

// The time, which only a sleep moves on. Each sleep is written to standard output as "sleep SECONDS".
struct StandingClock {
    explicit StandingClock(time_t start = kTuesday) : now(start) {}

    time_t now;
    Interposed<time_t(time_t *)> time{hook::time, [this](time_t *result) {
                                          if (result != nullptr) {
                                              *result = now;
                                          }
                                          return now;
                                      }};
    Interposed<int(clockid_t, timespec *)> clock{hook::clock_gettime, [this](clockid_t, timespec *result) {
                                                     *result = {.tv_sec = now, .tv_nsec = 0};
                                                     return 0;
                                                 }};
    Interposed<unsigned(unsigned)> sleep{hook::sleep, [this](unsigned seconds) {
                                             printf("sleep %u\n", seconds);
                                             now += seconds;
                                             return 0U;
                                         }};
};

// Every file that is opened is written to standard output and then cannot be opened: as "open MODE PATH" when it is
// opened as a stream, as "open PATH" when it is opened as a descriptor.
struct NoFiles {
    Interposed<FILE *(const char *, const char *)> fopen{hook::fopen, [](const char *path, const char *mode) {
                                                             printf("open %s %s\n", mode, path);
                                                             errno = EACCES;
                                                             return static_cast<FILE *>(nullptr);
                                                         }};
    Interposed<int(const char *, int, mode_t)> open{hook::open, [](const char *path, int, mode_t) {
                                                        printf("open %s\n", path);
                                                        errno = EACCES;
                                                        return -1;
                                                    }};
};

// The text that StandingClock and NoFiles write about a diagnostics file of kTuesday: the pause, then the opening.
std::string opening(const std::string &directory, const std::string &name);

} // namespace zel::test

#endif
