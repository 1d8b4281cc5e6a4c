// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The table of the words of one text: each with the number of times it was met. Its
// memory is bounded; word_count_protocol.h states the limits.
#ifndef ZEL_EXAMPLES_WORD_COUNT_TABLE_H
#define ZEL_EXAMPLES_WORD_COUNT_TABLE_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace word_count {

struct CountedWord {
    std::string_view text;
    uint64_t count = 0; // 0: a free slot
};

struct TextBlock;

// A new table is empty and owns nothing.
struct WordTable {
    CountedWord *slots = nullptr; // a word stands in the slot of its hash or in the next free one
    size_t capacity = 0;          // slots; a power of two, or 0
    size_t words = 0;             // slots that are taken, at most half of them
    size_t text_bytes = 0;        // of all words together
    TextBlock *blocks = nullptr;  // the words' bytes, newest block first
};

// A word to count, with its hash.
struct Word {
    std::string_view text;
    uint32_t hash = 0;
};

// The hash is computed byte by byte, so that whoever looks for the end of a word can
// compute it on the way.
inline constexpr uint32_t kHashStart = 2166136261U;

constexpr uint32_t next_hash(uint32_t hash, char byte) {
    return (hash ^ static_cast<unsigned char>(byte)) * 16777619U;
}

uint32_t hash_of(std::string_view text);

// Counts the words; the table keeps copies. Returns how many of them are in the table: the
// others are new ones that it had no room for.
size_t add_words(WordTable &table, std::span<const Word> words);

// The most frequent words, at most so many of them, the most frequent first; of two
// equally frequent ones the lower in byte order comes first.
std::vector<CountedWord> most_frequent_words(const WordTable &table, size_t limit);

// Releases what the table owns. It is empty afterwards.
void clear_words(WordTable &table);

} // namespace word_count

#endif
