// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A program that has a msg_debug of its own, and uses the library's other calls.
#include <zel.h>

void msg_debug(const char *format, ...) {
    (void) format;
    msg_print("own");
}

int main(void) {
    msg_debug("%d", 1);
    msg_warn("others");
    FILE *ring = msg_open_ring(100, -1);
    return ring == NULL;
}
