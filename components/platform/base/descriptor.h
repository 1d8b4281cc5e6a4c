// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The idioms of descriptors, written once.
#ifndef ZEL_COMPONENTS_PLATFORM_BASE_DESCRIPTOR_H
#define ZEL_COMPONENTS_PLATFORM_BASE_DESCRIPTOR_H

namespace zel {

// Sets the blocking mode of a descriptor. Returns 0, or -1 with errno.
int set_blocking(int fd, bool blocking);

// Makes the descriptor close-on-exec. errno is kept.
void set_close_on_exec(int fd);

// Undoes set_close_on_exec on a standard descriptor that still leads to the same file.
void clear_own_close_on_exec(int fd);

// Closes the descriptor and keeps errno.
void close_keeping_errno(int fd);

// Copies the descriptor above the standard ones. Returns the copy, or -1 with errno.
int dup_above_standard(int fd);

// Moves a standard descriptor above the standard ones; any other stays. Returns its
// number. On failure -1 with errno, and the descriptor stays where it was.
int above_standard(int fd);

// Takes over a descriptor that is close-on-exec, or the -1 of an open that failed.
// Returns it above the standard ones and close-on-exec. On failure it is closed, and the
// result is -1 with errno.
int take_above_standard(int fd);

enum class Readiness { ready, timeout, failed };

// Waits until the descriptor can be read, at most that long. A failure sets errno. An
// interruption is the failure EINTR.
Readiness wait_readable(int fd, long seconds, long microseconds);

// Whether the error is EINTR or EAGAIN: the call that failed is to be tried again.
bool is_temporary(int error);

} // namespace zel

#endif
