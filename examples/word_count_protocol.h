// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The messages and values between word_count and its companion, and the transfers that
// both use.
//
// Requests and answers are framed messages, for the message loop; the text itself goes as
// fixed-size integers and plain bytes, for platform_pair_send and platform_pair_recv:
//
//   parent     count = "count" CR LF name CR LF CR LF                 a request
//   companion  ready = int32 1
//   parent     text  = *chunk last                                    chunk = int32 length, then as many bytes
//                                                                     last  = int32 0, or int32 -1: broken off
//   companion  answer = first *10word CR LF                           none when the text was broken off
//                first  = "counted " lines " " words " " bytes [left-out] CR LF
//                left-out = " " too-long " " no-room               only if words were left out of the list: those that
//                                                                  are too long, and new ones in a full table
//                word   = count " " visible-word CR LF                the most frequent word first
//   parent     quit  = "quit" CR LF CR LF                             the companion ends
//
// Why the companion says that it is ready: the message loop takes whatever has arrived,
// up to 8192 bytes at a time. Bytes of the text sent right after the request would be
// taken for messages. So the parent holds the text back until the request has been read.
// For the same reason it sends no request before it has the answer to the one before.
//
// Integers are in the byte order of the machine, which both processes run on.
#ifndef ZEL_EXAMPLES_WORD_COUNT_PROTOCOL_H
#define ZEL_EXAMPLES_WORD_COUNT_PROTOCOL_H

#include <components/platform/zel_pair_connection.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace word_count {

// The variable that carries the companion's end of the pair, and the one that says
// whether it is a TCP connection.
inline constexpr const char *kPairName = "WORD_COUNT_PAIR";
inline constexpr const char *kHybridName = "WORD_COUNT_PAIR_HYBRID";

inline constexpr const char *kCount = "count";
inline constexpr const char *kQuit = "quit";
inline constexpr const char *kCounted = "counted";

inline constexpr int32_t kReady = 1;
inline constexpr int32_t kEndOfText = 0;
inline constexpr int32_t kBrokenOff = -1;
inline constexpr int32_t kChunkSize = 65536; // the longest chunk, in bytes

// Capacity of either side's message buffer: far more than the longest name or answer, and
// the 8192 bytes that may follow.
inline constexpr int32_t kMessageRoom = 65536;

// What the companion lists: words up to this length; of a text so many different ones, with
// so many bytes in all. The others it counts and leaves out of the list.
inline constexpr size_t kLongestWord = 65536;
inline constexpr size_t kMostWords = 1000000;
inline constexpr size_t kMostWordBytes = 32 << 20;

// Longest name or word in a message, in visible characters.
inline constexpr size_t kVisibleName = 4096;
inline constexpr size_t kVisibleWord = 40;

// Transfers of exactly that many bytes, in as many pieces as it takes. False when the
// other side is gone.
bool send_whole(PairHandle *pair, const void *data, int32_t length);
bool receive_whole(PairHandle *pair, void *data, int32_t length);

bool send_value(PairHandle *pair, int32_t value);
bool receive_value(PairHandle *pair, int32_t &value);

// Whether a text can be a line of a message. CR LF would end the line, and NUL ends it
// for the receiver. An empty further line would be the end of the message.
bool can_be_first_line(std::string_view text);
bool can_be_further_line(std::string_view text);

// Sends one whole message. platform_send_message would end at a signal and not tell how
// much has gone. False when the other side is gone, or when a text cannot be a line.
bool send_message(PairHandle *pair, const std::vector<std::string> &lines);

// The bytes as printable ASCII, so that they fit on one line of a message: a backslash is
// doubled, and every byte outside the blank to the tilde is \xNN. A result longer than
// the limit is cut between two bytes and ends in "...".
std::string visible(std::string_view bytes, size_t limit);

} // namespace word_count

#endif
