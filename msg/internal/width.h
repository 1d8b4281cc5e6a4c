// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The width limit, as each line asks for it.
#ifndef ZEL_MSG_INTERNAL_WIDTH_H
#define ZEL_MSG_INTERNAL_WIDTH_H

#include <msg/internal/state.h>

#pragma GCC visibility push(hidden)

namespace zel::msg {

// Takes the width from the environment, unless it was set.
void settle_width();

inline int32_t width_limit() {
    if (!state.width_settled) {
        settle_width();
    }
    return state.width;
}

} // namespace zel::msg

#pragma GCC visibility pop

#endif
