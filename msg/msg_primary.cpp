// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The primary flag.
#include <msg/internal/state.h>
#include <msg/msg.h>

using zel::msg::state;

void msg_set_primary(int flag) {
    state.primary = flag;
}

int msg_is_primary() {
    return state.primary;
}
