// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Writing to the streams of a type, with the failures that drop a stream.
#ifndef ZEL_MSG_INTERNAL_WRITE_H
#define ZEL_MSG_INTERNAL_WRITE_H

#include <msg/msg.h>

namespace zel::msg {

// Where a message goes, and through which calls the library reports its own failures meanwhile.
struct Channel {
    int type;
    bool primary_only;
    const MsgStreamDesc *streams; // of the type; looked up once for all pieces of the message
};

// Writes the text to every stream of the type; a stream that fails is dropped and reported.
void write_streams(const Channel &channel, const char *text);

// Flushes every stream of the type; a stream that fails is dropped and reported.
void flush_streams(const Channel &channel);

// Flushes the stream and forces it to disk.
void force_to_disk(FILE *stream);

} // namespace zel::msg

#endif
