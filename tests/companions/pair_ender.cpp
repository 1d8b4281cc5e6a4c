// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A companion that ends as it is told: by the exit status that it receives, or for -N by signal N.
#include "companion.h"

#include <csignal>

int main() {
    PairHandle *ph = zel::test::open_or_exit(0, 1);
    int32_t value;
    if (!zel::test::receive_value(ph, &value)) {
        return zel::test::kReceiveFailed;
    }
    platform_pair_close(ph);
    if (value < 0) {
        signal(-value, SIG_DFL);
        raise(-value);
    }
    return value;
}
