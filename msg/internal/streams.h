// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The stream list of a type, as each message asks for it.
#ifndef ZEL_MSG_INTERNAL_STREAMS_H
#define ZEL_MSG_INTERNAL_STREAMS_H

#include <msg/internal/state.h>

#include <bit>

namespace zel::msg {

// The position of a type's bit, which is the index of its list. An unknown type has
// kTypeCount.
inline size_t type_index(int type) {
    const auto bits = static_cast<unsigned>(type);
    const bool one_bit = bits != 0 && (bits & (bits - 1)) == 0;
    return one_bit && bits <= MSG_DIAG ? static_cast<size_t>(std::countr_zero(bits)) : kTypeCount;
}

// _msg_get_stream_desc without the call.
inline const MsgStreamDesc *streams_of(int type) {
    const size_t index = type_index(type);
    return state.streams_ready && index < kTypeCount ? &state.streams[index] : _msg_get_stream_desc(type);
}

} // namespace zel::msg

#endif
