// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// All mutable state of the message library.
#ifndef ZEL_MSG_INTERNAL_STATE_H
#define ZEL_MSG_INTERNAL_STATE_H

#include <msg/base/limits.h>
#include <msg/msg.h>

#include <array>

namespace zel::msg {

// The five prefixes; their numbers also identify the setters in the warning of a setter that found no memory.
enum class PrefixKind : int { print = 1, warn = 2, mp = 3, error = 4, internal_error = 5 };
inline constexpr size_t kPrefixCount = 5;

struct Prefix {
    const char *text; // current text
    char *owned;      // the same when a setter allocated it, else null
    int32_t readers;  // messages under way that read the owned text
};

// The indentation under a prefix has at most this many spaces, with its NUL. A longer prefix still counts in full for
// the column.
inline constexpr size_t kIndentationSize = 50;

// A lead text of our own: it fits its array unless a message consisted of nothing but a continuation under a long
// prefix of the caller's.
struct LeadText {
    std::array<char, kIndentationSize> fixed;
    char *longer; // used instead of fixed when not null; from malloc
};

// What a continuation continues. Type 0: no message has been written yet.
struct LastMessage {
    int type;
    int fmt_type;
    int primary_only;
    LeadText lead_text;
};

inline constexpr size_t kTypeCount = 5;
using SpareSlots = std::array<FILE *, kStreamListStep>;

struct State {
    bool streams_ready;                             // set once, before the standard streams are added
    std::array<MsgStreamDesc, kTypeCount> streams;  // by bit number of the type
    std::array<SpareSlots, kTypeCount> spare_slots; // first lists when a report of the memory library finds no other
    int32_t primary = 1;                            // primary-only messages are written while not 0
    int32_t column = 0;                             // characters on the current output line, of all types and streams
    LastMessage last;
    std::array<Prefix, kPrefixCount> prefixes;
    int32_t width = 78; // columns; 0: no wrapping
    bool width_settled; // set once: the environment was read or the width was set
};

extern State state;

} // namespace zel::msg

#endif
