// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A set of record indices that is walked in ascending order, at a cost that follows its members and not its range.
#ifndef ZEL_MALLOC_INTERNAL_INDEX_SET_H
#define ZEL_MALLOC_INTERNAL_INDEX_SET_H

#include <array>
#include <bit>
#include <cstdint>

namespace zel::memory {

inline constexpr uint32_t kBitsPerWord = 32;

// Enough for every index that an int32_t holds: the last level is a single word.
inline constexpr uint32_t kIndexLevels = 7;

// A bit for each index; on each level above, a bit for each word below that is not empty. The words are the caller's:
// a level has index_words of them, zeroed before their first use.
struct IndexSet {
    std::array<uint32_t *, kIndexLevels> levels;
};

// The words of a level in a set for the indices below the capacity, which is not 0.
constexpr uint32_t index_words(uint32_t capacity, uint32_t level) {
    uint32_t last = capacity - 1;
    for (uint32_t below = 0; below <= level; ++below) {
        last /= kBitsPerWord;
    }
    return last + 1;
}

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

// The smallest member below a bit of a level that is set.
constexpr uint32_t first_below(const IndexSet &set, uint32_t level, uint32_t bit) {
    while (level > 0) {
        --level;
        bit = bit * kBitsPerWord + static_cast<uint32_t>(std::countr_zero(set.levels[level][bit]));
    }
    return bit;
}

// The smallest member that is not below the number, or the capacity when there is none. Up through the levels until one
// has a bit at or behind the place looked at, then down again.
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

} // namespace zel::memory

#endif
