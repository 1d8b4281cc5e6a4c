/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * The debug heap: every allocation of the memory library is recorded, guarded and checked.
 *
 * Off by default. Switched on once, at the start of a program and before its first allocation, it catches a double
 * release, a write past the end and a stray pointer at the next call of the library, and says in plain sentences who
 * had allocated the storage.
 *
 *   1. zel_enable_malloc_debug(ZEL_MALLOC_CHECK_PTR), or ZEL_MALLOC_VERIFY_HEAP to check all of it at every call.
 *   2. Run. A finding is an error message, and the process ends with status 1.
 *   3. At the end: zel_malloc_debug_report(1) lists what was not released.
 *
 * Example:
 *
 *   zel_enable_malloc_debug(ZEL_MALLOC_CHECK_PTR);
 *   char *name = zel_strdup("guest", "main", "user name");
 *   name[8] = '!';                                // past the end, into the trailer
 *   zel_malloc_describe_ptr(name);                // ... referenced data that was corrupted at the end. ...
 *   zel_free(name);                               // the same as an error; the process ends
 *
 * The layout of a block, in 32-bit words of the machine's byte order, for a request of n bytes:
 *
 *   block = index magic user-data padding trailer
 *
 *   index      the record of the allocation: its ID in every text
 *   magic      5739E56A while live, 7D2C5B7E once released
 *   user-data  n bytes, AB when new and again when released; the caller's pointer is block + 8, a multiple of 8
 *   padding    0 to 3 bytes, up to a multiple of 4
 *   trailer    35A7B641
 *
 * A request of 5 bytes takes 20: 4 + 4 + 5 + 3 + 4.
 *
 * Any pointer may be handed back: one to memory that is not there is reported like any stray pointer. A check of a
 * block that the system has mapped by itself, usually one of 128 KiB or more, costs two short system calls. Without
 * memory for its record a request fails like any other.
 */
#ifndef ZEL_MALLOC_DEBUG_HEAP_H
#define ZEL_MALLOC_DEBUG_HEAP_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* The modes beside 0, off. Both guard, record, fill, and check each pointer that is released or resized. While the
 * findings of a verification are written nothing is verified again, whatever the streams that take them allocate. */
#define ZEL_MALLOC_CHECK_PTR 1   /* nothing more */
#define ZEL_MALLOC_VERIFY_HEAP 2 /* the whole heap is verified at every allocation, resize and release */

/* Switches the debug heap on, or between its two modes. The first switch must come before the first allocation or
 * resize was attempted; it cannot be switched off again: mode 0 does nothing while it is off. Anything else is an error
 * that ends the process. */
void zel_enable_malloc_debug(int mode);

/* The current mode: 0, 1 or 2. */
int zel_malloc_debug_mode(void);

/* Writes how many bytes and pointers are allocated, to the informational streams; verbose not 0: first a line for each,
 * marked "*" when it is corrupted. Changes nothing and ends nothing. While the debug heap is off: a warning. */
void zel_malloc_debug_report(int verbose);

/* Writes what is known of a pointer as one informational message. Any value may be asked for, also one that is no
 * pointer. While the debug heap is off: a warning. */
void zel_malloc_describe_ptr(const void *pointer);

/* The bytes asked for and not yet released, headers and trailers not counted. While the debug heap is off: a warning,
 * and 0. */
unsigned long zel_malloc_mem_used(void);

/* From now on the release or resize of a block of at least that many bytes is noted in a warning. Negative, as at
 * first: no note. */
void zel_malloc_set_free_report_threshold(int32_t bytes);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
