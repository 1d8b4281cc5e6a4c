/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * dmalloc: it stands in the place of malloc. */
#include "heap_work.h"

#include <dmalloc.h> /* its malloc and free, as macros */

static int is_whole(void) {
    return dmalloc_verify(NULL) == DMALLOC_VERIFY_NOERROR;
}

static const struct heap heap = {malloc, free, is_whole};

int main(int argc, char **argv) {
    return heap_main(&heap, argc, argv);
}
