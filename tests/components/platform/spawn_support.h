// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The support of the tests of platform_pair_spawn and of the calls around it.
#ifndef ZEL_TESTS_COMPONENTS_PLATFORM_SPAWN_SUPPORT_H
#define ZEL_TESTS_COMPONENTS_PLATFORM_SPAWN_SUPPORT_H

#include "pair_support.h"

#include <components/platform/pair_control.h>

namespace zel::test {

// The options of the usual, to be changed by a test.
PlatformPairSpawnOptions usual();

// platform_pair_spawn with the arguments, the program's name among them.
PairHandle *spawn(const std::string &file, std::vector<std::string> arguments,
                  const PlatformPairSpawnOptions *options = nullptr);

// A companion of the tests by its name.
PairHandle *spawn_companion(const std::string &name, const PlatformPairSpawnOptions *options = nullptr);

// The program's standard output, to its end. The program has ended with that status.
std::string said_by(const std::string &file, std::vector<std::string> arguments, PlatformPairSpawnOptions options,
                    int status = 0);
std::string said_by_shell(const std::string &script, const PlatformPairSpawnOptions &options);

// Expects a handle of a start that failed, and closes it.
void expect_failed_start(PairHandle *ph, int error, const char *text = "execvp failed");

// From now on the kernel does not know these calls. For a process of its own, whose children inherit it.
void forget_system_calls(const std::vector<long> &numbers);

// Milliseconds of the monotonic clock.
int64_t milliseconds_now();

} // namespace zel::test

#endif
