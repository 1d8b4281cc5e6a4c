// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The companion of word_count: counts the lines, words and bytes of the texts that its
// parent sends, and their most frequent words. word_count_protocol.h says how the two
// talk.
//
// A line is what a newline ends. A word is a run of bytes without ASCII white space
// (blank, tab, newline, vertical tab, form feed, carriage return). Words are compared
// byte for byte; of two equally frequent ones the lower in byte order comes first.
//
// Exit status: 0 after "quit"; 1 when the pair could not be opened, the parent went away,
// or a request was not understood.
#include "word_count_protocol.h"

#include <components/platform/debug_hooks.h>
#include <components/platform/socket.h>
#include <components/platform/zel_pair_connection.h>
#include <msg/msg.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace {

using namespace word_count;

constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";
constexpr size_t kMostFrequent = 10;

// The state of the companion. The handler of the message loop gets no argument of ours,
// so it is process-wide.
struct Service {
    PairHandle *pair; // our end
    bool quit;        // the parent said that it is done
};

constinit Service service = {};

// ---- Counting -----------------------------------------------------------------------------------------------------

using Frequency = std::pair<const std::string, uint64_t>;

struct Counts {
    uint64_t lines = 0;
    uint64_t words = 0;
    uint64_t bytes = 0;
    std::string word; // the word at the end of what was counted so far; it may go on in the next chunk
    std::unordered_map<std::string, uint64_t> frequencies;
};

void end_word(Counts &counts) {
    if (counts.word.empty()) {
        return;
    }
    ++counts.words;
    ++counts.frequencies[counts.word];
    counts.word.clear();
}

void add_chunk(Counts &counts, std::string_view chunk) {
    counts.bytes += chunk.size();
    counts.lines += static_cast<uint64_t>(std::count(chunk.begin(), chunk.end(), '\n'));
    size_t start = 0;
    for (size_t end = chunk.find_first_of(kWhiteSpace); end != std::string_view::npos;
         end = chunk.find_first_of(kWhiteSpace, start)) {
        counts.word.append(chunk.substr(start, end - start));
        end_word(counts);
        start = end + 1;
    }
    counts.word.append(chunk.substr(start));
}

bool comes_before(const Frequency *a, const Frequency *b) {
    return a->second != b->second ? a->second > b->second : a->first < b->first;
}

std::vector<const Frequency *> most_frequent(const Counts &counts) {
    std::vector<const Frequency *> words;
    words.reserve(counts.frequencies.size());
    for (const Frequency &entry : counts.frequencies) {
        words.push_back(&entry);
    }
    const size_t kept = std::min(words.size(), kMostFrequent);
    std::partial_sort(words.begin(), words.begin() + static_cast<std::ptrdiff_t>(kept), words.end(), comes_before);
    words.resize(kept);
    return words;
}

// ---- Talking to the parent ----------------------------------------------------------------------------------------

enum class Received { whole, broken_off, stream_ended };

// Takes the chunks of one text, up to the value that ends it.
Received receive_text(PairHandle *pair, Counts &counts) {
    std::array<char, kChunkSize> chunk;
    int32_t length;
    while (receive_value(pair, length)) {
        if (length == kEndOfText) {
            end_word(counts);
            return Received::whole;
        }
        if (length < 0) {
            return Received::broken_off;
        }
        if (length > kChunkSize || !receive_whole(pair, chunk.data(), length)) {
            break;
        }
        add_chunk(counts, {chunk.data(), static_cast<size_t>(length)});
    }
    return Received::stream_ended;
}

bool send_answer(PairHandle *pair, const Counts &counts) {
    std::vector<std::string> lines = {std::string(kCounted) + " " + std::to_string(counts.lines) + " " +
                                      std::to_string(counts.words) + " " + std::to_string(counts.bytes)};
    for (const Frequency *entry : most_frequent(counts)) {
        lines.push_back(std::to_string(entry->second) + " " + visible(entry->first, kVisibleWord));
    }
    return send_message(pair, lines);
}

// Serves one "count". False when the stream is of no more use.
bool count_text(PairHandle *pair) {
    Counts counts;
    if (!send_value(pair, kReady)) {
        return false;
    }
    switch (receive_text(pair, counts)) {
    case Received::whole:
        return send_answer(pair, counts);
    case Received::broken_off:
        return true;
    case Received::stream_ended:
        break;
    }
    return false;
}

// The handler of the message loop: 1 goes on, 0 ends the loop. It may read values from
// the socket: the parent sends no other data until it has the answer.
int on_request(int /*socket*/, char *first_line, char **lines) {
    if (strcmp(first_line, kQuit) == 0) {
        service.quit = true;
        return 0;
    }
    if (strcmp(first_line, kCount) == 0 && lines[0] != nullptr) {
        return count_text(service.pair) ? 1 : 0;
    }
    msg_fatal("The request \"%s\" is not understood.", visible(first_line, kVisibleWord).c_str());
}

// The first step of every companion. It tests the error number and the text: an unset
// variable leaves the error number at 0.
PairHandle *open_pair() {
    PairHandle *pair = platform_pair_child_open(kPairName, 0, 1);
    if (!platform_pair_ok(pair)) {
        msg_fatal("Cannot open the pair: %s (%d)", platform_pair_errstr(pair), platform_pair_errno(pair));
    }
    if (pair->error_text != nullptr) {
        msg_fatal("Cannot open the pair: %s", pair->error_text);
    }
    return pair;
}

} // namespace

// The debug hook comes first, so that a request can stop this process before it does
// anything. The parent hands a request on with its option --debug.
int main(int argc, char **argv) {
    platform_debug_hooks(&argc, argv);
    msg_set_mp_prefix("word_count_companion: "); // our lines and the parent's may go to the same terminal
    service.pair = open_pair();
    MsgBuf *buffer = platform_msgbuf_create(kMessageRoom);
    platform_msgbuf_set(buffer);
    platform_message_loop(platform_pair_rx_fd(service.pair), on_request, nullptr, 0);
    platform_msgbuf_set(nullptr);
    platform_msgbuf_free(buffer);
    platform_pair_close(service.pair);
    if (!service.quit) {
        msg_fatal("The parent went away before it was done.");
    }
    return 0;
}
