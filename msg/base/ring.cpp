// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Rings of the bytes written last.
#include <msg/base/ring.h>

#include <msg/base/sigpipe.h>
#include <msg/base/text.h>
#include <msg/base/write_all.h>

#include <algorithm>

namespace zel {

namespace {

struct State {
    Ring *first;      // opened first, or null
    bool written_out; // set once, at the fatal end
};

constinit State state = {};

// Drops the oldest bytes until so many are free.
void make_room(Ring &ring, size_t length) {
    const size_t size = ring.bytes.size();
    const size_t kept = size - length;
    if (ring.used <= kept) {
        return;
    }
    const size_t dropped = ring.used - kept;
    ring.dropped = ring.bytes[(ring.start + dropped - 1) % size];
    ring.start = (ring.start + dropped) % size;
    ring.used = kept;
}

// Takes in a text that is not longer than the ring.
void append_part(Ring &ring, std::string_view text) {
    make_room(ring, text.size());
    const size_t end = (ring.start + ring.used) % ring.bytes.size();
    const size_t at_end = copy_part(ring.bytes.subspan(end), text);
    copy_part(ring.bytes, part_from(text, at_end));
    ring.used += text.size();
}

// The text of the ring in its two parts: up to the end of the storage, and from its
// start.
struct Parts {
    std::string_view older;
    std::string_view newer;
};

Parts parts_of(const Ring &ring) {
    const std::string_view bytes(ring.bytes.data(), ring.bytes.size());
    const std::string_view older = first_part(part_from(bytes, ring.start), ring.used);
    return {.older = older, .newer = first_part(bytes, ring.used - older.size())};
}

// Returns the length of the line at the start of the text, with its newline; 0 without
// one.
size_t line_length(const Parts &parts) {
    const size_t in_older = parts.older.find('\n');
    if (in_older != std::string_view::npos) {
        return in_older + 1;
    }
    const size_t in_newer = parts.newer.find('\n');
    return in_newer == std::string_view::npos ? 0 : parts.older.size() + in_newer + 1;
}

// The parts without the end of a line whose beginning was dropped, unless that is all.
Parts whole_lines(const Ring &ring) {
    const Parts all = parts_of(ring);
    const size_t skipped = ring.dropped == '\n' ? 0 : line_length(all);
    if (skipped == ring.used) {
        return all;
    }
    const size_t in_older = std::min(skipped, all.older.size());
    return {.older = part_from(all.older, in_older), .newer = part_from(all.newer, skipped - in_older)};
}

bool write_part(int fd, std::string_view part) {
    return write_all(fd, part) == part.size();
}

} // namespace

void append(Ring &ring, std::string_view text) {
    while (!text.empty()) {
        const std::string_view part = first_part(text, ring.bytes.size());
        append_part(ring, part);
        text.remove_prefix(part.size());
    }
}

bool write_out(const Ring &ring, int fd) {
    const SigpipeBlocked blocked;
    const Parts parts = whole_lines(ring);
    return write_part(fd, parts.older) && write_part(fd, parts.newer);
}

void remember(Ring *ring) {
    Ring **place = &state.first;
    while (*place != nullptr) {
        place = &(*place)->next;
    }
    *place = ring;
}

void forget(const Ring *ring) {
    Ring **place = &state.first;
    while (*place != nullptr && *place != ring) {
        place = &(*place)->next;
    }
    if (*place != nullptr) {
        *place = ring->next;
    }
}

Ring *ring_of(const FILE *stream) {
    Ring *ring = state.first;
    while (ring != nullptr && ring->stream != stream) {
        ring = ring->next;
    }
    return ring;
}

void write_out_rings() {
    if (state.written_out) {
        return;
    }
    state.written_out = true;
    for (const Ring *ring = state.first; ring != nullptr; ring = ring->next) {
        if (ring->fd != -1) {
            write_out(*ring, ring->fd);
        }
    }
}

} // namespace zel
