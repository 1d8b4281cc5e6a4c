// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The prefixes as the output calls read them, and how long a text that a message reads stays there.
#ifndef ZEL_MSG_INTERNAL_PREFIX_H
#define ZEL_MSG_INTERNAL_PREFIX_H

#include <msg/internal/state.h>

namespace zel::msg {

// The prefix as it stands, never null.
const char *prefix_text(PrefixKind kind);

// Keeps a text of a prefix while a message reads it. A setter that replaces the text leaves it to the messages that are
// reading it; the outermost of them is the last to end, and releases it. A text that is none of a prefix's is its
// owner's business.
struct PrefixInUse {
    // text: the prefix, or any place in it.
    explicit PrefixInUse(const char *text);
    PrefixInUse(const PrefixInUse &) = delete;
    PrefixInUse &operator=(const PrefixInUse &) = delete;
    ~PrefixInUse();

private:
    Prefix *const prefix_; // null: the text needs no keeping
    char *owned_ = nullptr;
    bool outermost_ = false;
};

} // namespace zel::msg

#endif
