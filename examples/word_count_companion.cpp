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
#include "word_count_table.h"

#include <components/platform/debug_hooks.h>
#include <components/platform/socket.h>
#include <components/platform/zel_pair_connection.h>
#include <msg/msg.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace word_count;

constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";
constexpr size_t kMostFrequent = 10;
constexpr size_t kBatch = 64; // words that are looked up together

// The state of the companion. The handler of the message loop gets no argument of ours,
// so it is process-wide.
struct Service {
    PairHandle *pair; // our end
    bool quit;        // the parent said that it is done
};

constinit Service service = {};

// ---- Counting -----------------------------------------------------------------------------------------------------

constexpr std::array<bool, 256> kIsWhite = [] {
    std::array<bool, 256> white = {};
    for (const char byte : kWhiteSpace) {
        white[static_cast<unsigned char>(byte)] = true;
    }
    return white;
}();

bool is_white(char byte) {
    return kIsWhite[static_cast<unsigned char>(byte)];
}

struct Counts {
    uint64_t lines = 0;
    uint64_t words = 0;
    uint64_t bytes = 0;
    uint64_t too_long = 0; // words of more than kLongestWord bytes
    uint64_t no_room = 0;  // words that the full table did not take
    WordTable table;
    std::string open_word; // the word at the end of what was counted so far; it may go on in the next chunk
};

void count_words(Counts &counts, std::span<const Word> words) {
    counts.words += words.size();
    counts.no_room += words.size() - add_words(counts.table, words);
}

// Takes the word at this place, which white space ends.
Word take_word(const char *&place) {
    const char *start = place;
    uint32_t hash = kHashStart;
    for (; !is_white(*place); ++place) {
        hash = next_hash(hash, *place);
    }
    return {.text = {start, static_cast<size_t>(place - start)}, .hash = hash};
}

// Counts a piece that is empty or ends in white space.
void add_closed_piece(Counts &counts, std::string_view piece) {
    std::array<Word, kBatch> batch;
    size_t taken = 0;
    for (const char *place = piece.begin(); place != piece.end();) {
        if (is_white(*place)) {
            counts.lines += *place == '\n' ? 1 : 0;
            ++place;
            continue;
        }
        batch[taken++] = take_word(place);
        if (taken == batch.size()) {
            count_words(counts, batch);
            taken = 0;
        }
    }
    count_words(counts, {batch.data(), taken});
}

// Of a word that is too long one byte more than the limit is kept, by which it is known.
void keep_open_word(Counts &counts, std::string_view part) {
    counts.open_word.append(part.substr(0, kLongestWord + 1 - counts.open_word.size()));
}

void end_open_word(Counts &counts) {
    const Word word = {.text = counts.open_word, .hash = hash_of(counts.open_word)};
    if (word.text.size() > kLongestWord) {
        ++counts.words;
        ++counts.too_long;
    } else if (!word.text.empty()) {
        count_words(counts, {&word, 1});
    }
    counts.open_word.clear();
}

// The chunk goes on with the open word, then come closed words, then the next open one.
void add_chunk(Counts &counts, std::string_view chunk) {
    counts.bytes += chunk.size();
    const auto first_white = std::find_if(chunk.begin(), chunk.end(), is_white);
    keep_open_word(counts, {chunk.begin(), first_white});
    if (first_white == chunk.end()) {
        return;
    }
    end_open_word(counts);
    const auto behind_white = std::find_if(chunk.rbegin(), chunk.rend(), is_white).base();
    add_closed_piece(counts, {first_white, behind_white});
    keep_open_word(counts, {behind_white, chunk.end()});
}

// ---- Talking to the parent ----------------------------------------------------------------------------------------

enum class Received { whole, broken_off, stream_ended };

// Takes the chunks of one text, up to the value that ends it.
Received receive_text(PairHandle *pair, Counts &counts) {
    std::array<char, kChunkSize> chunk;
    int32_t length;
    while (receive_value(pair, length)) {
        if (length == kEndOfText) {
            end_open_word(counts);
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

std::string first_line_of(const Counts &counts) {
    std::vector<uint64_t> numbers = {counts.lines, counts.words, counts.bytes};
    if (counts.too_long != 0 || counts.no_room != 0) {
        numbers.insert(numbers.end(), {counts.too_long, counts.no_room});
    }
    std::string line = kCounted;
    for (const uint64_t number : numbers) {
        line += ' ';
        line += std::to_string(number);
    }
    return line;
}

bool send_answer(PairHandle *pair, const Counts &counts) {
    std::vector<std::string> lines = {first_line_of(counts)};
    for (const CountedWord &word : most_frequent_words(counts.table, kMostFrequent)) {
        lines.push_back(std::to_string(word.count) + " " + visible(word.text, kVisibleWord));
    }
    return send_message(pair, lines);
}

// False when the stream is of no more use.
bool serve_text(PairHandle *pair, Counts &counts) {
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

// Serves one "count".
bool count_text(PairHandle *pair) {
    Counts counts;
    const bool served = serve_text(pair, counts);
    clear_words(counts.table);
    return served;
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
