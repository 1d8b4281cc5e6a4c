// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A set of record indices that is walked in ascending order, at a cost that follows its members and not its range.
#ifndef ZEL_MALLOC_INTERNAL_INDEX_SET_H
#define ZEL_MALLOC_INTERNAL_INDEX_SET_H

#include <array>
#include <bit>
#include <cstdint>

namespace zel::memory {

inline constexpr uint32_t kBitsPerWord = 32;
inline constexpr uint32_t kIndicesPerPage = kBitsPerWord * kBitsPerWord;

// The members among kIndicesPerPage neighbouring indices: a bit each, and a bit for each word that is not empty. The
// pages of a set stand one behind the other in an array of the caller's, zeroed before its first use.
struct IndexPage {
    uint32_t used_words;
    std::array<uint32_t, kBitsPerWord> words;
};

constexpr uint32_t index_pages(uint32_t capacity) {
    return capacity / kIndicesPerPage + (capacity % kIndicesPerPage == 0 ? 0 : 1);
}

constexpr void insert_index(IndexPage *pages, uint32_t index) {
    IndexPage &page = pages[index / kIndicesPerPage];
    const uint32_t word = index % kIndicesPerPage / kBitsPerWord;
    page.words[word] |= uint32_t{1} << (index % kBitsPerWord);
    page.used_words |= uint32_t{1} << word;
}

constexpr void erase_index(IndexPage *pages, uint32_t index) {
    IndexPage &page = pages[index / kIndicesPerPage];
    const uint32_t word = index % kIndicesPerPage / kBitsPerWord;
    page.words[word] &= ~(uint32_t{1} << (index % kBitsPerWord));
    if (page.words[word] == 0) {
        page.used_words &= ~(uint32_t{1} << word);
    }
}

// The smallest member that is not below the number, or the capacity when there is none.
constexpr uint32_t next_index(const IndexPage *pages, uint32_t capacity, uint32_t from) {
    while (from < capacity) {
        const IndexPage &page = pages[from / kIndicesPerPage];
        const uint32_t word = from % kIndicesPerPage / kBitsPerWord;
        const uint32_t rest = page.words[word] >> (from % kBitsPerWord);
        if (rest != 0) {
            return from + static_cast<uint32_t>(std::countr_zero(rest));
        }
        const uint64_t later_words = uint64_t{page.used_words} >> (word + 1);
        const uint32_t next_word =
            later_words == 0 ? kBitsPerWord : word + 1 + static_cast<uint32_t>(std::countr_zero(later_words));
        from = (from / kIndicesPerPage) * kIndicesPerPage + next_word * kBitsPerWord;
    }
    return capacity;
}

} // namespace zel::memory

#endif
