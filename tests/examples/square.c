/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * The companion of the example of pair_control.h, as it stands there. A test compares them line by line. */
#include <components/platform/pair_control.h>

#include <signal.h>
#include <stddef.h>

int main(void) {
    PairHandle *pair = platform_pair_child_open("SQUARE_PAIR", 0, 1);
    int32_t number;
    platform_pair_follow_parent(pair, SIGKILL);
    platform_pair_child_seal(pair, "SQUARE_PAIR");
    while (platform_pair_recv_all(pair, &number, sizeof number, -1, NULL) == PLATFORM_PAIR_DONE) {
        number *= number;
        platform_pair_send_all(pair, &number, sizeof number, -1, NULL);
    }
    platform_pair_close(pair);
    return 0;
}
