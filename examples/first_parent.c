// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A first parent: it starts its companion, sends a number, prints the answer. Usage: first_parent [COMPANION]
#include <string.h>
#include <zel.h>

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
    platform_debug_hooks(&argc, argv); // first thing in every program
    const char *companion = argc > 1 ? argv[1] : "./first_companion";
    const int stdio_fds[3] = {0, 1, 2}; // the companion shares our input, output and errors
    PairHandle *pair = platform_pair_parent_open_lp("FIRST_PAIR", 1, 1, companion, stdio_fds, companion, (char *) NULL);
    if (!platform_pair_ok(pair)) {
        msg_fatal("%s: %s", pair->error_text, platform_pair_errstr(pair));
    }
    uint32_t value = 21;
    int answered = platform_pair_send(pair, &value, sizeof value) == sizeof value && receive(pair, &value);
    int32_t error = platform_pair_exec_error(pair); // known once the stream has ended without an answer
    int32_t pid = platform_pair_companion_pid(pair);
    int32_t status = 0;
    platform_pair_close(pair);         // the companion sees the end of the stream and ends,
    platform_wait_child(pid, &status); // and is reaped
    if (!answered) {
        msg_fatal("%s gave no answer: %s.", companion, error != 0 ? strerror(error) : "it ended early");
    }
    msg_print("The companion answered %u; its wait status is %d.", value, status);
    return 0;
}
