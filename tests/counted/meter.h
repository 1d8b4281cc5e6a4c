// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Counters of memory and copies. They run while they are on.
#ifndef ZEL_TESTS_COUNTED_METER_H
#define ZEL_TESTS_COUNTED_METER_H

#include <cstddef>

namespace zel::test {

struct Meter {
    bool on;
    size_t allocations; // blocks asked for, the C library's own included; a resize counts
    size_t releases;    // blocks given back
    size_t copied;      // bytes that this program handed to memcpy and memmove
};

extern Meter meter;

} // namespace zel::test

#endif
