// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A companion that opens its end with the signals ignored: it sends 0 when it is ready, then every value back.
#include "companion.h"

int main() {
    PairHandle *ph = zel::test::open_or_exit(1, 1);
    return zel::test::send_value(ph, 0) ? zel::test::echo_values(ph) : zel::test::kSendFailed;
}
