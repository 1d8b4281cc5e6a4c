// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Sums of blocks by their owners.
#include <malloc/internal/owner_table.h>

#include <malloc/internal/table_storage.h>
#include <msg/base/limits.h>

#include <algorithm>

namespace zel::memory {

namespace {

constexpr uint32_t kSlotsForEach = 2;                // slots for each sum that there is room for
constexpr uint32_t kMostOwners = uint32_t{1} << 30U; // every place fits an int32_t, and every slot an uint32_t

// FNV-1a over the text and the line. A missing text is hashed like an empty one.
uint32_t hash_of(const Owner &owner) {
    constexpr uint32_t kStart = 2166136261;
    constexpr uint32_t kPrime = 16777619;
    uint32_t hash = kStart;
    for (const char *at = owner.text; at != nullptr && *at != '\0'; ++at) {
        hash = (hash ^ static_cast<unsigned char>(*at)) * kPrime;
    }
    return (hash ^ static_cast<uint32_t>(owner.line)) * kPrime;
}

// The slot of an owner: that of its sum, or the empty one where its search ends. At most
// half of the slots are taken, so that the search ends. The table has slots.
uint32_t &slot_of(const OwnerTable &table, const Owner &owner, uint32_t hash) {
    const uint32_t mask = table.capacity * kSlotsForEach - 1;
    uint32_t slot = hash & mask;
    while (table.slots[slot] != 0) {
        const OwnerSum &sum = table.sums[table.slots[slot] - 1];
        if (sum.hash == hash && compare_owners(sum.owner, owner) == 0) {
            break;
        }
        slot = (slot + 1) & mask;
    }
    return table.slots[slot];
}

// Doubles the room. Returns false without memory: a part that has grown has more room than
// the capacity says.
bool grow(OwnerTable &table) {
    const uint32_t capacity = table.capacity == 0 ? kFirstOwners : 2 * table.capacity;
    const size_t slots = size_t{capacity} * kSlotsForEach;
    if (capacity > kMostOwners || !enlarge(table.sums, capacity) || !enlarge(table.slots, slots)) {
        return false;
    }
    table.capacity = capacity;
    std::fill_n(table.slots, slots, 0);
    for (uint32_t place = 0; place < table.count; ++place) {
        const OwnerSum &sum = table.sums[place];
        slot_of(table, sum.owner, sum.hash) = place + 1;
    }
    return true;
}

} // namespace

int compare_owners(const Owner &a, const Owner &b) {
    if (a.text == nullptr || b.text == nullptr) {
        const int missing = static_cast<int>(b.text == nullptr) - static_cast<int>(a.text == nullptr);
        return missing != 0 ? missing : (a.line > b.line) - (a.line < b.line);
    }
    const int order = a.text == b.text ? 0 : strcmp(a.text, b.text);
    return order != 0 ? order : (a.line > b.line) - (a.line < b.line);
}

int32_t find_owner(const OwnerTable &table, const Owner &owner) {
    if (table.capacity == 0) {
        return kNoOwner;
    }
    return static_cast<int32_t>(slot_of(table, owner, hash_of(owner))) - 1;
}

int32_t add_owner(OwnerTable &table, const Owner &owner) {
    const int32_t known = find_owner(table, owner);
    if (known != kNoOwner) {
        return known;
    }
    if (table.count == table.capacity && !grow(table)) {
        return kNoOwner;
    }
    const uint32_t hash = hash_of(owner);
    const uint32_t place = table.count++;
    table.sums[place] = {.owner = owner, .hash = hash, .blocks = 0, .bytes = 0, .peak = 0};
    slot_of(table, owner, hash) = place + 1;
    return static_cast<int32_t>(place);
}

void add_block(OwnerSum &sum, size_t bytes) {
    sum.blocks += 1;
    sum.bytes += bytes;
    sum.peak = std::max(sum.peak, sum.bytes);
}

void remove_block(OwnerSum &sum, size_t bytes) {
    sum.blocks -= 1;
    sum.bytes -= bytes;
}

void clear_owners(OwnerTable &table) {
    free(table.sums);
    free(table.slots);
    table = {};
}

} // namespace zel::memory
