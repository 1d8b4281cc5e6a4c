// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A set of record indices, walked in ascending order. The cost of a walk follows the
// number of members, not the range.
#ifndef ZEL_MALLOC_INTERNAL_INDEX_SET_H
#define ZEL_MALLOC_INTERNAL_INDEX_SET_H

#include <array>
#include <bit>
#include <cstdint>

namespace zel::memory {

// The bits of a word.
inline constexpr uint32_t kBitsPerWord = 32;

// The levels that cover every index of an int32_t: the last one is a single word.
inline constexpr uint32_t kIndexLevels = 7;

// Level 0 has a bit for each index. Each level above has a bit for each word of the level
// below; it is set while that word is not 0. The caller provides the words: index_words
// of them a level, all zero at first.
struct IndexSet {
    std::array<uint32_t *, kIndexLevels> levels;
};

// How many words a level has in a set for the indices below the capacity. capacity: not
// 0.
constexpr uint32_t index_words(uint32_t capacity, uint32_t level) {
    uint32_t last = capacity - 1;
    for (uint32_t below = 0; below <= level; ++below) {
        last /= kBitsPerWord;
    }
    return last + 1;
}

// Adds a member. A word that was not 0 already has its bit in the level above.
constexpr void insert_index(IndexSet &set, uint32_t index) {
    for (uint32_t *level : set.levels) {
        uint32_t &word = level[index / kBitsPerWord];
        const bool was_empty = word == 0;
        word |= uint32_t{1} << (index % kBitsPerWord);
        if (!was_empty) {
            return;
        }
        index /= kBitsPerWord;
    }
}

// Takes a member out. A word that is still not 0 keeps its bit in the level above.
constexpr void erase_index(IndexSet &set, uint32_t index) {
    for (uint32_t *level : set.levels) {
        uint32_t &word = level[index / kBitsPerWord];
        word &= ~(uint32_t{1} << (index % kBitsPerWord));
        if (word != 0) {
            return;
        }
        index /= kBitsPerWord;
    }
}

// The smallest member under a bit of a level. The bit must be set.
constexpr uint32_t first_below(const IndexSet &set, uint32_t level, uint32_t bit) {
    while (level > 0) {
        --level;
        bit = bit * kBitsPerWord + static_cast<uint32_t>(std::countr_zero(set.levels[level][bit]));
    }
    return bit;
}

// The smallest member that is not below from; the capacity when there is none. The search
// goes up the levels until the word at its position has a set bit at that position or
// above. From that bit it goes down to the member.
constexpr uint32_t next_index(const IndexSet &set, uint32_t capacity, uint32_t from) {
    if (from >= capacity) {
        return capacity;
    }
    uint32_t bit = from;
    uint32_t last_word = capacity - 1;
    for (uint32_t level = 0; level < kIndexLevels; ++level) {
        const uint32_t word = bit / kBitsPerWord;
        last_word /= kBitsPerWord;
        if (word > last_word) {
            return capacity;
        }
        const uint32_t rest = set.levels[level][word] >> (bit % kBitsPerWord);
        if (rest != 0) {
            return first_below(set, level, bit + static_cast<uint32_t>(std::countr_zero(rest)));
        }
        bit = word + 1;
    }
    return capacity;
}

// Members without a gap between them, in one word of level 0.
struct IndexRun {
    uint32_t first;
    uint32_t end; // behind the last one; first when there is none
};

// The run that begins with the smallest member that is not below from. A walk by runs
// looks for a member once a word at best, and not once a member.
constexpr IndexRun next_run(const IndexSet &set, uint32_t capacity, uint32_t from) {
    const uint32_t first = next_index(set, capacity, from);
    if (first == capacity) {
        return {.first = capacity, .end = capacity};
    }
    const uint32_t members = set.levels[0][first / kBitsPerWord] >> (first % kBitsPerWord);
    return {.first = first, .end = first + static_cast<uint32_t>(std::countr_one(members))};
}

} // namespace zel::memory

#endif
