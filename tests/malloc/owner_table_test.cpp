// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The sums by owner: what is one owner, growth, and growth without memory.
#include "malloc_support.h"

#include <malloc/internal/owner_table.h>

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <utility>

using namespace zel::test;
using zel::memory::add_owner;
using zel::memory::compare_owners;
using zel::memory::find_owner;
using zel::memory::kNoOwner;
using zel::memory::Owner;
using zel::memory::OwnerTable;

namespace {

// A table that is cleared at the end of its scope.
struct Owners {
    Owners() = default;
    ~Owners() { clear_owners(table); }
    Owners(const Owners &) = delete;
    Owners &operator=(const Owners &) = delete;
    OwnerTable table = {};
};

// Adds owners until the table is full.
void fill(OwnerTable &table) {
    for (int32_t line = 1000; table.count == 0 || table.count < table.capacity; ++line) {
        add_owner(table, {.text = "full.c", .line = line});
    }
}

} // namespace

TEST(OwnerTable, EqualTextsAtTwoAddressesAreOneOwner) {
    Owners owners;
    const std::string first = "read_index";
    const std::string second = "read_index";
    EXPECT_EQ(add_owner(owners.table, {.text = first.c_str(), .line = 0}), 0);
    EXPECT_EQ(add_owner(owners.table, {.text = second.c_str(), .line = 0}), 0);
    EXPECT_EQ(owners.table.count, 1U);
}

TEST(OwnerTable, EachLineOfAFileIsAnOwner) {
    Owners owners;
    EXPECT_EQ(add_owner(owners.table, {.text = "guest.c", .line = 1}), 0);
    EXPECT_EQ(add_owner(owners.table, {.text = "guest.c", .line = 2}), 1);
    EXPECT_EQ(add_owner(owners.table, {.text = "guest.c", .line = -1}), 2);
}

TEST(OwnerTable, AMissingTextIsNotAnEmptyOne) {
    Owners owners;
    EXPECT_EQ(add_owner(owners.table, {.text = nullptr, .line = 0}), 0);
    EXPECT_EQ(add_owner(owners.table, {.text = "", .line = 0}), 1);
    EXPECT_EQ(add_owner(owners.table, {.text = nullptr, .line = 0}), 0);
}

TEST(OwnerTable, AnOwnerThatNeverCameIsNotFound) {
    Owners owners;
    EXPECT_EQ(find_owner(owners.table, {.text = "f", .line = 0}), kNoOwner);
    add_owner(owners.table, {.text = "g", .line = 0});
    EXPECT_EQ(find_owner(owners.table, {.text = "f", .line = 0}), kNoOwner);
    EXPECT_EQ(find_owner(owners.table, {.text = "g", .line = 1}), kNoOwner);
    EXPECT_EQ(find_owner(owners.table, {.text = "g", .line = 0}), 0);
}

TEST(OwnerTable, TheOrderIsThatOfTheTextAndThenOfTheLine) {
    const Owner missing = {.text = nullptr, .line = 5};
    const Owner empty = {.text = "", .line = 0};
    const Owner a1 = {.text = "a", .line = 1};
    const Owner a2 = {.text = "a", .line = 2};
    const Owner umlaut = {.text = "\xC3\xA4", .line = 0};
    const Owner *const order[] = {&missing, &empty, &a1, &a2, &umlaut};
    for (size_t i = 0; i < std::size(order); ++i) {
        for (size_t j = 0; j < std::size(order); ++j) {
            const int compared = compare_owners(*order[i], *order[j]);
            EXPECT_EQ(compared < 0, i < j) << i << ' ' << j;
            EXPECT_EQ(compared == 0, i == j) << i << ' ' << j;
        }
    }
}

TEST(OwnerTable, ThePeakIsTheMostBytesAtOneTime) {
    Owners owners;
    const int32_t place = add_owner(owners.table, {.text = "f", .line = 0});
    zel::memory::OwnerSum &sum = owners.table.sums[place];
    add_block(sum, 10);
    add_block(sum, 20);
    remove_block(sum, 10);
    add_block(sum, 5);
    EXPECT_EQ(sum.blocks, 2U);
    EXPECT_EQ(sum.bytes, 25U);
    EXPECT_EQ(sum.peak, 30U);
}

TEST(OwnerTable, ATableEqualsAReferenceWhateverComes) {
    Owners owners;
    std::map<std::pair<std::string, int32_t>, size_t> reference;
    std::mt19937 random(20);
    for (int round = 0; round < 20000; ++round) {
        const auto known = reference.emplace(std::pair("f" + std::to_string(random() % 700), random() % 5), 0).first;
        const int32_t place =
            add_owner(owners.table, {.text = known->first.first.c_str(), .line = known->first.second});
        add_block(owners.table.sums[place], 3);
        known->second += 3;
    }
    EXPECT_EQ(owners.table.count, reference.size());
    for (const auto &[key, bytes] : reference) {
        const int32_t place = find_owner(owners.table, {.text = key.first.c_str(), .line = key.second});
        ASSERT_NE(place, kNoOwner) << key.first;
        EXPECT_EQ(owners.table.sums[place].bytes, bytes) << key.first;
    }
}

TEST(OwnerTable, WithoutMemoryTheTableIsAsItWas) {
    Owners owners;
    for (int round = 0; round < 3; ++round) {
        int failures = 0;
        for (int32_t place = kNoOwner; place == kNoOwner; ++failures) {
            const uint32_t count = owners.table.count;
            const FailingRequest failing(failures);
            place = add_owner(owners.table, {.text = "late", .line = round});
            EXPECT_EQ(owners.table.count, place == kNoOwner ? count : count + 1);
            EXPECT_EQ(find_owner(owners.table, {.text = "late", .line = round}), place);
        }
        EXPECT_EQ(failures, 3); // the sums, the slots, and none
        fill(owners.table);
        EXPECT_EQ(find_owner(owners.table, {.text = "late", .line = 0}), 0);
    }
}
