// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// What the files of the pair unit share.
#ifndef ZEL_COMPONENTS_PLATFORM_PAIR_HANDLE_H
#define ZEL_COMPONENTS_PLATFORM_PAIR_HANDLE_H

#include <components/platform/zel_pair_connection.h>

namespace zel::pair {

// The name of the unit, as assertions print it.
inline constexpr const char *kUnit = "components/platform/zel_pair_connection";

inline constexpr int kNoDescriptor = -1;

// A new handle of that kind with nothing open yet, in storage from malloc. The function is named when there is none.
PairHandle *create_handle(bool parent, int32_t kind, int blocking, const char *function);

// The one descriptor of a pair serves both directions.
void set_descriptor(PairHandle *ph, int fd);

// From now on the process ignores the signal.
void ignore_signal(int signal);

// Whether the companion of a parent's handle is known to have ended: its number may be somebody else's by now.
bool has_known_end(const PairHandle *ph);

// From now on has_known_end is true for this companion of the handle, whose fields stay as they are. Needs no memory.
void remember_end(const PairHandle *ph);

// Forgets what was remembered for the handle.
void forget_ends(const PairHandle *ph);

// platform_kill_and_reap, which also tells whether the process has ended. It may live on when somebody else is
// its parent.
int kill_and_reap(int32_t pid, bool *ended);

} // namespace zel::pair

#endif
