// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The two steps of platform_select_recv. The message loop takes them one by one. Its
// receive area is not on the stack while the idle function runs: that function may hand
// over messages itself.
#ifndef ZEL_COMPONENTS_PLATFORM_SOCKET_TRANSFER_H
#define ZEL_COMPONENTS_PLATFORM_SOCKET_TRANSFER_H

#include <components/platform/socket.h>

#include <cstddef>

namespace zel::socket {

// Waits for input in steps, so that idle runs about ten times a second.
// - Result: 1 when the socket can be read; PLATFORM_SOCKET_NOT_READY when nothing is
//   there and wait is false.
// - Errors: PLATFORM_SOCKET_FAILED when the wait failed, which has been reported.
int wait_for_input(int socket, bool wait, PlatformIdle idle);

// Receives once. Returns the count, or PLATFORM_SOCKET_FAILED when the peer closed or the
// receive failed.
int receive_waiting(int socket, void *buffer, size_t length);

} // namespace zel::socket

#endif
