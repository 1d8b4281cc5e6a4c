/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * The C library's mcheck: it guards, fills and lists each block, and knows no owner. Its functions stand in
 * libc_malloc_debug.so, which is loaded before the program. */
#include "heap_work.h"

#include <mcheck.h>

static int is_whole(void) {
    mcheck_check_all();
    return 1;
}

static const struct heap heap = {malloc, free, is_whole};

int main(int argc, char **argv) {
    if (mcheck(NULL) != 0) {
        return HEAP_MISUSE;
    }
    return heap_main(&heap, argc, argv);
}
