// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The set of record indices, compared with a set of the standard library.
#include <malloc/internal/index_set.h>

#include <gtest/gtest.h>

#include <array>
#include <random>
#include <set>
#include <vector>

using namespace zel::memory;

namespace {

// A set with its words, and the reference that it must equal.
struct Pair {
    explicit Pair(uint32_t range) : capacity(range) {
        for (uint32_t level = 0; level < kIndexLevels; ++level) {
            words[level].resize(index_words(range, level));
            set.levels[level] = words[level].data();
        }
    }

    void insert(uint32_t index) {
        insert_index(set, index);
        reference.insert(index);
    }

    void erase(uint32_t index) {
        erase_index(set, index);
        reference.erase(index);
    }

    uint32_t expected_next(uint32_t from) const {
        const auto next = reference.lower_bound(from);
        return next == reference.end() ? capacity : *next;
    }

    void expect_equal() const {
        for (uint32_t from = 0; from <= capacity; ++from) {
            ASSERT_EQ(next_index(set, capacity, from), expected_next(from)) << "from " << from << " of " << capacity;
        }
    }

    uint32_t capacity;
    IndexSet set = {};
    std::array<std::vector<uint32_t>, kIndexLevels> words;
    std::set<uint32_t> reference;
};

constexpr std::array<uint32_t, 13> kRanges = {1, 2, 31, 32, 33, 1023, 1024, 1025, 2048, 3000, 32767, 32768, 32769};

} // namespace

TEST(IndexSet, NothingIsNextInAnEmptySet) {
    for (const uint32_t range : kRanges) {
        Pair(range).expect_equal();
    }
}

TEST(IndexSet, ASetWithoutARangeHasNoNext) {
    EXPECT_EQ(next_index(IndexSet{}, 0, 0), 0U);
}

TEST(IndexSet, ASingleMemberIsFoundFromAllThatIsNotAboveIt) {
    for (const uint32_t range : {33U, 1025U, 2048U}) {
        for (uint32_t index = 0; index < range; index += 31) {
            Pair pair(range);
            pair.insert(index);
            pair.expect_equal();
            pair.erase(index);
            pair.expect_equal();
        }
    }
}

TEST(IndexSet, TheLastIndexOfARangeIsFound) {
    for (const uint32_t range : kRanges) {
        Pair pair(range);
        pair.insert(range - 1);
        pair.expect_equal();
    }
}

TEST(IndexSet, AFullSetHasEveryIndex) {
    for (const uint32_t range : kRanges) {
        Pair pair(range);
        for (uint32_t index = 0; index < range; ++index) {
            pair.insert(index);
        }
        pair.expect_equal();
    }
}

TEST(IndexSet, ASetEqualsAReferenceWhateverComesAndGoes) {
    std::mt19937 random(1);
    for (const uint32_t range : kRanges) {
        Pair pair(range);
        for (int round = 0; round < 20; ++round) {
            for (int step = 0; step < 50; ++step) {
                const uint32_t index = static_cast<uint32_t>(random()) % range;
                random() % 2 == 0 ? pair.insert(index) : pair.erase(index);
            }
            pair.expect_equal();
        }
        while (!pair.reference.empty()) {
            pair.erase(*pair.reference.begin());
        }
        pair.expect_equal();
    }
}

namespace {

// Visits the runs from the index on. Each member stands in one of them, and none holds
// anything else.
void expect_runs_of_members(const Pair &pair, uint32_t from) {
    std::set<uint32_t> members;
    for (IndexRun run = next_run(pair.set, pair.capacity, from); run.first < pair.capacity;
         run = next_run(pair.set, pair.capacity, run.end)) {
        ASSERT_LT(run.first, run.end);
        ASSERT_EQ(run.first / kBitsPerWord, (run.end - 1) / kBitsPerWord) << "a run ends with its word";
        for (uint32_t index = run.first; index < run.end; ++index) {
            ASSERT_TRUE(members.insert(index).second) << index;
        }
    }
    ASSERT_EQ(members, std::set<uint32_t>(pair.reference.lower_bound(from), pair.reference.end())) << "from " << from;
}

// Each index is a member but for one in so many.
void insert_most(Pair &pair, std::mt19937 &random, uint32_t one_in) {
    for (uint32_t index = 0; index < pair.capacity; ++index) {
        if (random() % one_in != 0) {
            pair.insert(index);
        }
    }
}

} // namespace

TEST(IndexSet, TheRunsOfASetAreItsMembers) {
    std::mt19937 random(2);
    for (const uint32_t range : {1U, 31U, 32U, 33U, 1025U}) {
        for (const uint32_t one_in : {2U, 3U, 21U}) {
            Pair pair(range);
            insert_most(pair, random, one_in);
            for (uint32_t from = 0; from <= range; ++from) {
                expect_runs_of_members(pair, from);
            }
        }
    }
}

TEST(IndexSet, AFullWordIsOneRun) {
    Pair pair(96);
    for (uint32_t index = 0; index < 96; ++index) {
        pair.insert(index);
    }
    EXPECT_EQ(next_run(pair.set, 96, 32).end, 64U);
    EXPECT_EQ(next_run(pair.set, 96, 37).first, 37U);
    EXPECT_EQ(next_run(pair.set, 96, 37).end, 64U);
}

TEST(IndexSet, ErasingWhatIsNoMemberChangesNothing) {
    Pair pair(2048);
    pair.insert(7);
    pair.erase(8);
    pair.erase(2047);
    pair.expect_equal();
}

TEST(IndexSet, EachLevelHasAWordForThirtyTwoOfTheLevelBelow) {
    EXPECT_EQ(index_words(1, 0), 1U);
    EXPECT_EQ(index_words(32, 0), 1U);
    EXPECT_EQ(index_words(33, 0), 2U);
    EXPECT_EQ(index_words(1024, 0), 32U);
    EXPECT_EQ(index_words(1024, 1), 1U);
    EXPECT_EQ(index_words(1025, 1), 2U);
    EXPECT_EQ(index_words(32769, 2), 2U);
}

TEST(IndexSet, TheLastLevelIsOneWordForEveryIndexThatThereCanBe) {
    EXPECT_EQ(index_words(UINT32_MAX, kIndexLevels - 1), 1U);
}

TEST(IndexSet, AWalkLooksAtAFewWordsForEachMemberWhateverTheRange) {
    // Each level has one word, on the way to the member. Another word would be outside
    // the array.
    constexpr uint32_t kRange = uint32_t{1} << 30;
    std::array<std::array<uint32_t, 1>, kIndexLevels> words = {};
    IndexSet set = {};
    for (uint32_t level = 0; level < kIndexLevels; ++level) {
        set.levels[level] = words[level].data();
    }
    insert_index(set, 3);
    EXPECT_EQ(next_index(set, kRange, 0), 3U);
    // No level has a bit behind the member: no other word is read.
    EXPECT_EQ(next_index(set, kRange, 4), kRange);
}
