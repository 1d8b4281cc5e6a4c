/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * Process information from the /proc file system: the caller's number, whether a process exists, its memory use.
 *
 * Example:
 *
 *   uint64_t virtual_kb;
 *   uint64_t resident_kb;
 *   if (platform_process_memory(-1, &virtual_kb, &resident_kb)) {
 *       msg_print("%llu KiB in use", (unsigned long long) resident_kb);
 *   }
 */
#ifndef ZEL_COMPONENTS_PLATFORM_PROCESS_INFO_H
#define ZEL_COMPONENTS_PLATFORM_PROCESS_INFO_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* The caller's process number. */
int32_t platform_getpid(void);

/* 1 when a process of this number exists, else 0. A process that has ended but was not yet waited for still exists. */
int platform_process_exists(unsigned long pid);

/* Memory use of a process in KiB; a negative pid means the caller.
 * virtual_kb: the virtual size, rounded up; on 32-bit x86 it is computed in 32 bits, and one beyond them, as a process
 * of 64 bits may have, is 0. resident_kb: the resident size. Either may be null.
 * Returns 1, or 0 after a report (platform_perror) when the process's entry cannot be opened or read. A command name
 * with a blank in it shifts the fields of the entry: the values are then wrong (0), and nothing says so. */
int platform_process_memory(int32_t pid, uint64_t *virtual_kb, uint64_t *resident_kb);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
