// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The agreement between the pair's companions and the tests that start them.
#ifndef ZEL_TESTS_COMPANIONS_PAIR_VALUES_H
#define ZEL_TESTS_COMPANIONS_PAIR_VALUES_H

#include <components/platform/zel_pair_connection.h>

namespace zel::test {

// The variable that carries a companion's end, unless a test says otherwise.
inline constexpr const char *kPairVariable = "ZEL_TEST_PAIR";

// How a companion ends. The statuses that a test asks pair_ender for are not among them.
enum PairExit : int {
    kServed = 0,          // the stream ended after all that was to be done
    kNotOpen = 1,         // its end could not be opened; a message says why
    kSendFailed = 10,     // a value could not be sent
    kReceiveFailed = 11,  // the stream ended where a value was due
    kTookDescriptor = 12, // pair_hybrid: the number was taken for a descriptor, not for a port
    kNoReport = 13,       // pair_reporter: its own descriptors could not be listed
    kNotInterrupted = 14, // pair_slow_end: the stream ended before any SIGTERM came
};

// Whole transfers over a blocking pair. False when the stream ended or an error stands in the handle.
inline bool send_whole(PairHandle *ph, const void *buffer, int32_t length) {
    const char *data = static_cast<const char *>(buffer);
    for (int32_t sent = 0; sent < length;) {
        const int32_t count = platform_pair_send(ph, data + sent, length - sent);
        if (count == 0) {
            return false;
        }
        sent += count;
    }
    return true;
}

inline bool receive_whole(PairHandle *ph, void *buffer, int32_t length) {
    char *data = static_cast<char *>(buffer);
    for (int32_t received = 0; received < length;) {
        const int32_t count = platform_pair_recv(ph, data + received, length - received);
        if (count == 0) {
            return false;
        }
        received += count;
    }
    return true;
}

inline bool send_value(PairHandle *ph, int32_t value) {
    return send_whole(ph, &value, sizeof value);
}

inline bool receive_value(PairHandle *ph, int32_t *value) {
    return receive_whole(ph, value, sizeof *value);
}

} // namespace zel::test

#endif
