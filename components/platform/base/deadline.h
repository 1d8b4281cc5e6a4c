// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The time at which a call gives up, whatever signals arrive before.
#ifndef ZEL_COMPONENTS_PLATFORM_BASE_DEADLINE_H
#define ZEL_COMPONENTS_PLATFORM_BASE_DEADLINE_H

#include <cstdint>
#include <ctime>

namespace zel {

struct Deadline {
    bool limited;        // false: the time never comes
    int64_t nanoseconds; // on the monotonic clock
};

// A negative time sets no limit.
Deadline deadline_after(int32_t milliseconds);

// The time left; 0 when it has passed. Not for a deadline without limit.
struct timespec time_left(const Deadline &deadline);

bool has_passed(const Deadline &deadline);

} // namespace zel

#endif
