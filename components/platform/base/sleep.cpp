// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Sleeping for a whole time, whatever signals arrive meanwhile.
#include <components/platform/base/sleep.h>

#include <cstdint>
#include <ctime>
#include <unistd.h>

namespace zel {

namespace {

constexpr int64_t kMillisecondsPerSecond = 1000;
constexpr int64_t kNanosecondsPerMillisecond = 1000000;

int64_t milliseconds_now() {
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * kMillisecondsPerSecond + now.tv_nsec / kNanosecondsPerMillisecond;
}

} // namespace

// The clock decides whether to sleep again. An interrupted sleep returns the seconds
// left, rounded: over several signals the roundings would add up.
void sleep_seconds(unsigned int seconds) {
    const int64_t end = milliseconds_now() + seconds * kMillisecondsPerSecond;
    for (int64_t left = end - milliseconds_now(); left > 0; left = end - milliseconds_now()) {
        sleep(static_cast<unsigned int>((left + kMillisecondsPerSecond - 1) / kMillisecondsPerSecond));
    }
}

} // namespace zel
