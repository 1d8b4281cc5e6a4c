// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The file behind a stream of limited size.
#ifndef ZEL_MSG_INTERNAL_ROTATING_H
#define ZEL_MSG_INTERNAL_ROTATING_H

#include <cstdio>

#pragma GCC visibility push(hidden)

namespace zel::msg {

// Returns the descriptor to which the stream of msg_open_rotating_file writes now, or -1
// for any other stream.
int rotating_descriptor(const FILE *stream);

} // namespace zel::msg

#pragma GCC visibility pop

#endif
