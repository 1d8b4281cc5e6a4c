// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The state that the files of the message library share. The text areas stand in
// msg_format.cpp, the log directory and the login name in diag_log.cpp.
#ifndef ZEL_MSG_INTERNAL_STATE_H
#define ZEL_MSG_INTERNAL_STATE_H

#include <msg/base/limits.h>
#include <msg/msg.h>

#include <array>
#include <string_view>

// Hidden: the variable is reached by its place, and its address is not read from a table.
#pragma GCC visibility push(hidden)

namespace zel::msg {

// The five prefixes. The number of a prefix stands in the warning of its setter.
enum class PrefixKind : int { print = 1, warn = 2, mp = 3, error = 4, internal_error = 5 };
inline constexpr size_t kPrefixCount = 5;

struct Prefix {
    std::string_view text; // the text in force; a NUL follows it
    char *owned;           // the same text if a setter allocated it, else null
    int32_t readers;       // messages under way that read the text
};

// The size of the longest indentation with its NUL: 49 spaces.
inline constexpr size_t kIndentationSize = 50;

// The text with which the next line of a message begins: an indentation, or the prefix of
// a message that opened no line. A prefix is copied, since a setter may release it.
struct LeadText {
    const char *indentation;                  // spaces that live for ever; null: a prefix
    std::array<char, kIndentationSize> fixed; // a prefix that fits, or what fits of it
    char *longer;                             // a whole prefix that does not fit, or null; from malloc
};

// The message that a continuation continues. Type 0: no message has been written yet.
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
    std::array<SpareSlots, kTypeCount> spare_slots; // first slots, when a memory report finds no memory
    int32_t primary = 1;                            // primary-only messages are written while not 0
    int32_t column = 0;                             // characters on the current line, for all types and streams
    LastMessage last;
    std::array<Prefix, kPrefixCount> prefixes;
    int32_t width = 78; // columns; 0: no wrapping
    bool width_settled; // set once: the environment was read or the width was set
};

extern State state;

} // namespace zel::msg

#pragma GCC visibility pop

#endif
