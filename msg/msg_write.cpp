// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Writing a piece to the streams of a type, and dropping a stream that fails.
#include <msg/internal/write.h>
#include <msg/msg.h>

#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace {

// Drops a stream that failed and reports it in the middle of the failing message.
// DELIBERATE: the dropped stream is flushed before errno is read.
// Test: MsgFailingStream.TheErrorIsLookedAtAfterTheDroppedStreamWasFlushed.
// DELIBERATE: the texts are fixed. Tests: MsgFailingStream.EachTypeIsNamedInItsReport and
// MsgFailingStream.AFailureWithoutAnErrorIsAnEndOfFile.
void drop_stream(const zel::msg::Channel &channel, FILE *stream, const char *operation) {
    msg_remove_stream(channel.type, stream);
    fflush(stream);
    const int error = errno;
    const auto warn = channel.primary_only ? msg_primary_warn : msg_warn;
    const char *name = msg_type_name(channel.type);
    if (error == 0) {
        warn("EOF error during %s of %s message.  This stream will no longer be used.", operation, name);
        return;
    }
    warn("Error during %s of %s message.  This stream will no longer be used.", operation, name);
    MSG_CONT("Stream error was: %s", strerror(error));
}

// DELIBERATE: the stream that moves into the place of a dropped one misses this piece:
// the list closes up, and the walk goes on with the next index. Test:
// MsgFailingStream.TheStreamBehindAFailedOneMissesThatOnePiece.
template <typename Operation>
void for_each_stream(const zel::msg::Channel &channel, const char *word, Operation succeeds) {
    for (int32_t index = 0; index < channel.streams->count; ++index) {
        FILE *stream = channel.streams->streams[index];
        if (!succeeds(stream)) {
            drop_stream(channel, stream, word);
        }
    }
}

} // namespace

namespace zel::msg {

void write_streams(const Channel &channel, const char *text) {
    for_each_stream(channel, "output", [text](FILE *stream) { return fputs(text, stream) >= 0; });
}

void flush_streams(const Channel &channel) {
    for_each_stream(channel, "flush", [](FILE *stream) { return fflush(stream) == 0; });
}

void force_to_disk(FILE *stream) {
    fflush(stream);
    fsync(fileno(stream));
}

} // namespace zel::msg
