// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// One sample of a heap at work: zel_bench_heap_work malloc|zel0|zel1|zel2 LIVE ROUNDS [MAPPED].
//
// Keeps LIVE blocks alive and prints what a round takes in nanoseconds of this process's time: one block released,
// another allocated. MAPPED: part of the name of a library that must be loaded, or the sample would be of another heap.
#include <malloc/debug_heap.h>
#include <malloc/zel_malloc.h>

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

enum { kMisuse = 2, kNotMapped = 3, kDamaged = 4 };

struct work {
    unsigned char **blocks;
    size_t live;
    int mode; // -1: plain malloc
    uint32_t random;
};

// 16 to 1015 bytes.
static size_t size_of(size_t index) {
    return 16 + index * 619 % 1000;
}

static unsigned char *allocate(const struct work *work, size_t index) {
    const size_t size = size_of(index);
    unsigned char *block = work->mode < 0 ? malloc(size) : zel_malloc(size, "allocate", "a block");
    if (!block) {
        exit(kDamaged);
    }
    block[0] = (unsigned char) index;
    block[size - 1] = (unsigned char) (index >> 8);
    return block;
}

static void release(const struct work *work, size_t index) {
    unsigned char *block = work->blocks[index];
    if (block[0] != (unsigned char) index || block[size_of(index) - 1] != (unsigned char) (index >> 8)) {
        exit(kDamaged);
    }
    if (work->mode < 0) {
        free(block);
    } else {
        zel_free(block);
    }
}

static void run(struct work *work, long rounds) {
    for (long i = 0; i < rounds; ++i) {
        work->random = work->random * 1664525U + 1013904223U;
        const size_t index = (work->random >> 8) % work->live;
        release(work, index);
        work->blocks[index] = allocate(work, index);
    }
}

static double now(void) {
    struct timespec time;
    if (clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time) != 0) {
        exit(kMisuse);
    }
    return (double) time.tv_sec * 1e9 + (double) time.tv_nsec;
}

// To fill the heap in mode 2 would take a time that grows with the square of LIVE: it is filled and emptied in mode 1.
static void verify_all(const struct work *work, int on) {
    if (work->mode == ZEL_MALLOC_VERIFY_HEAP) {
        zel_enable_malloc_debug(on ? ZEL_MALLOC_VERIFY_HEAP : ZEL_MALLOC_CHECK_PTR);
    }
}

static double measure(struct work *work, long rounds) {
    for (size_t i = 0; i < work->live; ++i) {
        work->blocks[i] = allocate(work, i);
    }
    verify_all(work, 1);
    const double begin = now();
    run(work, rounds);
    const double end = now();
    verify_all(work, 0);
    for (size_t i = 0; i < work->live; ++i) {
        release(work, i);
    }
    return (end - begin) / (double) rounds;
}

static int is_mapped(const char *name) {
    char line[4096];
    int found = 0;
    FILE *maps = fopen("/proc/self/maps", "r");
    while (maps && !found && fgets(line, sizeof line, maps)) {
        found = strstr(line, name) != NULL;
    }
    if (maps) {
        fclose(maps);
    }
    return found;
}

// -2: there is no such heap.
static int mode_of(const char *how) {
    static const char *const names[] = {"malloc", "zel0", "zel1", "zel2"};
    for (int i = 0; i < 4; ++i) {
        if (strcmp(how, names[i]) == 0) {
            return i - 1;
        }
    }
    return -2;
}

int main(int argc, char **argv) {
    if (argc < 4) {
        return kMisuse;
    }
    struct work work = {NULL, strtoul(argv[2], NULL, 10), mode_of(argv[1]), 1};
    const long rounds = strtol(argv[3], NULL, 10);
    if (work.mode < -1 || work.live < 1 || rounds < 1) {
        return kMisuse;
    }
    if (argc > 4 && !is_mapped(argv[4])) {
        return kNotMapped;
    }
    if (work.mode > 0) {
        zel_enable_malloc_debug(ZEL_MALLOC_CHECK_PTR);
    }
    work.blocks = calloc(work.live, sizeof *work.blocks);
    if (!work.blocks) {
        return kDamaged;
    }
    printf("%.1f\n", measure(&work, rounds));
    free(work.blocks);
    return 0;
}
