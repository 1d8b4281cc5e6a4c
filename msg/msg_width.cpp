// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The width limit.
#include <msg/internal/width.h>

#include <msg/base/errno_kept.h>
#include <msg/msg.h>

#include <algorithm>
#include <cstdlib>

using zel::msg::state;

namespace {

// The largest number that the variable may set.
constexpr long kWidestFromEnvironment = 32766;

} // namespace

// DELIBERATE: a number in the variable widens the limit and never narrows it.
// Test: MsgWidth.TheVariableWidensTheDefaultButNeverNarrowsIt.
// DELIBERATE: a number out of range turns wrapping off.
// Test: MsgWidth.ANumberOutOfRangeTurnsWrappingOff.
void zel::msg::settle_width() {
    const zel::ErrnoKept kept;
    state.width_settled = true;
    const char *text = getenv("ZEL_MSGERR_WRAP");
    if (text == nullptr) {
        return;
    }
    char *end = nullptr;
    const long number = strtol(text, &end, 10);
    if (end == text) {
        return;
    }
    const bool usable = number >= 1 && number <= kWidestFromEnvironment;
    state.width = usable ? std::max(state.width, static_cast<int32_t>(number)) : 0;
}

// DELIBERATE: the reported text is fixed. Test: MsgWidth.ANegativeWidthEndsTheProcess.
void msg_set_width_limit(int32_t width) {
    if (width < 0) {
        msg_fatal("msg_set_width_limit: Width cannot be less than 0!");
    }
    state.width = width;
    state.width_settled = true;
}

int32_t msg_get_width_limit() {
    return zel::msg::width_limit();
}
