// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The idioms of descriptors, written once.
#ifndef ZEL_COMPONENTS_PLATFORM_BASE_DESCRIPTOR_H
#define ZEL_COMPONENTS_PLATFORM_BASE_DESCRIPTOR_H

namespace zel {

// Puts the descriptor into non-blocking or blocking mode; nothing happens when its mode cannot be read.
int set_blocking(int fd, bool blocking);

// Keeps programs that are executed from now on from inheriting the descriptor. errno is kept.
void set_close_on_exec(int fd);

// Takes back what set_close_on_exec did to a standard descriptor that still leads to the same file.
void clear_own_close_on_exec(int fd);

// Closes the descriptor and keeps errno.
void close_keeping_errno(int fd);

// A copy of the descriptor above the standard ones, or -1 with errno.
int dup_above_standard(int fd);

// Moves a descriptor above the standard ones, if it is one of them. Returns where it is now, or -1 with errno: then it
// is where it was.
int above_standard(int fd);

enum class Readiness { ready, timeout, failed };

// Waits until the descriptor can be read, at most that long. A failure leaves its errno, EINTR included.
Readiness wait_readable(int fd, long seconds, long microseconds);

// Whether a wait or an accept that failed with this errno is to be tried again.
bool is_temporary(int error);

} // namespace zel

#endif
