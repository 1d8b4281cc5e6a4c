// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The declarations that the files of the pair unit share.
#ifndef ZEL_COMPONENTS_PLATFORM_PAIR_HANDLE_H
#define ZEL_COMPONENTS_PLATFORM_PAIR_HANDLE_H

#include <components/platform/zel_pair_connection.h>

namespace zel::pair {

// The name of the unit, as assertions print it.
inline constexpr const char *kUnit = "components/platform/zel_pair_connection";

inline constexpr int kNoDescriptor = -1;

// Creates a handle of that kind with nothing open, in storage from malloc. Without memory
// the process ends with an error that names the function.
PairHandle *create_handle(bool parent, int32_t kind, int blocking, const char *function);

// Sets the one descriptor, which serves both directions.
void set_descriptor(PairHandle *ph, int fd);

// Makes the process ignore the signal from now on.
void ignore_signal(int signal);

// Whether the companion of a parent's handle is known to have ended. Its number may
// belong to another process then.
bool has_known_end(const PairHandle *ph);

// Notes that the companion of the handle has ended. The fields of the handle stay as they
// are. No memory is needed.
void remember_end(const PairHandle *ph);

// Forgets what was remembered for the handle.
void forget_ends(const PairHandle *ph);

// Does the same as platform_kill_and_reap, and tells whether the process has ended. A
// process that is not a child of the caller may live on.
int kill_and_reap(int32_t pid, bool *ended);

} // namespace zel::pair

#endif
