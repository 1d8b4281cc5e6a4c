// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Writing the pieces of a message to the streams of a type.
#ifndef ZEL_MSG_INTERNAL_WRITE_H
#define ZEL_MSG_INTERNAL_WRITE_H

#include <msg/base/limits.h>
#include <msg/msg.h>

#include <array>
#include <cstring>
#include <string_view>

#pragma GCC visibility push(hidden)

namespace zel::msg {

// Pieces that the one stream of a type has not got yet. It takes them all into its buffer
// without a system call, and nothing of the program runs meanwhile: one write leaves the
// stream as a write of each piece would.
struct Gathered {
    size_t used;
    size_t room; // a shorter piece may join; 0: nothing is gathered
    std::array<char, kGatheredSize> text;
};

// The streams of a message, and how the library reports failures within it.
struct Channel {
    int type;
    bool primary_only;
    const MsgStreamDesc *streams; // of the type; looked up once for a message
    Gathered *gathered;           // of the message
};

// Called before the first piece of a message.
void start_gathering(const Channel &channel);

// Gives the stream what was gathered. Called before anything of the program may run, and
// behind the last piece of a message.
void hand_over(const Channel &channel);

// Writes a piece that cannot be gathered. Each stream gets it by itself.
void write_through(const Channel &channel, const char *piece);

// Writes the piece to every stream of the type. A NUL must follow it. A stream that fails
// is dropped and reported.
inline void write_streams(const Channel &channel, std::string_view piece) {
    Gathered &gathered = *channel.gathered;
    if (piece.size() >= gathered.room) {
        write_through(channel, piece.data());
        return;
    }
    if (!piece.empty()) {
        memcpy(gathered.text.data() + gathered.used, piece.data(), piece.size());
        gathered.used += piece.size();
        gathered.room -= piece.size();
    }
}

// Flushes every stream of the type. A stream that fails is dropped and reported.
void flush_streams(const Channel &channel);

// Flushes the stream and forces it to disk.
void force_to_disk(FILE *stream);

} // namespace zel::msg

#pragma GCC visibility pop

#endif
