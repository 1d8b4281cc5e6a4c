// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The prefixes as the output calls read them.
#ifndef ZEL_MSG_INTERNAL_SETTINGS_H
#define ZEL_MSG_INTERNAL_SETTINGS_H

#include <msg/internal/state.h>

namespace zel::msg {

// The prefix as it stands, never null.
const char *prefix_text(PrefixKind kind);

} // namespace zel::msg

#endif
