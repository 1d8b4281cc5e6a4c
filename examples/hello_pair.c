// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The shortest parent: it starts ./first_companion, sends a number and prints the answer.
#include <string.h>
#include <zel.h>

int main(int argc, char **argv) {
    platform_debug_hooks(&argc, argv); // first thing in every program
    const char *companion = "./first_companion";
    PairHandle *pair = platform_pair_parent_open_lp("FIRST_PAIR", 1, 1, companion, NULL, companion, (char *) NULL);
    uint32_t value = 21;
    platform_pair_send(pair, &value, sizeof value);
    int answered = platform_pair_recv(pair, &value, sizeof value) == sizeof value;
    int32_t error = platform_pair_exec_error(pair); // why it could not be executed, 0 when it could
    platform_pair_stop(pair, 1000);                 // whatever it does, it has ended after this
    platform_pair_close(pair);
    if (!answered) {
        msg_fatal("The companion gave no answer: %s.", error != 0 ? strerror(error) : "it ended early");
    }
    msg_print("The companion answered %u.", value);
}
