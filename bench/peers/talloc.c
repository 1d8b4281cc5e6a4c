/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * talloc: a hierarchical allocator, each block a child of one context. */
#include "heap_work.h"

#include <talloc.h>

static void *context;

static void *get(size_t size) {
    return talloc_size(context, size);
}

static void put(void *block) {
    talloc_free(block);
}

static const struct heap heap = {get, put, NULL};

int main(int argc, char **argv) {
    context = talloc_new(NULL);
    return heap_main(&heap, argc, argv);
}
