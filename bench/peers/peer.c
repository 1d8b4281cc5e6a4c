/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * The main function of a peer's program. */
#include "peers/peer.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

void peer_fail(const char *step) {
    perror(step);
    exit(1);
}

void peer_require(int well, const char *step) {
    if (!well) {
        peer_fail(step);
    }
}

int main(int argc, char **argv) {
    if (argc < 3) {
        return 2;
    }
    for (const struct peer_work *work = peer_works; work->name != NULL; ++work) {
        if (strcmp(work->name, argv[2]) == 0) {
            work->run(strtol(argv[1], NULL, 10), argv + 3);
            return 0;
        }
    }
    return 2;
}
