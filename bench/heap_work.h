/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * A heap at work, one sample: PROGRAM ITERATIONS off|on LIVE, or PROGRAM ITERATIONS check LIVE.
 *
 * Keeps LIVE blocks alive. An iteration of "off" and "on" releases one block and allocates another, one of "check"
 * looks at all of them. Each program of a heap includes this and calls heap_main: the calls of the heap stand in the
 * loop itself, so that no layer between dilutes a ratio. In C: the heap is to serve this work alone.
 */
#ifndef ZEL_BENCH_HEAP_WORK_H
#define ZEL_BENCH_HEAP_WORK_H

#include "sample.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

enum { HEAP_MISUSE = 2, HEAP_DAMAGED = 4 };

struct heap {
    void *(*get)(size_t size);
    void (*put)(void *block);
    int (*is_whole)(void); /* looks at every live block; null when the heap has no such call */
};

struct work {
    unsigned char **blocks;
    size_t live;
    uint32_t random;
};

/* 16 to 1015 bytes. */
static inline size_t heap_size_of(size_t index) {
    return 16 + index * 619 % 1000;
}

static inline __attribute__((always_inline)) void heap_fill(const struct heap *heap, const struct work *work,
                                                            size_t index) {
    const size_t size = heap_size_of(index);
    unsigned char *block = heap->get(size);
    if (!block) {
        exit(HEAP_DAMAGED);
    }
    block[0] = (unsigned char) index;
    block[size - 1] = (unsigned char) (index >> 8);
    work->blocks[index] = block;
}

static inline __attribute__((always_inline)) void heap_clear(const struct heap *heap, const struct work *work,
                                                             size_t index) {
    unsigned char *block = work->blocks[index];
    if (block[0] != (unsigned char) index || block[heap_size_of(index) - 1] != (unsigned char) (index >> 8)) {
        exit(HEAP_DAMAGED);
    }
    heap->put(block);
}

static inline __attribute__((always_inline)) void heap_churn(const struct heap *heap, struct work *work, long rounds) {
    for (long i = 0; i < rounds; ++i) {
        work->random = work->random * 1664525U + 1013904223U;
        const size_t index = (work->random >> 8) % work->live;
        heap_clear(heap, work, index);
        heap_fill(heap, work, index);
    }
}

static inline __attribute__((always_inline)) void heap_fill_all(const struct heap *heap, struct work *work,
                                                                size_t live) {
    work->blocks = calloc(live, sizeof *work->blocks);
    work->live = live;
    work->random = 1;
    if (!work->blocks) {
        exit(HEAP_DAMAGED);
    }
    for (size_t i = 0; i < live; ++i) {
        heap_fill(heap, work, i);
    }
}

static inline void heap_check(const struct heap *heap, long rounds) {
    for (long i = 0; i < rounds; ++i) {
        __asm__ volatile("" ::: "memory"); /* each check looks anew */
        if (!heap->is_whole()) {
            exit(HEAP_DAMAGED);
        }
    }
}

static inline __attribute__((always_inline)) int heap_main(const struct heap *heap, int argc, char **argv) {
    if (argc != 4) {
        return HEAP_MISUSE;
    }
    const long rounds = strtol(argv[1], NULL, 10);
    const int checks = strcmp(argv[2], "check") == 0;
    static struct work work;
    heap_fill_all(heap, &work, strtoul(argv[3], NULL, 10));
    if (checks && !heap->is_whole) {
        return HEAP_MISUSE;
    }
    sample_begin();
    if (checks) {
        heap_check(heap, rounds);
    } else {
        heap_churn(heap, &work, rounds);
    }
    sample_end(rounds);
    return 0;
}

#endif
