/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * Process identity: the system uses a process number again. A number with a start time
 * means one process.
 *
 *   1. platform_process_identify reads what the kernel says of a process.
 *   2. platform_process_is_same tells later whether that process still lives.
 *
 * Example:
 *
 *   PlatformProcess server;
 *   if (platform_process_identify(pid, &server)) {
 *       work();
 *       if (!platform_process_is_same(&server)) {
 *           msg_warn("the server %s has gone", server.name);
 *       }
 *   }
 *
 * Both calls read /proc. They need that file system and a free descriptor. No report is
 * made, and no storage is allocated.
 */
#ifndef ZEL_COMPONENTS_PLATFORM_PROCESS_IDENTITY_H
#define ZEL_COMPONENTS_PLATFORM_PROCESS_IDENTITY_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* A process at one moment. Its number with its start time identifies it. */
typedef struct PlatformProcess {
    int32_t pid;            /* its number */
    int32_t parent_pid;     /* the number of its parent; 0 when there is none */
    uint64_t start_time;    /* when it began, in clock ticks since the system started */
    uint64_t virtual_size;  /* of its address space, in bytes */
    uint64_t resident_size; /* of what is in memory, in bytes */
    int32_t descriptors;    /* how many are open; -1 when the caller may not count them */
    char state;             /* R runs, S sleeps, D waits for a device, T stops, Z ended */
    char name[64];          /* of the command; 15 bytes of it for a program */
} PlatformProcess;

/* Reads what the kernel says of a process.
 * - pid: its number; 0 means the caller.
 * - process: filled; left as it was after a failure.
 * - Returns 1. A process that has ended is there until its parent waits for it.
 * - Returns 0 with errno. ESRCH: there is no such process. EPERM: it is there, but the
 *   caller may not look at it. EBADMSG: /proc holds something else. ENOENT: there is no
 *   /proc.
 * - A name may hold any byte but NUL: brackets, blanks and newlines do no harm.
 * - The state may be another letter that the kernel writes. */
int platform_process_identify(int32_t pid, PlatformProcess *process);

/* Tells whether a process still lives: the one of the record, not another of its number.
 * - process: from platform_process_identify.
 * - Returns 1 while it lives.
 * - Returns 0 with errno. ESRCH: it has ended, even if nobody has waited for it. Any
 *   other error: nobody knows. */
int platform_process_is_same(const PlatformProcess *process);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
