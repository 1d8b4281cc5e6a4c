// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A first companion: it doubles each number that its parent sends, until the stream ends.
#include <components/platform/debug_hooks.h>
#include <components/platform/zel_pair_connection.h>
#include <msg/msg.h>

// A stream may bring a value in pieces.
static int receive(PairHandle *pair, uint32_t *value) {
    int32_t done = 0;
    while (done < (int32_t) sizeof *value) {
        int32_t count = platform_pair_recv(pair, (char *) value + done, (int32_t) sizeof *value - done);
        if (count == 0) { // the end of the stream, or an error
            return 0;
        }
        done += count;
    }
    return 1;
}

int main(int argc, char **argv) {
    platform_debug_hooks(&argc, argv);                               // first thing in every program
    PairHandle *pair = platform_pair_child_open("FIRST_PAIR", 0, 1); // before any other use of the pair
    if (!platform_pair_ok(pair)) {
        msg_fatal("Cannot open the pair: %s (%d)", platform_pair_errstr(pair), platform_pair_errno(pair));
    }
    if (pair->error_text != NULL) { // without its variable the handle counts as healthy: no system call failed
        msg_fatal("Cannot open the pair: %s", pair->error_text);
    }
    uint32_t value;
    while (receive(pair, &value)) {
        value *= 2;
        if (platform_pair_send(pair, &value, sizeof value) != sizeof value) {
            msg_fatal("Cannot answer: %s", platform_pair_errstr(pair));
        }
    }
    platform_pair_close(pair);
    return 0;
}
