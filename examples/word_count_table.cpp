// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The table of words: open addressing, with the bytes of the words in large blocks.
#include "word_count_table.h"

#include "word_count_protocol.h"

#include <malloc/zel_malloc.h>

#include <algorithm>
#include <cstring>

namespace word_count {

constexpr size_t kBlockSize = 1 << 20;

struct TextBlock {
    TextBlock *older;
    size_t used;
    char bytes[kBlockSize];
};

namespace {

constexpr size_t kFirstCapacity = 4096;

static_assert(kLongestWord <= kBlockSize, "a word lies in one block");

// The slot where the search for a word begins. The low bits of the hash choose it, with
// higher ones mixed in.
CountedWord *first_slot(const WordTable &table, uint32_t hash) {
    return &table.slots[(hash ^ (hash >> 15)) & (table.capacity - 1)];
}

// The slot that the word has, or would get. At least half of the slots are free, so the
// search ends.
CountedWord *find_slot(const WordTable &table, const Word &word) {
    CountedWord *slot = first_slot(table, word.hash);
    while (slot->count != 0 && slot->text != word.text) {
        ++slot;
        if (slot == table.slots + table.capacity) {
            slot = table.slots;
        }
    }
    return slot;
}

void set_capacity(WordTable &table, size_t capacity) {
    const WordTable old = table;
    table.slots =
        static_cast<CountedWord *>(zel_calloc(capacity, sizeof(CountedWord), "set_capacity", "table of words"));
    table.capacity = capacity;
    for (size_t place = 0; place < old.capacity; ++place) {
        const CountedWord &word = old.slots[place];
        if (word.count != 0) {
            *find_slot(table, {word.text, hash_of(word.text)}) = word;
        }
    }
    zel_free(old.slots);
}

// A copy that lives as long as the table.
std::string_view keep_text(WordTable &table, std::string_view text) {
    if (table.blocks == nullptr || text.size() > kBlockSize - table.blocks->used) {
        auto *block = static_cast<TextBlock *>(zel_malloc(sizeof(TextBlock), "keep_text", "words of a text"));
        block->older = table.blocks;
        block->used = 0;
        table.blocks = block;
    }
    char *copy = table.blocks->bytes + table.blocks->used;
    memcpy(copy, text.data(), text.size());
    table.blocks->used += text.size();
    table.text_bytes += text.size();
    return {copy, text.size()};
}

bool enter_word(WordTable &table, CountedWord *slot, std::string_view text) {
    if (table.words == kMostWords || text.size() > kMostWordBytes - table.text_bytes) {
        return false;
    }
    *slot = {.text = keep_text(table, text), .count = 1};
    ++table.words;
    if (table.words == table.capacity / 2) {
        set_capacity(table, table.capacity * 2);
    }
    return true;
}

bool add_word(WordTable &table, const Word &word) {
    CountedWord *slot = find_slot(table, word);
    if (slot->count == 0) {
        return enter_word(table, slot, word.text);
    }
    ++slot->count;
    return true;
}

bool comes_before(const CountedWord &a, const CountedWord &b) {
    return a.count != b.count ? a.count > b.count : a.text < b.text;
}

} // namespace

uint32_t hash_of(std::string_view text) {
    uint32_t hash = kHashStart;
    for (const char byte : text) {
        hash = next_hash(hash, byte);
    }
    return hash;
}

// Most of the time goes into waiting for the slots to come from memory. So all are asked
// for before the first is looked at: on x86-64 it halves the time of a large text. The
// oldest 32-bit processors have no such instruction, and builds for them leave it out.
size_t add_words(WordTable &table, std::span<const Word> words) {
    if (table.capacity == 0) {
        set_capacity(table, kFirstCapacity);
    }
    for (const Word &word : words) {
        __builtin_prefetch(first_slot(table, word.hash));
    }
    size_t added = 0;
    for (const Word &word : words) {
        added += static_cast<size_t>(add_word(table, word));
    }
    return added;
}

// Free slots come last, with their count of 0.
std::vector<CountedWord> most_frequent_words(const WordTable &table, size_t limit) {
    std::vector<CountedWord> words(std::min(limit, table.words));
    std::partial_sort_copy(table.slots, table.slots + table.capacity, words.begin(), words.end(), comes_before);
    return words;
}

void clear_words(WordTable &table) {
    while (table.blocks != nullptr) {
        TextBlock *block = table.blocks;
        table.blocks = block->older;
        zel_free(block);
    }
    zel_free(table.slots);
    table = {};
}

} // namespace word_count
