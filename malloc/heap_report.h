/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * Finding leaks: what is live since a mark, and whose it is. Failures on demand.
 *
 * The debug heap (debug_heap.h) is on, in either mode. While it is off, a call of this
 * header writes nothing and says so by its result: a program may keep its calls. Only
 * zel_malloc_fail_after works without the debug heap.
 *
 *   1. Take a mark in front of the work: zel_malloc_mark().
 *   2. Work, and release what the work needed.
 *   3. Ask what is left of it: zel_malloc_report_since(mark). Or visit the blocks, or ask
 *      for sums by owner, as lines or as one JSON text.
 *
 * Example:
 *
 *   uint64_t mark = zel_malloc_mark();
 *   handle_request();
 *   zel_malloc_report_since(mark); // a row for each block that the request left
 *
 * Example of a sweep over the failures of an operation:
 *
 *   long left = -1;
 *   for (long n = 0; left < 0; ++n) {     // ends when the operation makes no n-th request
 *       zel_malloc_fail_after(n);
 *       load(path);                       // one request fails: nothing must be lost
 *       left = zel_malloc_fail_after(-1); // -1: the failure has come
 *   }
 *
 * From the first mark on the library numbers allocations and marks in one sequence, and
 * keeps the peaks of each owner. Up to that mark an allocation pays nothing for it. From
 * then on:
 *
 *   - A block is later than a mark when its number is greater. A block from before the
 *     first mark has the number 0. Every block is later than 0.
 *   - A resize gives the block a new number: it is later than the marks before it.
 *   - An owner is the calling function, or a file with a line, as the caller passed it.
 *     Equal texts are one owner.
 *   - The peak of an owner is the most bytes of it that were live at one time since the
 *     first mark. Blocks from before that mark count from the mark on. Bytes are those
 *     that were asked for. Without a mark the peak is the present sum.
 *   - A block whose owner is new and finds no memory is left out of the peaks.
 *   - A request fails with ENOMEM when there is no memory for its number.
 *
 * What these calls need for themselves comes from the C library: no report shows it, and
 * zel_malloc_fail_after does not count it. The reports and the visitor may be used on a
 * corrupted heap.
 */
#ifndef ZEL_MALLOC_HEAP_REPORT_H
#define ZEL_MALLOC_HEAP_REPORT_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Verifies the whole heap now, in either mode. Each corrupted block is a warning, in the
 * sentences of debug_heap.h. The process goes on.
 * - Returns how many blocks are corrupted; -1 while the debug heap is off.
 * - Called by a stream while findings are written, it counts and writes nothing. */
int32_t zel_malloc_verify(void);

/* Takes a mark: the blocks that are allocated or resized from now on are later than it.
 * - Returns the mark, greater than all marks before it; 0 while the debug heap is off, and
 *   when there is no memory for the first one. */
uint64_t zel_malloc_mark(void);

/* A live block, as a visitor sees it. The texts are those that its caller passed. */
typedef struct ZelLiveBlock {
    const void *pointer; /* the caller's pointer */
    size_t length;       /* the bytes that were asked for */
    uint64_t serial;     /* its number in the sequence of allocations and marks */
    int32_t id;          /* its ID in every text of the debug heap */
    int32_t line;        /* of the file; 0 when the owner is a function */
    const char *name;    /* the entry or macro that allocated */
    const char *owner;   /* the function or the file; may be null */
    const char *purpose; /* may be null; null when the owner is a file */
} ZelLiveBlock;

/* A visitor of live blocks.
 * - block: valid during the call.
 * - user: as passed to zel_malloc_visit.
 * - Not 0 goes on to the next block, and 0 ends the visit. */
typedef int (*ZelLiveBlockVisitor)(const ZelLiveBlock *block, void *user);

/* Shows each block that is later than the mark to a visitor, in the order of the IDs.
 * - mark: a mark, or 0 for all blocks.
 * - visitor: may allocate, resize and release, also the block that it is shown. Null: the
 *   blocks are only counted.
 * - user: handed on to the visitor.
 * - Returns how many blocks were shown; -1 while the debug heap is off.
 * - A block that the visitor allocates may be shown or not. The visit ends all the same:
 *   it goes once through the IDs that there were at its start. */
int32_t zel_malloc_visit(uint64_t mark, ZelLiveBlockVisitor visitor, void *user);

/* Writes the blocks that are later than the mark to the streams of MSG_INFO: the rows and
 * the line of zel_malloc_debug_report(1), for these blocks.
 * - mark: a mark, or 0 for all blocks.
 * - Returns how many blocks they are; -1 while the debug heap is off. */
int32_t zel_malloc_report_since(uint64_t mark);

/* Writes the owners of all live blocks to the streams of MSG_INFO: a row with blocks,
 * bytes and peak for each owner, and a line with the sums. The most bytes come first, and
 * equal ones in the order of their names and lines.
 * - Returns how many owners there are; -1 while the debug heap is off, -2 without memory. */
int32_t zel_malloc_report_owners(void);

/* Gives the owners of all live blocks as one JSON text, in the order of
 * zel_malloc_report_owners:
 *
 *   {"blocks":3,"bytes":92,"peak":400,"owners":[
 *   {"owner":"load","line":0,"blocks":2,"bytes":80,"peak":80},
 *   {"owner":"main.c","line":7,"blocks":1,"bytes":12,"peak":12}]}
 *
 * - Returns the text; null while the debug heap is off, and with errno ENOMEM without
 *   memory. The caller releases it by free, and not by zel_free.
 * - The text has no line breaks; those above are for the page. A missing owner is null.
 *   Each byte of an owner that is not valid UTF-8 is U+FFFD. The first peak is that of all
 *   bytes in use. */
char *zel_malloc_report_json(void);

/* Lets one request of this library fail as if memory had run out. A request is an
 * allocation or a resize; zel_strdup2 makes three. The entry does what it promises then:
 * a report, the failure handler, or a quiet null. Later requests succeed.
 * - n: how many requests still succeed before it. Negative: none fails.
 * - Returns how many were still to succeed by the call before this one; -1 when its
 *   failure has come, and when none was awaited.
 * - Works with the debug heap on or off, and may be called before it is switched on. */
long zel_malloc_fail_after(long n);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
