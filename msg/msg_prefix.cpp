// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The five prefixes.
#include <msg/internal/prefix.h>
#include <msg/msg.h>

#include <cstdlib>

using zel::msg::prefix_text;
using zel::msg::PrefixKind;

namespace {

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
    zel::msg::Prefix &prefix = zel::msg::prefix_of(kind);
    if (prefix.readers == 0) {
        free(prefix.owned);
    }
    prefix = {.text = {copy, size - 1}, .owned = copy, .readers = 0};
}

} // namespace

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
