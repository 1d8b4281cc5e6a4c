/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * The floor of a check of the whole heap: a flat table of the live blocks, and a walk that looks at both guards. */
#include "heap_work.h"

enum { GUARD = 8, SPARE = 1024 };

struct record {
    unsigned char *block; /* null in a record that is free */
    size_t size;
};

static const uint32_t before = 0x5739E56A;
static const uint32_t behind = 0x35A7B641;
static struct record *records;
static size_t used;

/* The blocks are allocated once and stay: the table is only appended to. */
static void *get(size_t size) {
    static size_t capacity;
    if (used == capacity) {
        capacity = capacity * 2 + SPARE;
        records = realloc(records, capacity * sizeof *records);
    }
    const size_t padded = (size + 3) / 4 * 4;
    unsigned char *block = malloc(GUARD + padded + sizeof behind);
    if (!records || !block) {
        free(block);
        return NULL;
    }
    memcpy(block + GUARD - sizeof before, &before, sizeof before);
    memcpy(block + GUARD + padded, &behind, sizeof behind);
    records[used].block = block + GUARD;
    records[used].size = padded;
    ++used;
    return block + GUARD;
}

static int is_guard(const unsigned char *place, uint32_t guard) {
    uint32_t found;
    memcpy(&found, place, sizeof found);
    return found == guard;
}

static int is_whole(void) {
    for (const struct record *record = records; record < records + used; ++record) {
        if (record->block &&
            (!is_guard(record->block - sizeof before, before) || !is_guard(record->block + record->size, behind))) {
            return 0;
        }
    }
    return 1;
}

static void put(void *block) {
    (void) block;
    exit(HEAP_MISUSE);
}

static const struct heap heap = {get, put, is_whole};

int main(int argc, char **argv) {
    return heap_main(&heap, argc, argv);
}
