// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The shared descriptor on /dev/null.
#include <components/platform/zel_pair_connection.h>

#include <components/platform/base/descriptor.h>
#include <msg/base/errno_kept.h>

#include <cstdio>
#include <unistd.h>

namespace {

// The shared descriptor, open while there are references.
struct State {
    int references;
    int fd;
    FILE *stream; // the stream that owns fd
};

constinit State shared_null = {.references = 0, .fd = -1, .stream = nullptr};

constexpr const char *kNullMode = "r+";

// Puts the open file on a stream above the standard descriptors. Closes the given stream.
FILE *move_above_standard(FILE *stream) {
    const int fd = zel::dup_above_standard(fileno(stream));
    FILE *moved = fd == -1 ? nullptr : fdopen(fd, kNullMode);
    const zel::ErrnoKept kept;
    if (moved == nullptr && fd != -1) {
        close(fd);
    }
    fclose(stream);
    return moved;
}

// Opens /dev/null above the standard descriptors. The program would take a standard one
// for its own input or output.
FILE *open_null_device() {
    FILE *stream = fopen("/dev/null", kNullMode);
    return stream == nullptr || fileno(stream) > STDERR_FILENO ? stream : move_above_standard(stream);
}

} // namespace

int platform_null_fd_open() {
    if (shared_null.references > 0) {
        ++shared_null.references;
        return shared_null.fd;
    }
    FILE *stream = open_null_device();
    if (stream == nullptr) {
        return -1;
    }
    zel::set_close_on_exec(fileno(stream));
    shared_null = {.references = 1, .fd = fileno(stream), .stream = stream};
    return shared_null.fd;
}

void platform_null_fd_close(int fd) {
    if (shared_null.stream == nullptr || fd != shared_null.fd || --shared_null.references > 0) {
        return;
    }
    fclose(shared_null.stream);
    shared_null = {.references = 0, .fd = -1, .stream = nullptr};
}
