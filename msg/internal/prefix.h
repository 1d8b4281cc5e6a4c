// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Reading a prefix, and keeping its text while a message reads it.
#ifndef ZEL_MSG_INTERNAL_PREFIX_H
#define ZEL_MSG_INTERNAL_PREFIX_H

#include <msg/internal/state.h>

namespace zel::msg {

// Returns the prefix, never null.
const char *prefix_text(PrefixKind kind);

// Keeps the text of a prefix while a message reads it. A setter that replaces the text
// does not release it then: the outermost message that reads the old text releases it. A
// text that belongs to no prefix is left alone.
struct PrefixInUse {
    // text: a prefix, or an address within it.
    explicit PrefixInUse(const char *text);
    PrefixInUse(const PrefixInUse &) = delete;
    PrefixInUse &operator=(const PrefixInUse &) = delete;
    ~PrefixInUse();

private:
    Prefix *const prefix_; // null: the text belongs to no prefix
    char *owned_ = nullptr;
    bool outermost_ = false;
};

} // namespace zel::msg

#endif
