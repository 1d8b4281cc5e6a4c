// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The shortest parent: it starts ./first_companion, sends a number and prints the answer.
#include <zel.h>

int main(int argc, char **argv) {
    platform_debug_hooks(&argc, argv); // first thing in every program
    const char *companion = "./first_companion";
    PairHandle *pair = platform_pair_parent_open_lp("FIRST_PAIR", 1, 1, companion, NULL, companion, (char *) NULL);
    int32_t pid = platform_pair_companion_pid(pair);
    uint32_t value = 21;
    platform_pair_send(pair, &value, sizeof value);
    int answered = platform_pair_recv(pair, &value, sizeof value) == sizeof value;
    platform_pair_close(pair);      // the companion sees the end of the stream and ends,
    platform_wait_child(pid, NULL); // and is reaped
    if (!answered) {
        msg_fatal("The companion gave no answer.");
    }
    msg_print("The companion answered %u.", value);
}
