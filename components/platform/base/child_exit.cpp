// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Ends a forked child by exit without harm to the files that it shares with its parent.
#include <components/platform/base/child_start.h>

#include <components/platform/base/open_descriptors.h>

#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace zel {

namespace {

constexpr const char *kNullDevice = "/dev/null";
constexpr int kNumbersTriedWithoutList = 65536;

// Whether exit may move the position of the descriptor: a partly read stream may stand on
// it.
bool is_read_at_position(int fd) {
    const int mode = fcntl(fd, F_GETFL);
    return mode != -1 && (mode & O_ACCMODE) != O_WRONLY && lseek(fd, 0, SEEK_CUR) != -1;
}

// When every number is taken, the first open fails. The close frees one number, and the
// second open gets it.
void replace_by_null_device(int fd) {
    const int null_fd = open(kNullDevice, O_RDWR);
    if (null_fd == -1) {
        close(fd);
        open(kNullDevice, O_RDWR);
        return;
    }
    dup2(null_fd, fd);
    close(null_fd);
}

void replace_if_read_at_position(int fd, int /*kept*/) {
    if (is_read_at_position(fd)) {
        replace_by_null_device(fd);
    }
}

} // namespace

void exit_beside_parent(int status) {
    if (!visit_open_descriptors(replace_if_read_at_position, -1)) {
        for (int fd = 0; fd < kNumbersTriedWithoutList; ++fd) {
            replace_if_read_at_position(fd, -1);
        }
    }
    exit(status);
}

} // namespace zel
