// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A companion of the hybrid arrangement: it sends what its handle says, then every value back.
// Its argument is the number in the environment string: a handle that took it for a descriptor shows it as one.
#include "companion.h"

#include <components/platform/socket.h>

#include <cstdlib>

int main(int argc, char **argv) {
    PairHandle *ph = zel::test::open_or_exit(1, 1);
    if (argc < 2 || platform_pair_rx_fd(ph) == atoi(argv[1])) {
        platform_pair_close(ph);
        return zel::test::kTookDescriptor;
    }
    const int32_t said[] = {ph->kind,
                            platform_pair_hybrid_environment(ph),
                            platform_pair_child(ph),
                            platform_pair_companion_pid(ph),
                            platform_pair_companion_alive(ph),
                            platform_fd_is_blocking(platform_pair_rx_fd(ph))};
    for (const int32_t value : said) {
        if (!zel::test::send_value(ph, value)) {
            return zel::test::kSendFailed;
        }
    }
    return zel::test::echo_values(ph);
}
