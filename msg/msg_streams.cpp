// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The stream lists of the message types.
#include <msg/internal/streams.h>

#include <msg/base/limits.h>
#include <msg/base/memory_report.h>
#include <msg/base/ring.h>
#include <msg/internal/write.h>
#include <msg/msg.h>

#include <algorithm>
#include <cstdlib>

using zel::msg::state;
using zel::msg::type_index;

namespace {

struct TypeEntry {
    int type;
    const char *name;
};

constexpr std::array<TypeEntry, zel::msg::kTypeCount> kTypes = {{
    {MSG_INFO, "informational"},
    {MSG_DEBUG, "debug"},
    {MSG_WARNING, "warning"},
    {MSG_ERROR, "error"},
    {MSG_DIAG, "diag"},
}};
static_assert(MSG_INFO == 1 && MSG_DEBUG == 2 && MSG_WARNING == 4 && MSG_ERROR == 8 && MSG_DIAG == 16);
static_assert(MSG_FMT_RAW == 0 && MSG_FMT_WRAP == 1 && MSG_FMT_LINE == 2);

// DELIBERATE: the reported text is fixed and has no newline.
// Test: MsgMemory.WithoutTheFirstSlotsOfAListTheProcessEnds.
[[noreturn]] void out_of_first_slots() {
    fputs("Couldn't allocate initial storage space for stream output array.", stderr);
    zel::write_out_rings();
    exit(1);
}

FILE **spare_slots_of(const MsgStreamDesc *desc) {
    return state.spare_slots[static_cast<size_t>(desc - state.streams.data())].data();
}

// Allocates the first slots of a list, or ends the process. A report of the memory
// library gets the spare slots instead.
FILE **first_slots(const MsgStreamDesc *desc, size_t bytes) {
    auto *slots = static_cast<FILE **>(malloc(bytes));
    if (slots != nullptr) {
        return slots;
    }
    if (!zel::memory_report_under_way()) {
        out_of_first_slots();
    }
    return spare_slots_of(desc);
}

// Returns larger slots with the streams of the list, or null without memory. Spare slots
// are not on the heap: their streams are copied.
FILE **more_slots(const MsgStreamDesc *desc, size_t bytes) {
    if (desc->streams != spare_slots_of(desc)) {
        return static_cast<FILE **>(realloc(desc->streams, bytes));
    }
    auto *slots = static_cast<FILE **>(malloc(bytes));
    if (slots != nullptr) {
        std::copy_n(desc->streams, desc->count, slots);
    }
    return slots;
}

// Makes room for one more stream.
// DELIBERATE: the reported text is fixed. Test:
// MsgMemory.AListThatCannotGrowKeepsItsStreamsAndWarns.
bool grow(MsgStreamDesc *desc) {
    const int32_t capacity = desc->capacity + zel::kStreamListStep;
    const size_t bytes = static_cast<size_t>(capacity) * sizeof(FILE *);
    FILE **slots = desc->streams == nullptr ? first_slots(desc, bytes) : more_slots(desc, bytes);
    if (slots == nullptr) {
        msg_warn("Couldn't allocate more storage for stream array.  Not adding stream.");
        return false;
    }
    desc->streams = slots;
    desc->capacity = capacity;
    return true;
}

void append(MsgStreamDesc *desc, FILE *stream) {
    if (desc->count == desc->capacity && !grow(desc)) {
        return;
    }
    desc->streams[desc->count++] = stream;
}

void remove_first(MsgStreamDesc *desc, FILE *stream) {
    FILE **const end = desc->streams + desc->count;
    FILE **const found = std::find(desc->streams, end, stream);
    if (found != end) {
        std::copy(found + 1, end, found);
        --desc->count;
    }
}

// Builds the table on the first call that touches a list. The table counts as ready
// before the standard streams are added, because adding them calls this function.
void init_streams() {
    if (state.streams_ready) {
        return;
    }
    state.streams_ready = true;
    state.streams = {};
    state.streams[type_index(MSG_INFO)].sync = 1;
    msg_add_stream(MSG_INFO | MSG_DEBUG, stdout);
    msg_add_stream(MSG_WARNING | MSG_ERROR, stderr);
}

// Walks by index: a stream that is flushed may add streams, and the list moves.
void force_list_to_disk(const MsgStreamDesc &desc) {
    for (int32_t index = 0; index < desc.count; ++index) {
        zel::msg::force_to_disk(desc.streams[index]);
    }
}

template <typename Action>
void for_each_type(int type_mask, Action action) {
    init_streams();
    for (size_t index = 0; index < kTypes.size(); ++index) {
        if ((type_mask & kTypes[index].type) != 0) {
            action(&state.streams[index]);
        }
    }
}

bool has_stream(int type) {
    return _msg_get_stream_desc(type)->count > 0;
}

} // namespace

void msg_add_stream(int type_mask, FILE *stream) {
    if (stream == nullptr) {
        return;
    }
    for_each_type(type_mask, [stream](MsgStreamDesc *desc) { append(desc, stream); });
}

void msg_remove_stream(int type_mask, FILE *stream) {
    for_each_type(type_mask, [stream](MsgStreamDesc *desc) { remove_first(desc, stream); });
}

void msg_clear_streams(int type_mask) {
    for_each_type(type_mask, [](MsgStreamDesc *desc) { desc->count = 0; });
}

// DELIBERATE: the reported text is fixed. Test: MsgOutput.AnUnknownTypeEndsTheProcess.
MsgStreamDesc *_msg_get_stream_desc(int type) {
    init_streams();
    const size_t index = type_index(type);
    if (index == kTypes.size()) {
        msg_fatal("Internal error (_msg_get_stream_desc): Unknown message type: %d", type);
    }
    return &state.streams[index];
}

int msg_info_has_stream() {
    return has_stream(MSG_INFO) ? 1 : 0;
}

int msg_warn_has_stream() {
    return has_stream(MSG_WARNING) ? 1 : 0;
}

// DELIBERATE: the reported text is fixed. Test:
// MsgOutput.NamingAnUnknownTypeEndsTheProcess.
const char *msg_type_name(int type) {
    const size_t index = type_index(type);
    if (index == kTypes.size()) {
        msg_fatal("Internal error: Unknown message type: %d", type);
    }
    return kTypes[index].name;
}

// The result starts at -2, for a mask without a type. In a query the first type gives its
// flag, and each further type gives -1.
// DELIBERATE: mode 0 does not clear a flag. Test:
// MsgStreams.SyncModeZeroDoesNotClearTheFlag.
// DELIBERATE: a query of several types gives -1. Test:
// MsgStreams.ASyncQueryOfTwoTypesGivesMinusOne.
int msg_sync_mode(int type_mask, int mode) {
    int result = -2;
    for_each_type(type_mask, [&result, mode](MsgStreamDesc *desc) {
        if (mode < 0) {
            result = result == -2 ? desc->sync : -1;
            return;
        }
        result = mode;
        if (mode == 1 && desc->sync == 0) {
            desc->sync = 1;
            force_list_to_disk(*desc);
        }
    });
    return result;
}
