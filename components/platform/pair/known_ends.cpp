// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Remembers which companions have ended, for handles whose fields do not say so.
#include <components/platform/pair/handle.h>

#include <msg/base/limits.h>

#include <array>

namespace zel::pair {

namespace {

// A companion, known by its handle and its number.
struct Companion {
    const PairHandle *handle;
    int32_t pid;
    bool operator==(const Companion &) const = default;
};

// A fixed table: it works when memory has run out.
struct State {
    std::array<Companion, kKnownEnds> ended; // a null handle is a free entry
    size_t oldest;                           // the entry that is replaced when none is free
};

constinit State state = {};

Companion companion_of(const PairHandle *ph) {
    return {.handle = ph, .pid = ph->companion_pid};
}

Companion *find(const Companion &companion) {
    for (Companion &entry : state.ended) {
        if (entry == companion) {
            return &entry;
        }
    }
    return nullptr;
}

Companion *give_up_oldest() {
    Companion *entry = &state.ended[state.oldest];
    state.oldest = (state.oldest + 1) % state.ended.size();
    return entry;
}

} // namespace

bool has_known_end(const PairHandle *ph) {
    return ph->child_exit_status != PLATFORM_PAIR_STATUS_UNKNOWN || find(companion_of(ph)) != nullptr;
}

void remember_end(const PairHandle *ph) {
    Companion *entry = find({});
    *(entry != nullptr ? entry : give_up_oldest()) = companion_of(ph);
}

void forget_ends(const PairHandle *ph) {
    for (Companion &entry : state.ended) {
        if (entry.handle == ph) {
            entry = {};
        }
    }
}

} // namespace zel::pair
