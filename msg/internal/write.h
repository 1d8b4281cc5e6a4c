// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Writing to the streams of a type.
#ifndef ZEL_MSG_INTERNAL_WRITE_H
#define ZEL_MSG_INTERNAL_WRITE_H

#include <msg/msg.h>

namespace zel::msg {

// The streams of a message, and how the library reports failures within it.
struct Channel {
    int type;
    bool primary_only;
    const MsgStreamDesc *streams; // of the type; looked up once for a message
};

// Writes the text to every stream of the type. A stream that fails is dropped and
// reported.
void write_streams(const Channel &channel, const char *text);

// Flushes every stream of the type. A stream that fails is dropped and reported.
void flush_streams(const Channel &channel);

// Flushes the stream and forces it to disk.
void force_to_disk(FILE *stream);

} // namespace zel::msg

#endif
