/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * The debug heap: it records, guards and checks every allocation of the memory library.
 *
 * It is off at first. A program switches it on before its first allocation. From then on
 * a call of the library finds a double release, a write past the end or a stray pointer.
 * The finding names the owner of the storage if the owner is known.
 *
 *   1. Switch it on: zel_enable_malloc_debug(ZEL_MALLOC_CHECK_PTR).
 *   2. Run. A finding is an error message, and the process ends with status 1.
 *   3. At the end zel_malloc_debug_report(1) lists the storage that was not released.
 *      heap_report.h tells what is live since a mark, and whose it is.
 *
 * Example:
 *
 *   zel_enable_malloc_debug(ZEL_MALLOC_CHECK_PTR);
 *   char *name = zel_strdup("guest", "main", "user name");
 *   name[8] = '!';                                // past the end, into the trailer
 *   zel_malloc_describe_ptr(name);                // ... referenced data that was corrupted at the end. ...
 *   zel_free(name);                               // the same as an error; the process ends
 *
 * The modes:
 *
 *   mode  constant                what is checked
 *   ----  ----------------------  ------------------------------------------------------
 *   0     -                       nothing: the debug heap is off; blocks have no guards
 *   1     ZEL_MALLOC_CHECK_PTR    each pointer that is released or resized
 *   2     ZEL_MALLOC_VERIFY_HEAP  the same, and the whole heap at every allocation,
 *                                 resize and release
 *
 * A block for a request of n bytes, in 32-bit words of the machine's byte order:
 *
 *   block = index magic user-data padding trailer
 *
 *   index      the number of the allocation's record, its ID in every text
 *   magic      5739E56A while live, 7D2C5B7E once released
 *   user-data  n bytes, AB when new and again when released
 *   padding    0 to 3 bytes, up to a multiple of 4
 *   trailer    35A7B641
 *
 * The caller's pointer is block + 8, a multiple of 8. A request of 5 bytes takes 20:
 * 4 + 4 + 5 + 3 + 4. A write into the padding goes unnoticed.
 *
 * In the modes 1 and 2:
 *
 *   - A pointer to memory that cannot be read is reported like any stray pointer.
 *   - A request fails with ENOMEM when there is no memory for its record.
 *   - A check of a block outside the system's heap costs two system calls. Such a block
 *     usually has 128 KiB or more.
 *   - No verification starts while the findings of another one are written.
 */
#ifndef ZEL_MALLOC_DEBUG_HEAP_H
#define ZEL_MALLOC_DEBUG_HEAP_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* The mode that checks each pointer when it is released or resized. */
#define ZEL_MALLOC_CHECK_PTR 1

/* The mode that also verifies the whole heap at every allocation, resize and release. */
#define ZEL_MALLOC_VERIFY_HEAP 2

/* Switches the debug heap on, or between its two modes.
 * - mode: ZEL_MALLOC_CHECK_PTR or ZEL_MALLOC_VERIFY_HEAP. 0 does nothing while the debug
 *   heap is off.
 * - These are errors that end the process: 0 while the debug heap is on; any other mode;
 *   the first switch after an allocation or resize was attempted. */
void zel_enable_malloc_debug(int mode);

/* Tells the mode.
 * - Returns 0 (off), 1 or 2. */
int zel_malloc_debug_mode(void);

/* Writes how many bytes and pointers are allocated, to the streams of MSG_INFO.
 * - verbose: not 0 first writes a row for each pointer, marked "*" when it is corrupted.
 * - While the debug heap is off this is a warning. */
void zel_malloc_debug_report(int verbose);

/* Writes what is known of a pointer, as one informational message.
 * - pointer: any value, also one that is no pointer.
 * - While the debug heap is off this is a warning. */
void zel_malloc_describe_ptr(const void *pointer);

/* Tells how many bytes are in use.
 * - Returns the sum of the sizes asked for, for all storage that is not released. Guards
 *   do not count.
 * - While the debug heap is off this is a warning, and the result is 0. */
unsigned long zel_malloc_mem_used(void);

/* Chooses which releases and resizes are noted in a warning.
 * - bytes: blocks of at least this length are noted. A negative number, as at first,
 *   notes none.
 * - May be called while the debug heap is off. It takes effect once the debug heap is
 *   on. */
void zel_malloc_set_free_report_threshold(int32_t bytes);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
