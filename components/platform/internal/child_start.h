// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// What happens around fork and between fork and exec: one small step each.
#ifndef ZEL_COMPONENTS_PLATFORM_INTERNAL_CHILD_START_H
#define ZEL_COMPONENTS_PLATFORM_INTERNAL_CHILD_START_H

#include <cstdint>

namespace zel {

// fork, with the output streams flushed first: a child that leaves by exit prints nothing twice. errno is kept but for
// that of a fork that failed.
int32_t fork_flushed();

// In the child: makes the three descriptors its standard input, output and error, each closed after its last use.
void redirect_standard(const int descriptors[3]);

// In the child: makes /dev/null its standard input, output and error.
void redirect_standard_to_null();

// In the child: ends it by exit, its parent's exit handlers included. exit puts a partly read input stream back to what
// was read, and the position belongs to the parent as well: whatever can be read from and has a position becomes
// /dev/null first, or is closed where /dev/null cannot be opened.
[[noreturn]] void exit_beside_parent(int status);

} // namespace zel

#endif
