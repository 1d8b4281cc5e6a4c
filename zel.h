/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * The whole runtime in one include, and the conventions that hold in every header of it.
 *
 * Layers, from the bottom; a header includes only what stands below it:
 *
 *   msg/msg.h                                     typed messages to lists of output streams
 *   malloc/zel_malloc.h                           allocation that names its caller and never fails silently
 *   malloc/debug_heap.h                           the debug heap under it
 *   components/platform/environment.h             environment, reports of failed system calls, start-up diagnostics
 *   components/platform/process_info.h            process numbers, existence, memory use
 *   components/platform/socket.h                  sockets and the framed message loop
 *   components/platform/zel_pair_connection.h     a parent and its companion
 *   components/platform/debug_hooks.h             stopping or re-launching a process at its start
 *   components/platform/file_control.h            patterns, trees, paths, stamps
 *   msg/diag_log.h                                the diagnostic log file, on top of the environment services
 *
 * Conventions, said once and true everywhere unless a declaration says otherwise:
 *
 *   Results      1 is success or true, 0 is failure or false. Counts and descriptors are negative on failure: -1, -2
 *                or -3, as each declaration states. The operations that open a pair return a handle in every case and
 *                carry the failure inside it.
 *   Reports      A failed system call is reported as "STEP: SYSTEM ERROR TEXT" on the diagnostic stream type
 *                (platform_perror). A fatal condition writes its message and ends the process with exit(1). An error
 *                of the programmer is an assertion: condition, source unit and function on standard error, then abort.
 *   Ownership    Storage that a zel_ entry hands out belongs to the caller, who releases it with zel_free. A text
 *                that a getter returns stays the library's. A PairHandle is released by platform_pair_close alone.
 *   Null         A pointer argument must not be null unless its declaration says what null means.
 *   Threads      None. All state is process-wide and unguarded; a process uses the runtime from one thread. A child
 *                made by fork inherits the state as it stands.
 *   errno        Kept by platform_perror and msg_diag; cleared by the other output calls. After a failure it says why
 *                where the declaration says so; elsewhere a failure may leave it alone. Any other call may change it.
 *   Language     Every header compiles as C11 and as C++17 or later.
 */
#ifndef ZEL_H
#define ZEL_H

#include <components/platform/debug_hooks.h>
#include <components/platform/environment.h>
#include <components/platform/file_control.h>
#include <components/platform/process_info.h>
#include <components/platform/socket.h>
#include <components/platform/zel_pair_connection.h>
#include <malloc/debug_heap.h>
#include <malloc/zel_malloc.h>
#include <msg/diag_log.h>
#include <msg/msg.h>

#endif
