// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A program that has a msg_debug of its own, of another type than the library's, and uses the library's other calls.
#include <zel.h>

#define ZEL_OWN_MSG_DEBUG
#include <msg/sinks.h>

int msg_debug(int level) {
    msg_print("own");
    return level;
}

int main(void) {
    msg_debug(1);
    msg_warn("others");
    FILE *ring = msg_open_ring(100, -1);
    return ring == NULL;
}
