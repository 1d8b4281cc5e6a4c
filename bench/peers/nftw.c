/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * The C library's nftw: removing a folder of files. */
#include "files_by_hand.h"
#include "peers/peer.h"
#include "sample.h"

#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>

static int remove_entry(const char *path, const struct stat *status, int kind, struct FTW *place) {
    (void) status;
    (void) kind;
    (void) place;
    return remove(path);
}

/* What is removed was made right before: mkdir takes no folder that is there already. */
static void walk(long iterations, char **arguments) {
    peer_require(make_folder(arguments[1], atoi(arguments[0])), "make_folder");
    sample_begin();
    peer_require(nftw(arguments[1], remove_entry, 30, FTW_DEPTH | FTW_PHYS) == 0, "nftw");
    sample_end(iterations);
}

const struct peer_work peer_works[] = {{"nftw", walk}, {NULL, NULL}};
