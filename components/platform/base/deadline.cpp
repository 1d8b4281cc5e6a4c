// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The time at which a call gives up, whatever signals arrive before.
#include <components/platform/base/deadline.h>

#include <cerrno>

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
    const int64_t left = deadline.milliseconds > 0 ? deadline.end - now() : 0;
    return left > 0 ? left : 0;
}

} // namespace

Deadline deadline_after(int32_t milliseconds) {
    return {.milliseconds = milliseconds, .end = milliseconds > 0 ? now() + milliseconds * kPerMillisecond : 0};
}

bool is_limited(const Deadline &deadline) {
    return deadline.milliseconds >= 0;
}

struct timespec time_left(const Deadline &deadline) {
    const int64_t left = nanoseconds_left(deadline);
    return {.tv_sec = static_cast<time_t>(left / kPerSecond), .tv_nsec = static_cast<long>(left % kPerSecond)};
}

bool has_passed(const Deadline &deadline) {
    return is_limited(deadline) && nanoseconds_left(deadline) == 0;
}

Readiness poll_until(const Deadline &deadline, std::span<struct pollfd> entries) {
    for (;;) {
        if (deadline.milliseconds > 0 && has_passed(deadline)) {
            return Readiness::timeout;
        }
        const struct timespec timeout = time_left(deadline);
        const int result = ppoll(entries.data(), entries.size(), is_limited(deadline) ? &timeout : nullptr, nullptr);
        if (result >= 0) {
            return result == 0 ? Readiness::timeout : Readiness::ready;
        }
        if (!is_temporary(errno)) {
            return Readiness::failed;
        }
    }
}

} // namespace zel
