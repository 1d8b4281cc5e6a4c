// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The five prefixes.
#include <msg/internal/prefix.h>
#include <msg/msg.h>

#include <algorithm>
#include <cstdlib>

using zel::msg::prefix_text;
using zel::msg::PrefixKind;
using zel::msg::state;

namespace {

// The kinds count from 1.
zel::msg::Prefix &prefix_of(PrefixKind kind) {
    return state.prefixes[static_cast<size_t>(kind) - 1];
}

// DELIBERATE: the reported text is fixed: it says "print prefix" for every setter, and
// the number names the setter. Test:
// MsgPrefix.ASetterWithoutMemoryWarnsAndKeepsThePrefix.
void set_prefix(PrefixKind kind, const char *text) {
    const char *wanted = text == nullptr ? "" : text;
    const size_t size = strlen(wanted) + 1;
    char *copy = static_cast<char *>(malloc(size));
    if (copy == nullptr) {
        msg_warn("%d: Couldn't allocate %d characters to store print prefix. Prefix unchanged.", static_cast<int>(kind),
                 static_cast<int>(size));
        return;
    }
    // The copy comes first: the new text may be part of the old one.
    memcpy(copy, wanted, size);
    zel::msg::Prefix &prefix = prefix_of(kind);
    if (prefix.readers == 0) {
        free(prefix.owned);
    }
    prefix = {.text = copy, .owned = copy, .readers = 0};
}

// Compares the addresses as numbers: they may belong to different objects.
bool is_part_of(const char *text, const char *whole) {
    const auto position = reinterpret_cast<uintptr_t>(text) - reinterpret_cast<uintptr_t>(whole);
    return position <= strlen(whole);
}

// Returns the prefix whose allocated text contains the address, or null.
zel::msg::Prefix *prefix_around(const char *text) {
    auto *const found = std::find_if(state.prefixes.begin(), state.prefixes.end(), [text](const auto &prefix) {
        return prefix.owned != nullptr && is_part_of(text, prefix.owned);
    });
    return found == state.prefixes.end() ? nullptr : found;
}

} // namespace

const char *zel::msg::prefix_text(PrefixKind kind) {
    return prefix_of(kind).text;
}

// Only an allocated text is kept. A default is never released.
zel::msg::PrefixInUse::PrefixInUse(const char *text) : prefix_(prefix_around(text)) {
    if (prefix_ != nullptr) {
        owned_ = prefix_->owned;
        outermost_ = prefix_->readers == 0;
        ++prefix_->readers;
    }
}

// The text is not released while it is read, so no other text takes its address. Another
// address in the prefix means that a setter replaced the text.
zel::msg::PrefixInUse::~PrefixInUse() {
    if (prefix_ == nullptr) {
        return;
    }
    if (prefix_->owned == owned_) {
        --prefix_->readers;
    } else if (outermost_) {
        free(owned_);
    }
}

void msg_set_print_prefix(const char *text) {
    set_prefix(PrefixKind::print, text);
}

void msg_set_warn_prefix(const char *text) {
    set_prefix(PrefixKind::warn, text);
}

void msg_set_mp_prefix(const char *text) {
    set_prefix(PrefixKind::mp, text);
}

void msg_set_error_prefix(const char *text) {
    set_prefix(PrefixKind::error, text);
}

void msg_set_internal_error_prefix(const char *text) {
    set_prefix(PrefixKind::internal_error, text);
}

const char *msg_get_print_prefix() {
    return prefix_text(PrefixKind::print);
}

const char *msg_get_warn_prefix() {
    return prefix_text(PrefixKind::warn);
}

const char *msg_get_mp_prefix() {
    return prefix_text(PrefixKind::mp);
}

const char *msg_get_error_prefix() {
    return prefix_text(PrefixKind::error);
}

const char *msg_get_internal_error_prefix() {
    return prefix_text(PrefixKind::internal_error);
}
