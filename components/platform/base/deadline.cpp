// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The time at which a call gives up, whatever signals arrive before.
#include <components/platform/base/deadline.h>

namespace zel {

namespace {

constexpr int64_t kPerSecond = 1000000000;
constexpr int64_t kPerMillisecond = 1000000;

int64_t now() {
    struct timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * kPerSecond + time.tv_nsec;
}

int64_t nanoseconds_left(const Deadline &deadline) {
    const int64_t left = deadline.nanoseconds - now();
    return left > 0 ? left : 0;
}

} // namespace

Deadline deadline_after(int32_t milliseconds) {
    const bool limited = milliseconds >= 0;
    return {.limited = limited, .nanoseconds = limited ? now() + milliseconds * kPerMillisecond : 0};
}

struct timespec time_left(const Deadline &deadline) {
    const int64_t left = nanoseconds_left(deadline);
    return {.tv_sec = static_cast<time_t>(left / kPerSecond), .tv_nsec = static_cast<long>(left % kPerSecond)};
}

bool has_passed(const Deadline &deadline) {
    return deadline.limited && nanoseconds_left(deadline) == 0;
}

} // namespace zel
