// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The time at which a call gives up, whatever signals arrive before.
#ifndef ZEL_COMPONENTS_PLATFORM_BASE_DEADLINE_H
#define ZEL_COMPONENTS_PLATFORM_BASE_DEADLINE_H

#include <components/platform/base/descriptor.h>

#include <cstdint>
#include <ctime>
#include <poll.h>
#include <span>

namespace zel {

struct Deadline {
    int32_t milliseconds; // as it was given: negative for no limit, 0 for at once
    int64_t end;          // in nanoseconds of the monotonic clock; with a time above 0
};

// The deadline that lies that many milliseconds ahead.
Deadline deadline_after(int32_t milliseconds);

// A deadline without limit never comes.
bool is_limited(const Deadline &deadline);

// The time left; 0 when it has passed. Not for a deadline without limit.
struct timespec time_left(const Deadline &deadline);

bool has_passed(const Deadline &deadline);

// Waits until an entry is ready, at most up to the deadline. Entries with a negative
// descriptor are left out.
// - A time of 0 looks once. After the end of another time it is a time-out, also when an
//   entry is ready: a peer that never pauses does not prolong it.
// - Signals do not end the wait. A failure sets errno.
Readiness poll_until(const Deadline &deadline, std::span<struct pollfd> entries);

} // namespace zel

#endif
