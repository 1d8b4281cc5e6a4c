// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Writing a piece to the streams of a type, and dropping a stream that fails.
#include <msg/internal/rotating.h>
#include <msg/internal/write.h>
#include <msg/msg.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <cwchar>
#include <stdio_ext.h>
#include <sys/single_threaded.h>
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

// For a smaller buffer the C library divides texts in another way.
constexpr size_t kLeastBuffer = 128;

// Returns how many characters the stream takes into its buffer without a system call, if
// that can be told, else 0. A stream that is also read may begin in the middle of its
// buffer. A stream of wide characters takes no text, and one that is still for both is
// settled by its first piece.
size_t room_of(FILE *stream) {
    const size_t size = __fbufsize(stream);
    if (size < kLeastBuffer || __flbf(stream) != 0 || __freadable(stream) != 0 || fwide(stream, 0) >= 0) {
        return 0;
    }
    return size - __fpending(stream);
}

// Returns how many characters can be gathered. Another thread could fill the buffer
// meanwhile.
size_t room_to_gather(const MsgStreamDesc &streams) {
    if (streams.count != 1 || __libc_single_threaded == 0) {
        return 0;
    }
    return std::min(room_of(streams.streams[0]), zel::kGatheredSize);
}

} // namespace

namespace zel::msg {

void start_gathering(const Channel &channel) {
    channel.gathered->used = 0;
    channel.gathered->room = room_to_gather(*channel.streams);
}

void hand_over(const Channel &channel) {
    Gathered &gathered = *channel.gathered;
    const size_t length = gathered.used;
    gathered.used = 0;
    gathered.room = 0;
    if (length == 0) {
        return;
    }
    FILE *stream = channel.streams->streams[0];
    if (fwrite_unlocked(gathered.text.data(), 1, length, stream) != length) {
        drop_stream(channel, stream, "output");
    }
}

// fputs: fwrite reports success when the flush of a line-buffered stream failed.
void write_through(const Channel &channel, const char *piece) {
    hand_over(channel);
    for_each_stream(channel, "output", [piece](FILE *stream) { return fputs(piece, stream) >= 0; });
    start_gathering(channel);
}

void flush_streams(const Channel &channel) {
    hand_over(channel);
    for_each_stream(channel, "flush", [](FILE *stream) { return fflush(stream) == 0; });
}

void force_to_disk(FILE *stream) {
    fflush(stream);
    const int fd = fileno(stream);
    fsync(fd == -1 ? rotating_descriptor(stream) : fd);
}

} // namespace zel::msg
