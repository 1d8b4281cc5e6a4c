/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * The memory library: every allocation names its caller, and none fails silently.
 *
 * The ordinary entries never return a null pointer for lack of memory: the failure is reported with the caller's name,
 * purpose and size, and the process ends with status 1. Callers do not test their results. A program that wants to
 * decide for itself installs a failure handler, or uses the _if_room entries.
 *
 *   1. Allocate, saying who asks and for what: zel_malloc(size, "read_index", "index page").
 *   2. Release with zel_free, whichever entry the storage came from.
 *
 * Example:
 *
 *   int32_t *table = ZEL_MALLOC_ARRAY(int32_t, 64);
 *   char *path = zel_printf_strdup("%s/%s", "/tmp", "index");
 *   zel_free(path);
 *   zel_free(table);
 *
 * What holds of every entry:
 *
 *   - A request of zero bytes allocates nothing and returns null.
 *   - Texts that describe the caller are kept by pointer: pass string literals.
 *   - A pointer handed back (to be resized or released) must be a multiple of 8; any other ends the process with
 *     "ENTRY was passed an invalid pointer: 0x0000000C".
 *   - On failure the handler, if one is installed, gets the size and the text of the report; what it returns is the
 *     entry's result as it stands: nothing is cleared or copied into it. Without a handler the report is an error
 *     message and the process ends with status 1.
 *   - Sizes are in bytes. Storage is aligned as malloc aligns it, with the debug heap on only to a multiple of 8.
 */
#ifndef ZEL_MALLOC_ZEL_MALLOC_H
#define ZEL_MALLOC_ZEL_MALLOC_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* ---- Described by function and purpose; either may be null, which shortens the report of a failure --------------- */

/* size bytes, not initialised. */
void *zel_malloc(size_t size, const char *function, const char *purpose);

/* count times size bytes, all zero. The product is not tested for overflow. */
void *zel_calloc(size_t count, size_t size, const char *function, const char *purpose);

/* Resizes the block; its contents stay up to the smaller size, and it may move. A null pointer allocates; a size of 0
 * releases the pointer and returns null. When the block cannot be resized it stays as it was; with the debug heap on it
 * counts as released all the same and must not be handed back. */
void *zel_realloc(void *pointer, size_t size, const char *function, const char *purpose);

/* A copy of the text; null for a null text. */
char *zel_strdup(const char *text, const char *function, const char *purpose);

/* A new text of a followed by b, neither of them null. Copies of a and of b are made on the way and stay allocated, so
 * that the process's memory totals show them; nothing refers to them afterwards. */
char *zel_strdup2(const char *a, const char *b, const char *function, const char *purpose);

/* A new text, formatted as by printf. Null on a formatting error. The storage grows from 16 bytes; at least one byte
 * more than the text needs is allocated. Failures are reported under zel_malloc or zel_realloc: what a failure handler
 * returns is written into, resized and released like their results. It must be null, or storage of the size from an
 * entry of this library that has not been given back; with the debug heap off a block from malloc serves as well. With
 * the debug heap on any other pointer ends the process at the resize or release. Clears errno. */
char *zel_vprintf_strdup(const char *format, va_list args) __attribute__((format(printf, 1, 0)));
char *zel_printf_strdup(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* ---- Described by source position: a macro or entry name, line and file ----------------------------------------- */

/* As their namesakes above. */
void *zel_malloc_fl(size_t size, const char *name, int32_t line, const char *file);
void *zel_calloc_fl(size_t count, size_t size, const char *name, int32_t line, const char *file);
void *zel_realloc_fl(void *pointer, size_t size, const char *name, int32_t line, const char *file);
char *zel_strdup_fl(const char *text, const char *name, int32_t line, const char *file);
char *zel_strdup2_fl(const char *a, const char *b, const char *name, int32_t line, const char *file);

/* Storage for count objects of a type, as a pointer to that type, not initialised; the product is not tested for
 * overflow. ZEL_STRDUP copies a text. Both describe the caller by the line and file where they stand. */
#ifdef __cplusplus
#define ZEL_MALLOC_ARRAY(type, count)                                                                                  \
    (static_cast<type *>(                                                                                              \
        zel_malloc_fl(sizeof(type) * static_cast<size_t>(count), "ZEL_MALLOC_ARRAY", __LINE__, __FILE__)))
#else
#define ZEL_MALLOC_ARRAY(type, count)                                                                                  \
    ((type *) zel_malloc_fl(sizeof(type) * (size_t) (count), "ZEL_MALLOC_ARRAY", __LINE__, __FILE__))
#endif
#define ZEL_STRDUP(text) (zel_strdup_fl((text), "ZEL_STRDUP", __LINE__, __FILE__))

/* ---- Allocations that may fail quietly --------------------------------------------------------------------------- */

/* As zel_malloc, zel_calloc and zel_realloc, but null without a report when memory has run out (errno ENOMEM). Any
 * other failure is reported as by the ordinary entries. */
void *zel_malloc_if_room(size_t size);
void *zel_calloc_if_room(size_t count, size_t size);
void *zel_realloc_if_room(void *pointer, size_t size);

/* ---- Release and settings ---------------------------------------------------------------------------------------- */

/* Releases storage from any entry above. Null: nothing happens. */
void zel_free(void *pointer);

/* Called instead of the fatal report when an allocation fails. size: what the entry asked for, in bytes. message: the
 * text of the report, valid during the call. Its result becomes the entry's. */
typedef void *(*ZelMallocFailureHandler)(unsigned long size, const char *message);

/* Installs a failure handler, or with null none. Returns the one before, null at first. */
ZelMallocFailureHandler zel_malloc_set_failure_handler(ZelMallocFailureHandler handler);

/* The bytes requested from the system by all attempts so far, failed ones included: a sum modulo 2 to the 32 that never
 * decreases otherwise. */
unsigned long zel_malloc_total_requested(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
