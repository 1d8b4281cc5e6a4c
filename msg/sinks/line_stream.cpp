// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A stream that hands over whole lines.
#include <msg/sinks/line_stream.h>

#include <msg/base/errno_kept.h>
#include <msg/base/limits.h>
#include <msg/base/text.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <unistd.h>

namespace zel::msg {

namespace {

struct LineStream {
    LineStream *next; // opened before
    MsgSinkFunction take;
    void *user;
    void (*release)(void *user);
    bool handing_over; // the function is being called
    pid_t owner;       // the process that wrote what is collected
    size_t used;
    std::array<char, kSinkLineSize> line; // collected
};

struct State {
    LineStream *latest;  // or null
    bool ends_with_exit; // set once: open lines are handed over at the exit
};

constinit State state = {};

// A line that was taken leaves errno as it was.
bool hand_over(LineStream &stream) {
    const int error = errno;
    const size_t length = stream.used;
    stream.used = 0;
    stream.handing_over = true;
    errno = 0;
    const bool taken = stream.take(stream.line.data(), length, stream.user) != 0;
    stream.handing_over = false;
    errno = taken ? error : errno;
    return taken;
}

// A forked child inherits the line, but its text is the parent's.
void hand_over_open_line(LineStream &stream) {
    if (stream.used > 0 && !stream.handing_over && stream.owner == getpid()) {
        hand_over(stream);
    }
}

void hand_over_open_lines() {
    for (LineStream *stream = state.latest; stream != nullptr; stream = stream->next) {
        hand_over_open_line(*stream);
    }
}

void claim_line(LineStream &stream) {
    const pid_t self = getpid();
    if (stream.owner != self) {
        stream.used = 0;
        stream.owner = self;
    }
}

// Collects the text up to the end of its line, or what there is room for. Returns its
// length.
size_t collect(LineStream &stream, std::string_view text) {
    const size_t newline = text.find('\n');
    const std::string_view line = first_part(text, newline == std::string_view::npos ? newline : newline + 1);
    const size_t length = copy_part(std::span(stream.line).subspan(stream.used), line);
    stream.used += length;
    return length;
}

bool is_complete(const LineStream &stream) {
    return stream.used == stream.line.size() || stream.line[stream.used - 1] == '\n';
}

// What the function writes to its own stream is passed over: it would follow itself for
// ever.
ssize_t write_text(void *cookie, const char *text, size_t size) {
    LineStream &stream = *static_cast<LineStream *>(cookie);
    if (stream.handing_over) {
        return static_cast<ssize_t>(size);
    }
    claim_line(stream);
    for (std::string_view rest(text, size); !rest.empty();) {
        rest.remove_prefix(collect(stream, rest));
        if (is_complete(stream) && !hand_over(stream)) {
            return 0;
        }
    }
    return static_cast<ssize_t>(size);
}

void forget(const LineStream *stream) {
    LineStream **place = &state.latest;
    while (*place != nullptr && *place != stream) {
        place = &(*place)->next;
    }
    if (*place != nullptr) {
        *place = stream->next;
    }
}

int close_stream(void *cookie) {
    auto *stream = static_cast<LineStream *>(cookie);
    hand_over_open_line(*stream);
    forget(stream);
    if (stream->release != nullptr) {
        stream->release(stream->user);
    }
    free(stream);
    return 0;
}

bool end_with_exit() {
    if (!state.ends_with_exit) {
        state.ends_with_exit = atexit(hand_over_open_lines) == 0;
    }
    return state.ends_with_exit;
}

FILE *open_stream(LineStream *stream) {
    const cookie_io_functions_t calls = {.read = nullptr, .write = write_text, .seek = nullptr, .close = close_stream};
    FILE *file = end_with_exit() ? fopencookie(stream, "w", calls) : nullptr;
    if (file != nullptr) {
        setvbuf(file, nullptr, _IONBF, 0); // the stream collects its lines itself
        stream->next = state.latest;
        state.latest = stream;
    }
    return file;
}

} // namespace

FILE *open_line_stream(MsgSinkFunction take, void *user, void (*release)(void *user)) {
    auto *stream = static_cast<LineStream *>(malloc(sizeof(LineStream)));
    if (stream == nullptr) {
        return nullptr;
    }
    stream->take = take;
    stream->user = user;
    stream->release = release;
    stream->handing_over = false;
    stream->owner = getpid();
    stream->used = 0;
    FILE *file = open_stream(stream);
    if (file == nullptr) {
        const ErrnoKept kept;
        free(stream);
    }
    return file;
}

} // namespace zel::msg

FILE *msg_open_function(MsgSinkFunction function, void *user) {
    if (function == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    return zel::msg::open_line_stream(function, user, nullptr);
}
