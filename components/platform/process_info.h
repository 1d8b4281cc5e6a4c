/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * Process information: the caller's number, whether a process exists, how much memory it
 * uses.
 *
 *   1. platform_getpid tells the caller's own process number.
 *   2. platform_process_exists tells whether a process is there.
 *   3. platform_process_memory tells how much memory a process uses.
 *
 * Example:
 *
 *   uint64_t virtual_kb;
 *   uint64_t resident_kb;
 *   if (platform_process_memory(-1, &virtual_kb, &resident_kb)) {
 *       msg_print("%llu KiB in use", (unsigned long long) resident_kb);
 *   }
 *
 * The last two calls read /proc. They need that file system and a free descriptor.
 */
#ifndef ZEL_COMPONENTS_PLATFORM_PROCESS_INFO_H
#define ZEL_COMPONENTS_PLATFORM_PROCESS_INFO_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Tells the caller's process number. */
int32_t platform_getpid(void);

/* Tells whether a process exists.
 * - pid: the process number.
 * - Returns 1 when /proc/PID can be opened, else 0. No report is made.
 * - A process that has ended exists until its parent waits for it.
 * - With no descriptor free, or without /proc, the result is 0 for every process. Near
 *   its limit of descriptors a caller must not take 0 for the end of a process. */
int platform_process_exists(unsigned long pid);

/* Tells how much memory a process uses.
 * - pid: the process number; a negative one means the caller.
 * - virtual_kb: receives the virtual size in KiB, rounded up; or null.
 * - resident_kb: receives the resident size in KiB; or null.
 * - Returns 1.
 * - Returns 0 after a report (platform_perror) when the entry of the process in /proc
 *   cannot be opened or read; with no descriptor free this is so for every process. The
 *   results are left as they were.
 * - A command name with a blank in it shifts the fields of the entry. The sizes are wrong
 *   then, and the result is still 1.
 * - Limits: on 32-bit x86 the virtual size is computed in 32 bits. A size that
 *   does not fit, as a process of 64 bits may have, comes out as 0. */
int platform_process_memory(int32_t pid, uint64_t *virtual_kb, uint64_t *resident_kb);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
