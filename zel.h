/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * The whole runtime in one include, and the conventions that hold in every header of it.
 * msg/sinks.h is left out: it declares msg_debug, a name that programs may have taken for
 * a call of their own.
 *
 * The layers from the bottom. A header includes only headers of the layers below it:
 *
 *   msg/msg.h                                  typed messages to lists of output streams
 *   malloc/zel_malloc.h                        allocation that names its caller
 *   malloc/debug_heap.h                        the debug heap
 *   malloc/heap_report.h                       leaks, owners, failures on demand
 *   components/platform/environment.h          variables, reports of failed system calls,
 *                                              the diagnostics file
 *   components/platform/process_identity.h     a process that is known again
 *   components/platform/process_info.h         process numbers, existence, memory use
 *   components/platform/socket.h               sockets and the framed message loop
 *   components/platform/message_lines.h        messages of data, of peers not trusted
 *   components/platform/zel_pair_connection.h  a parent and its companion
 *   components/platform/pair_control.h         the pair under control: start, deadlines, stop
 *   components/platform/debug_hooks.h          pausing or re-launching a process
 *   components/platform/file_control.h         patterns, trees, paths, stamps
 *   components/platform/file_services.h        checked copies, replaced contents, unique files
 *   msg/diag_log.h                             the diagnostic log file
 *
 * Conventions that hold everywhere, unless a declaration says otherwise:
 *
 *   Results     1 is success or true, 0 is failure or false. Counts and descriptors are
 *               negative on failure: -1, -2 or -3, as each declaration states. The calls
 *               that open a pair always return a handle, which carries the failure.
 *   Reports     A failed system call is reported as "STEP: SYSTEM ERROR TEXT" on the
 *               streams of MSG_DIAG (platform_perror). A fatal condition writes its
 *               message and ends the process by exit(1). An error of the programmer is an
 *               assertion: it writes condition, source unit and function to standard
 *               error, and aborts.
 *   Ownership   Storage from a zel_ call belongs to the caller, who releases it with
 *               zel_free. A text from a getter stays the library's. A PairHandle is
 *               released by platform_pair_close alone.
 *   Null        A pointer argument must not be null unless its declaration says what null
 *               means.
 *   Threads     None. All state is process-wide and unguarded: one thread uses the
 *               runtime. A child made by fork inherits the state as it stands.
 *   errno       platform_perror and msg_diag keep it. The other output calls clear it.
 *               It holds the reason of a failure where the declaration says so. Any
 *               other call may change it.
 *   Language    Every header compiles as C11 and as C++17 or later.
 */
#ifndef ZEL_H
#define ZEL_H

#include <components/platform/debug_hooks.h>
#include <components/platform/environment.h>
#include <components/platform/file_control.h>
#include <components/platform/file_services.h>
#include <components/platform/message_lines.h>
#include <components/platform/pair_control.h>
#include <components/platform/process_identity.h>
#include <components/platform/process_info.h>
#include <components/platform/socket.h>
#include <components/platform/zel_pair_connection.h>
#include <malloc/debug_heap.h>
#include <malloc/heap_report.h>
#include <malloc/zel_malloc.h>
#include <msg/diag_log.h>
#include <msg/msg.h>

#endif
