/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * The memory library: every allocation names its caller, and a failure is reported.
 *
 * An ordinary entry reports a failed request with the caller's name, the purpose and the
 * size, and ends the process with status 1. A program that wants to go on installs a
 * failure handler, or uses the _if_room entries.
 *
 *   1. Allocate, and say who asks for what: zel_malloc(size, "read_index", "index page").
 *   2. Use the result. Without a failure handler an ordinary entry needs no null test.
 *   3. Release it with zel_free, whichever entry it came from.
 *
 * Example:
 *
 *   int32_t *table = ZEL_MALLOC_ARRAY(int32_t, 64);
 *   char *path = zel_printf_strdup("%s/%s", "/tmp", "index");
 *   zel_free(path);
 *   zel_free(table);
 *
 * The entries, by the form of the description of their caller:
 *
 *   F  function and purpose, which follow the arguments shown
 *   L  name, line and file, which follow the arguments shown
 *   M  name, line and file, which the macro fills in
 *   E  the entry's own name alone
 *
 *   entry                form  arguments      null without a request     out of memory
 *   -------------------  ----  -------------  -------------------------  -------------
 *   zel_malloc           F     size           size 0                     reported
 *   zel_calloc           F     count, size    count 0 or size 0          reported
 *   zel_realloc          F     pointer, size  size 0: pointer released   reported
 *   zel_strdup           F     text           text null                  reported
 *   zel_strdup2          F     a, b           -                          reported
 *   zel_vprintf_strdup   -     format, args   -                          reported (1)
 *   zel_printf_strdup    -     format, ...    -                          reported (1)
 *   zel_malloc_fl        L     size           size 0                     reported
 *   zel_calloc_fl        L     count, size    count 0 or size 0          reported
 *   zel_realloc_fl       L     pointer, size  size 0: pointer released   reported
 *   zel_strdup_fl        L     text           text null                  reported
 *   zel_strdup2_fl       L     a, b           -                          reported
 *   ZEL_MALLOC_ARRAY     M     type, count    count 0                    reported
 *   ZEL_STRDUP           M     text           text null                  reported
 *   zel_malloc_if_room   E     size           size 0                     quiet: null
 *   zel_calloc_if_room   E     count, size    count 0 or size 0          quiet: null
 *   zel_realloc_if_room  E     pointer, size  size 0: pointer released   quiet: null
 *
 *   (1) The report names zel_malloc or zel_realloc, and zel_vprintf_strdup as function.
 *
 * Rules of every entry:
 *
 *   - Sizes are in bytes.
 *   - Storage is aligned as malloc aligns it; with the debug heap on, to a multiple of 8.
 *   - Texts that describe the caller are kept by pointer: pass string literals.
 *   - A pointer that is resized or released must be a multiple of 8. Any other ends the
 *     process with the error "ENTRY was passed an invalid pointer: 0x0000000C".
 *   - A failed request that is reported goes to the failure handler if one is installed.
 *     The entry returns the handler's result as it is. It neither clears that storage
 *     nor copies into it.
 *   - Without a failure handler the report is an error message, and the process ends.
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

/* ---- Described by function and purpose --------------------------------------------- */

/* Allocates storage that is not initialised.
 * - size: 0 allocates nothing.
 * - function: the name of the calling function, or null.
 * - purpose: what the storage is for, or null.
 * - Without a function or a purpose the report of a failure leaves both out.
 * - Returns the storage; null for a size of 0.
 * - The caller releases the storage with zel_free. */
void *zel_malloc(size_t size, const char *function, const char *purpose);

/* Allocates count times size bytes, all zero.
 * - count, size: 0 in either allocates nothing. The product is not tested for overflow.
 * - function, purpose: as for zel_malloc.
 * - Returns the storage; null for a count or size of 0.
 * - The caller releases the storage with zel_free. */
void *zel_calloc(size_t count, size_t size, const char *function, const char *purpose);

/* Resizes storage. The contents stay up to the smaller size. Added bytes are not
 * initialised.
 * - pointer: storage from an entry of this library. Null allocates.
 * - size: the new size. 0 releases the pointer.
 * - function, purpose: as for zel_malloc. They describe the storage from now on.
 * - Returns the storage, which may have moved; null for a size of 0.
 * - Storage that cannot be resized stays as it was and stays the caller's. With the debug
 *   heap on it counts as released all the same, and must not be handed back. */
void *zel_realloc(void *pointer, size_t size, const char *function, const char *purpose);

/* Copies a text.
 * - text: null allocates nothing.
 * - function, purpose: as for zel_malloc.
 * - Returns the copy; null for a null text.
 * - The caller releases the copy with zel_free. */
char *zel_strdup(const char *text, const char *function, const char *purpose);

/* Joins two texts.
 * - a, b: the first and the second text; neither may be null.
 * - function, purpose: as for zel_malloc.
 * - Returns a new text, a followed by b.
 * - The caller releases the result with zel_free.
 * - A copy of a and a copy of b stay allocated, and nothing refers to them. Memory totals
 *   and the debug heap's report count them. */
char *zel_strdup2(const char *a, const char *b, const char *function, const char *purpose);

/* ---- Formatted texts --------------------------------------------------------------- */

/* Formats a text into new storage, as vprintf does.
 * - format, args: as for vprintf.
 * - Returns the text; null when it cannot be formatted.
 * - A failed request is reported under zel_malloc or zel_realloc, with the function
 *   "zel_vprintf_strdup" and the purpose "buffer allocation" or "buffer resize".
 * - Storage that a failure handler returns is written into, resized and released like the
 *   library's own. It must be null, or storage of the size asked for that came from an
 *   entry of this library and was not released. With the debug heap off a block from
 *   malloc serves as well; with it on any other pointer ends the process.
 * - The caller releases the text with zel_free.
 * - The storage starts at 16 bytes and grows; it holds at least one byte more than the
 *   text and its NUL.
 * - errno is cleared before each attempt. */
char *zel_vprintf_strdup(const char *format, va_list args) __attribute__((format(printf, 1, 0)));

/* Formats a text into new storage, as printf does.
 * - format, ...: as for printf.
 * - Returns, fails and allocates as zel_vprintf_strdup. */
char *zel_printf_strdup(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* ---- Described by source position -------------------------------------------------- */

/* As zel_malloc, described by source position.
 * - size: as for zel_malloc.
 * - name: the macro or function that allocates.
 * - line: the line of the call.
 * - file: the source of the call.
 * - Every failure is reported as "Not enough memory", whatever the error was. */
void *zel_malloc_fl(size_t size, const char *name, int32_t line, const char *file);

/* As zel_calloc, described by source position.
 * - count, size: as for zel_calloc.
 * - name, line, file: as for zel_malloc_fl. */
void *zel_calloc_fl(size_t count, size_t size, const char *name, int32_t line, const char *file);

/* As zel_realloc, described by source position.
 * - pointer, size: as for zel_realloc.
 * - name, line, file: as for zel_malloc_fl. */
void *zel_realloc_fl(void *pointer, size_t size, const char *name, int32_t line, const char *file);

/* As zel_strdup, described by source position.
 * - text: as for zel_strdup.
 * - name, line, file: as for zel_malloc_fl. */
char *zel_strdup_fl(const char *text, const char *name, int32_t line, const char *file);

/* As zel_strdup2, described by source position.
 * - a, b: as for zel_strdup2.
 * - name, line, file: as for zel_malloc_fl. */
char *zel_strdup2_fl(const char *a, const char *b, const char *name, int32_t line, const char *file);

/* Allocates an array that is not initialised, described by the macro's line and file.
 * - type: the type of an element.
 * - count: how many elements. The size in bytes is not tested for overflow.
 * - Gives a pointer to the type; null for a count of 0. */
#ifdef __cplusplus
#define ZEL_MALLOC_ARRAY(type, count)                                                                                  \
    (static_cast<type *>(                                                                                              \
        zel_malloc_fl(sizeof(type) * static_cast<size_t>(count), "ZEL_MALLOC_ARRAY", __LINE__, __FILE__)))
#else
#define ZEL_MALLOC_ARRAY(type, count)                                                                                  \
    ((type *) zel_malloc_fl(sizeof(type) * (size_t) (count), "ZEL_MALLOC_ARRAY", __LINE__, __FILE__))
#endif

/* Copies a text as zel_strdup does, described by the macro's line and file.
 * - text: null allocates nothing. */
#define ZEL_STRDUP(text) (zel_strdup_fl((text), "ZEL_STRDUP", __LINE__, __FILE__))

/* ---- Requests that may fail quietly ------------------------------------------------ */

/* As zel_malloc, without a report when memory has run out.
 * - size: as for zel_malloc.
 * - Returns null with errno ENOMEM when memory has run out.
 * - Any other error is reported, or goes to the failure handler. */
void *zel_malloc_if_room(size_t size);

/* As zel_calloc, without a report when memory has run out.
 * - count, size: as for zel_calloc.
 * - Returns and fails as zel_malloc_if_room. */
void *zel_calloc_if_room(size_t count, size_t size);

/* As zel_realloc, without a report when memory has run out.
 * - pointer, size: as for zel_realloc.
 * - Returns and fails as zel_malloc_if_room. The storage is then as after a zel_realloc
 *   that failed. */
void *zel_realloc_if_room(void *pointer, size_t size);

/* ---- Release and settings ---------------------------------------------------------- */

/* Releases storage.
 * - pointer: storage from any entry of this library. Null: nothing happens. */
void zel_free(void *pointer);

/* Called for a failed request instead of the error message.
 * - size: what the entry asked for, in bytes.
 * - message: the text of the report, valid during the call.
 * - Its result, null included, is the result of the entry. */
typedef void *(*ZelMallocFailureHandler)(unsigned long size, const char *message);

/* Installs a failure handler.
 * - handler: from now on called for each reported failure. Null installs none.
 * - Returns the handler before, null at first. */
ZelMallocFailureHandler zel_malloc_set_failure_handler(ZelMallocFailureHandler handler);

/* Tells how many bytes were requested from the system so far.
 * - Returns the sum over all requests and resizes, failed ones too, modulo 2 to the 32.
 *   With the debug heap on a request counts with its header, padding and trailer.
 * - A release does not lower the sum. */
unsigned long zel_malloc_total_requested(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
