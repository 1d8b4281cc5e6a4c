// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Writing a whole text to a descriptor.
#include <msg/base/write_all.h>

#include <msg/base/text.h>

#include <cerrno>
#include <poll.h>
#include <unistd.h>

namespace zel {

namespace {

bool wait_writable(int fd) {
    struct pollfd entry = {.fd = fd, .events = POLLOUT, .revents = 0};
    return poll(&entry, 1, -1) != -1 || errno == EINTR;
}

// Writes once. Returns 0 when the write is to be tried again, and -1 when it failed.
ssize_t write_some(int fd, std::string_view text) {
    const ssize_t count = write(fd, text.data(), text.size());
    if (count > 0) {
        return count;
    }
    if (count == 0) {
        errno = EIO; // a device that takes nothing
        return -1;
    }
    return errno == EINTR || (errno == EAGAIN && wait_writable(fd)) ? 0 : -1;
}

} // namespace

size_t write_all(int fd, std::string_view text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t count = write_some(fd, part_from(text, done));
        if (count == -1) {
            return done;
        }
        done += static_cast<size_t>(count);
    }
    return done;
}

} // namespace zel
