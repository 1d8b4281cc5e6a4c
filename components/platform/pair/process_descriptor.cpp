// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A process held by a descriptor.
#include <components/platform/pair/process_descriptor.h>

#include <components/platform/base/descriptor.h>

#include <cerrno>
#include <csignal>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace zel::pair {

namespace {

constexpr long kStepNanoseconds = 5000000;

bool is_longer_than_step(const struct timespec &time) {
    return time.tv_sec > 0 || time.tv_nsec > kStepNanoseconds;
}

// The time-out of one wait; null for none. A process without a descriptor is looked at
// again and again.
const struct timespec *timeout_of(int fd, const Deadline &deadline, struct timespec &storage) {
    const struct timespec step = {.tv_sec = 0, .tv_nsec = kStepNanoseconds};
    if (!is_limited(deadline)) {
        storage = step;
        return fd == -1 ? &storage : nullptr;
    }
    storage = time_left(deadline);
    if (fd == -1 && is_longer_than_step(storage)) {
        storage = step;
    }
    return &storage;
}

} // namespace

ProcessDescriptor::ProcessDescriptor(int32_t number)
    : pid(number), fd(static_cast<int>(syscall(SYS_pidfd_open, number, 0))) {}

ProcessDescriptor::~ProcessDescriptor() {
    if (fd != -1) {
        close_keeping_errno(fd);
    }
}

bool send_signal(const ProcessDescriptor &process, int signal) {
    const bool held = process.fd != -1;
    return (held ? syscall(SYS_pidfd_send_signal, process.fd, signal, nullptr, 0) : kill(process.pid, signal)) == 0;
}

bool has_ended(const ProcessDescriptor &process) {
    if (process.fd == -1) {
        return kill(process.pid, 0) == -1 && errno == ESRCH;
    }
    return wait_for_change(process.fd, deadline_after(0)) == Change::ended;
}

Change wait_for_change(int fd, const Deadline &deadline) {
    struct pollfd entry = {.fd = fd, .events = POLLIN, .revents = 0};
    struct timespec storage;
    const int result = ppoll(&entry, fd == -1 ? 0 : 1, timeout_of(fd, deadline, storage), nullptr);
    if (result == -1 && errno != EINTR) {
        return Change::failed;
    }
    return result > 0 ? Change::ended : Change::none;
}

} // namespace zel::pair
