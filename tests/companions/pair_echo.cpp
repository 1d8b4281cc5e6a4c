// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A companion that sends every value back, until the stream ends.
#include "companion.h"

int main() {
    return zel::test::echo_values(zel::test::open_or_exit(0, 1));
}
