// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Reading a prefix, and keeping its text while a message reads it.
#ifndef ZEL_MSG_INTERNAL_PREFIX_H
#define ZEL_MSG_INTERNAL_PREFIX_H

#include <msg/base/text.h>
#include <msg/internal/state.h>

#include <cstdlib>

namespace zel::msg {

// The kinds count from 1.
inline Prefix &prefix_of(PrefixKind kind) {
    return state.prefixes[static_cast<size_t>(kind) - 1];
}

// Returns the prefix, never null.
inline const char *prefix_text(PrefixKind kind) {
    return prefix_of(kind).text.data();
}

// Returns the prefix whose text contains the address, or null. The addresses are compared
// as numbers: they may belong to different objects.
inline Prefix *prefix_around(const char *text) {
    for (Prefix &prefix : state.prefixes) {
        const auto position = reinterpret_cast<uintptr_t>(text) - reinterpret_cast<uintptr_t>(prefix.text.data());
        if (position <= prefix.text.size()) {
            return &prefix;
        }
    }
    return nullptr;
}

// Keeps the text of a prefix while a message reads it. A setter that replaces the text
// does not release it then: the outermost message that reads the old text releases it. A
// text that belongs to no prefix is left alone.
struct PrefixInUse {
    const std::string_view text;

    explicit PrefixInUse(PrefixKind kind) : PrefixInUse(&prefix_of(kind), prefix_text(kind)) {}
    // text: a prefix, or an address within it.
    explicit PrefixInUse(const char *given) : PrefixInUse(prefix_around(given), given) {}
    PrefixInUse(const PrefixInUse &) = delete;
    PrefixInUse &operator=(const PrefixInUse &) = delete;

    // The text is not released while it is read, so no other text takes its address.
    // Another address in the prefix means that a setter replaced the text.
    ~PrefixInUse() {
        if (prefix_ == nullptr) {
            return;
        }
        if (prefix_->owned == owned_) {
            --prefix_->readers;
        } else if (outermost_) {
            free(owned_);
        }
    }

private:
    PrefixInUse(Prefix *prefix, const char *from) : text(text_from(prefix, from)), prefix_(prefix) {
        if (prefix_ != nullptr) {
            owned_ = prefix_->owned;
            outermost_ = prefix_->readers == 0;
            ++prefix_->readers;
        }
    }

    // The length of a prefix is known.
    static std::string_view text_from(const Prefix *prefix, const char *from) {
        return prefix == nullptr ? from : part_from(prefix->text, static_cast<size_t>(from - prefix->text.data()));
    }

    Prefix *const prefix_; // null: the text belongs to no prefix
    char *owned_ = nullptr;
    bool outermost_ = false;
};

} // namespace zel::msg

#endif
