/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * The memory library at work; "on" stands for the debug heap's mode 1, "check" for its mode 2. */
#include "heap_work.h"

#include <malloc/debug_heap.h>
#include <malloc/zel_malloc.h>

static void *get(size_t size) {
    return zel_malloc(size, "allocate", "a block");
}

static const struct heap heap = {get, zel_free, NULL};

/* Mode 2 verifies the heap twice in a round: at the release and at the allocation. To fill the heap in it would take a
 * time that grows with the square of its blocks: that is done in mode 1. */
static int measure_checks(long checks, size_t live) {
    static struct work work;
    heap_fill_all(&heap, &work, live);
    zel_enable_malloc_debug(ZEL_MALLOC_VERIFY_HEAP);
    heap_churn(&heap, &work, 1); /* what the switch leaves to the first verification */
    sample_begin();
    heap_churn(&heap, &work, checks / 2);
    sample_end(checks / 2 * 2);
    return 0;
}

int main(int argc, char **argv) {
    if (argc != 4) {
        return HEAP_MISUSE;
    }
    if (strcmp(argv[2], "off") != 0) {
        zel_enable_malloc_debug(ZEL_MALLOC_CHECK_PTR);
    }
    if (strcmp(argv[2], "check") == 0) {
        return measure_checks(strtol(argv[1], NULL, 10), strtoul(argv[3], NULL, 10));
    }
    return heap_main(&heap, argc, argv);
}
