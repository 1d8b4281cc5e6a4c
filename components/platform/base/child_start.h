// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The steps around fork and between fork and exec.
#ifndef ZEL_COMPONENTS_PLATFORM_BASE_CHILD_START_H
#define ZEL_COMPONENTS_PLATFORM_BASE_CHILD_START_H

#include <array>
#include <cstdint>

namespace zel {

// The descriptors of the parent that become a child's standard input, output and error.
using Standards = std::array<int, 3>;

// In the parent, before it opens anything for the child: returns the three descriptors.
// One that is not open becomes the parent's own of its place. errno is kept.
Standards choose_standards(const int descriptors[3]);

// Flushes the output streams before a child is started. Flushing a stream that nobody
// reads raises no SIGPIPE. errno is kept.
void flush_output();

// fork, with the output streams flushed first: a child that leaves by exit prints nothing
// twice. errno is kept, unless the fork fails.
int32_t fork_flushed();

// In the child: makes the descriptors its standard input, output and error. Closes each
// after its last use. Returns whether each stands in its place.
bool redirect_standard(const Standards &standards);

// In the child: makes /dev/null its standard input, output and error. Returns whether it
// stands in each place.
bool redirect_standard_to_null();

// In the child: ends it by exit, with the exit handlers of its parent. exit would move
// the position of a partly read input stream, which the parent shares. So every
// descriptor that can be read from and has a position becomes /dev/null first. It is
// closed where /dev/null cannot be opened.
[[noreturn]] void exit_beside_parent(int status);

} // namespace zel

#endif
