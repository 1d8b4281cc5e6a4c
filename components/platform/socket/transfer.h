// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The two steps of platform_select_recv. Between them the message loop has no receive area on the stack: the idle
// function that runs in the first may hand over messages itself.
#ifndef ZEL_COMPONENTS_PLATFORM_SOCKET_TRANSFER_H
#define ZEL_COMPONENTS_PLATFORM_SOCKET_TRANSFER_H

#include <components/platform/socket.h>

#include <cstddef>

namespace zel::socket {

// Waits in steps, so that idle runs about ten times a second. Returns 1 when the socket can be read;
// PLATFORM_SOCKET_FAILED when the wait failed, which has been reported; PLATFORM_SOCKET_NOT_READY when nothing is there
// and wait is false.
int wait_for_input(int socket, bool wait, PlatformIdle idle);

// Receives once. Returns the count, or PLATFORM_SOCKET_FAILED when the peer closed or the receive failed.
int receive_waiting(int socket, void *buffer, size_t length);

} // namespace zel::socket

#endif
