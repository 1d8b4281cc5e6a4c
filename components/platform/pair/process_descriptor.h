// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A process held by a descriptor. Its number may come to belong to another process; the
// descriptor never leads to another.
#ifndef ZEL_COMPONENTS_PLATFORM_PAIR_PROCESS_DESCRIPTOR_H
#define ZEL_COMPONENTS_PLATFORM_PAIR_PROCESS_DESCRIPTOR_H

#include <components/platform/base/deadline.h>

namespace zel::pair {

// Closed where the scope ends. errno is kept then.
struct ProcessDescriptor {
    explicit ProcessDescriptor(int32_t number);
    ProcessDescriptor(const ProcessDescriptor &) = delete;
    ProcessDescriptor &operator=(const ProcessDescriptor &) = delete;
    ~ProcessDescriptor();

    const int32_t pid;
    const int fd; // -1: an old kernel, no descriptor free, or no such process
};

// Sends the signal. Returns false with errno.
bool send_signal(const ProcessDescriptor &process, int signal);

// Whether the process has ended, be it reaped or not.
bool has_ended(const ProcessDescriptor &process);

enum class Change { none, ended, failed };

// Waits until the process has ended or the time has come. With fd -1 a short while
// passes, and the result is Change::none. An interruption is Change::none as well. A
// failure sets errno.
Change wait_for_change(int fd, const Deadline &deadline);

} // namespace zel::pair

#endif
