// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A companion that gets a length, and then exchanges that many bytes for as many from its parent.
#include "companion.h"

#include <components/platform/pair_control.h>

#include <string>

int main() {
    using namespace zel::test;
    PairHandle *ph = open_or_exit(0, 1);
    int32_t length = 0;
    if (platform_pair_recv_all(ph, &length, sizeof length, -1, nullptr) != PLATFORM_PAIR_DONE) {
        return kReceiveFailed;
    }
    const std::string ours(static_cast<size_t>(length), 'e');
    std::string theirs(static_cast<size_t>(length), '\0');
    const int result = platform_pair_exchange(ph, ours.data(), length, theirs.data(), length, -1);
    platform_pair_close(ph);
    return result == PLATFORM_PAIR_DONE ? kServed : kSendFailed;
}
