// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Sums of blocks by their owners.
#ifndef ZEL_MALLOC_INTERNAL_OWNER_TABLE_H
#define ZEL_MALLOC_INTERNAL_OWNER_TABLE_H

#include <malloc/internal/caller.h>

#include <cstddef>
#include <cstdint>

#pragma GCC visibility push(hidden)

namespace zel::memory {

// Whose a block is: a function, or a file with a line.
struct Owner {
    const char *text; // of the function or the file; kept by pointer; may be null
    int32_t line;     // 0 for a function
};

constexpr Owner owner_of(const Caller &caller) {
    return caller.method == Method::file_line ? Owner{.text = caller.purpose_or_file, .line = caller.place.line}
                                              : Owner{.text = caller.place.function, .line = 0};
}

// The order of the names: by text and line, a missing text first. Returns less than 0, 0,
// or more than 0.
int compare_owners(const Owner &a, const Owner &b);

struct OwnerSum {
    Owner owner;
    uint32_t hash; // of the owner
    uint32_t blocks;
    size_t bytes;
    size_t peak; // the most bytes so far
};

// The sums, in the order in which their owners came, and a hash table of their places.
// All zero at first.
struct OwnerTable {
    OwnerSum *sums;
    uint32_t *slots; // twice as many as there is capacity; 0 or the place of a sum plus 1
    uint32_t count;
    uint32_t capacity; // a power of 2, or 0
};

// The place of an owner that is not in the table.
inline constexpr int32_t kNoOwner = -1;

// The place of the owner's sum, or kNoOwner.
int32_t find_owner(const OwnerTable &table, const Owner &owner);

// The place of the owner's sum, which is added when there is none. Without memory returns
// kNoOwner, and the table is as it was.
int32_t add_owner(OwnerTable &table, const Owner &owner);

// A block of that many bytes comes to a sum, or leaves it.
void add_block(OwnerSum &sum, size_t bytes);
void remove_block(OwnerSum &sum, size_t bytes);

// Releases the storage of a table, which is empty then.
void clear_owners(OwnerTable &table);

} // namespace zel::memory

#pragma GCC visibility pop

#endif
