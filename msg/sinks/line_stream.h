// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A stream that hands over whole lines.
#ifndef ZEL_MSG_SINKS_LINE_STREAM_H
#define ZEL_MSG_SINKS_LINE_STREAM_H

#include <msg/sinks.h>

#pragma GCC visibility push(hidden)

namespace zel::msg {

// Opens a stream that hands each line to the function. release: called with user when the
// stream is closed, or null. Returns null with errno; user stays the caller's then.
FILE *open_line_stream(MsgSinkFunction take, void *user, void (*release)(void *user));

} // namespace zel::msg

#pragma GCC visibility pop

#endif
