// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// What happens around fork and between fork and exec: one small step each.
#ifndef ZEL_COMPONENTS_PLATFORM_BASE_CHILD_START_H
#define ZEL_COMPONENTS_PLATFORM_BASE_CHILD_START_H

#include <array>
#include <cstdint>

namespace zel {

// What a child is to have as its standard input, output and error: descriptors of its parent.
using Standards = std::array<int, 3>;

// In the parent, before it opens anything for the child: the three descriptors. One that is not open gives way to the
// parent's own. errno is kept.
Standards choose_standards(const int descriptors[3]);

// fork, with the output streams flushed first: a child that leaves by exit prints nothing twice. A stream that nobody
// reads raises no SIGPIPE then. errno is kept but for that of a fork that failed.
int32_t fork_flushed();

// In the child: makes the three its standard input, output and error, each closed after its last use. Returns whether
// each stands in its place.
bool redirect_standard(const Standards &standards);

// In the child: makes /dev/null its standard input, output and error. Returns whether it stands in each place.
bool redirect_standard_to_null();

// In the child: ends it by exit, its parent's exit handlers included. exit puts a partly read input stream back to what
// was read, and the position belongs to the parent as well: whatever can be read from and has a position becomes
// /dev/null first, or is closed where /dev/null cannot be opened.
[[noreturn]] void exit_beside_parent(int status);

} // namespace zel

#endif
