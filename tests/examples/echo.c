// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The companion of the pair's example. It answers each value with the value less one, so that an answer is told from
// what was sent.
#include <components/platform/zel_pair_connection.h>

int main(void) {
    PairHandle *pair = platform_pair_child_open("ECHO_PAIR", 0, 1);
    int32_t value;
    while (platform_pair_recv(pair, &value, sizeof value) == sizeof value) {
        --value;
        platform_pair_send(pair, &value, sizeof value);
    }
    platform_pair_close(pair);
    return 0;
}
