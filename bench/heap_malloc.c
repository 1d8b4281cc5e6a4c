/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * The floor of the memory library: plain malloc and free. */
#include "heap_work.h"

static const struct heap heap = {malloc, free, NULL};

int main(int argc, char **argv) {
    return heap_main(&heap, argc, argv);
}
