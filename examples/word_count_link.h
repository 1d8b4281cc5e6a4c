// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The life of word_count's companion: started over a process pair or over TCP, watched,
// ended and reaped.
#ifndef ZEL_EXAMPLES_WORD_COUNT_LINK_H
#define ZEL_EXAMPLES_WORD_COUNT_LINK_H

#include <components/platform/zel_pair_connection.h>

#include <string>

namespace word_count {

struct Companion {
    std::string program;        // a path, or a name that is searched along PATH
    PairHandle *pair = nullptr; // our end; null before the start and after the end
};

// Starts companion.program, in the hybrid arrangement or not. False after an error
// message; nothing is left running.
bool start_companion(Companion &companion, bool hybrid);

// Asks the companion to end, waits for that, and prints how it ended. True when it ended
// by itself with exit status 0.
bool end_companion(Companion &companion);

// Ends a companion that is of no more use. The error message: what happened, then how the
// companion ended.
void give_up_companion(Companion &companion, const std::string &what);

} // namespace word_count

#endif
