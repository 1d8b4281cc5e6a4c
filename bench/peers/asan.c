/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * AddressSanitizer: it stands in the place of malloc, and the compiler adds a check to each access of the program. */
#include "heap_work.h"

static const struct heap heap = {malloc, free, NULL};

int main(int argc, char **argv) {
    return heap_main(&heap, argc, argv);
}
