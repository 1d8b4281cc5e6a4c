/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * Message streams: the one channel through which a program and the runtime itself report.
 *
 * A message has a type. Each type owns a list of output streams, and a message goes to every stream of its type:
 * informational and debug messages to standard output, warnings and errors to standard error, diagnostic lines to
 * nothing until a stream is added. The text is formatted as by printf, opened by the type's prefix, wrapped at the
 * width limit (78 columns), its later lines indented under the first, ended by a newline and flushed.
 *
 *   1. Set prefixes and width, if the defaults do not suit: msg_set_print_prefix, msg_set_width_limit.
 *   2. Attach further streams: msg_add_stream(MSG_INFO | MSG_WARNING, log).
 *   3. Report: msg_print, msg_warn, msg_error; msg_fatal and its like end the process with status 1.
 *   4. Add a line to what was just said: MSG_CONT.
 *
 * Example:
 *
 *   msg_set_print_prefix("backup: ");
 *   msg_print("%d files in %s", 12, "/home/guest");      // backup: 12 files in /home/guest
 *   msg_warn("%s is not readable", "core");              // Warning: core is not readable
 *   MSG_CONT("It was left out.");                        //          It was left out.
 *
 * What holds of every output call:
 *
 *   - A format that begins with a single dollar sign is refused: the process ends with an error. "$$" at the start of
 *     a format stands for one dollar sign.
 *   - A stream that a write or a flush fails on is dropped from that type for good, and a warning says so once. The
 *     message goes on to the other streams.
 *   - A text of up to 9998 characters needs no memory. A longer one, and a message that a stream of the program's own
 *     writes in the middle of another, is replaced by a fixed text on standard error when there is none.
 *   - Streams are never closed here. One stream may stand in several lists, and twice in one.
 *   - errno is not kept: it is 0 after a message that was written. msg_diag alone keeps it.
 */
#ifndef ZEL_MSG_MSG_H
#define ZEL_MSG_MSG_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

/* <sys/msg.h> may define MSG_INFO, the command of msgctl that asks for limits and use of the System V message queues,
 * as 12. Its name means the message type here, whichever header comes first; who needs the command writes 12. */
#ifdef __has_include
#if __has_include(<sys/msg.h>)
#include <sys/msg.h>
#endif
#endif
#undef MSG_INFO

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* The type of a message. The codes are single bits, so that a set of types passes as a mask; where a mask is taken,
 * bits above the five are ignored. */
typedef enum MsgType {
    MSG_INFO = 1,    /* "informational": standard output, print prefix */
    MSG_DEBUG = 2,   /* "debug": standard output; no prefix of its own */
    MSG_WARNING = 4, /* "warning": standard error, warn prefix */
    MSG_ERROR = 8,   /* "error": standard error, error or internal-error prefix */
    MSG_DIAG = 16    /* "diag": no stream at first; written by msg_diag */
} MsgType;

/* How the text of a message is laid out. With a width limit of 0 every message is laid out raw. */
typedef enum MSG_FMT_TYPE {
    MSG_FMT_RAW = 0,  /* as it stands: not wrapped, nothing appended; a prefix or indentation still opens each line */
    MSG_FMT_WRAP = 1, /* wrapped at the width limit, nothing appended: the line stays open for what follows */
    MSG_FMT_LINE = 2  /* wrapped, then a newline is written and the streams are flushed */
} MSG_FMT_TYPE;

/* The output streams of one message type, in the order in which they were added. The array belongs to the library, the
 * streams to whoever opened them. */
typedef struct MsgStreamDesc {
    int32_t count;    /* streams in use */
    int32_t capacity; /* slots allocated */
    FILE **streams;   /* null until the first stream is added */
    int32_t sync;     /* 1: diagnostic lines are flushed and forced to disk one by one; see msg_sync_mode */
} MsgStreamDesc;

/* ---- Output ---------------------------------------------------------------------------------------------------- */

/* Writes one message; all calls below but msg_diag are this one with some arguments filled in.
 * type: one MsgType, fmt_type: one MSG_FMT_TYPE. primary_only: 1 writes only while the primary flag is set, and leaves
 * the mp prefix out. continuation: 1 goes on after the last message instead of starting a line. prefix: opens the
 * message; null counts as "".
 * An unknown type ends the process with an error; so does an unknown fmt_type while the width limit is not 0. */
void _msg_output(int type, int fmt_type, int primary_only, int continuation, const char *prefix, const char *format,
                 va_list args) __attribute__((format(printf, 6, 0)));

/* Informational messages behind the print prefix: a line; a line with no prefix; wrapped, the line left open; raw. */
void msg_print(const char *format, ...) __attribute__((format(printf, 1, 2)));
void msg_print_no_prefix(const char *format, ...) __attribute__((format(printf, 1, 2)));
void msg_print_wrap(const char *format, ...) __attribute__((format(printf, 1, 2)));
void msg_print_raw(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* An informational line behind a prefix of the caller's; null counts as "". */
void msg_print_with_prefix(const char *prefix, const char *format, ...) __attribute__((format(printf, 2, 3)));

/* Warnings behind the warn prefix: a line; wrapped with the line left open; raw. */
void msg_warn(const char *format, ...) __attribute__((format(printf, 1, 2)));
void msg_warn_wrap(const char *format, ...) __attribute__((format(printf, 1, 2)));
void msg_warn_raw(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* The same two types, written only while the primary flag is set and without the mp prefix. */
void msg_primary_print(const char *format, ...) __attribute__((format(printf, 1, 2)));
void msg_primary_print_wrap(const char *format, ...) __attribute__((format(printf, 1, 2)));
void msg_primary_print_raw(const char *format, ...) __attribute__((format(printf, 1, 2)));
void msg_primary_warn(const char *format, ...) __attribute__((format(printf, 1, 2)));
void msg_primary_warn_wrap(const char *format, ...) __attribute__((format(printf, 1, 2)));
void msg_primary_warn_raw(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* Errors behind the error prefix; they return. primary_only: as for _msg_output. */
void msg_error_ex(int primary_only, const char *format, ...) __attribute__((format(printf, 2, 3)));
void msg_error_ex_wrap(int primary_only, const char *format, ...) __attribute__((format(printf, 2, 3)));
void msg_error_ex_raw(int primary_only, const char *format, ...) __attribute__((format(printf, 2, 3)));

/* Errors behind the internal-error prefix; they return. primary_only: as for _msg_output. */
void msg_internal_error_ex(int primary_only, const char *format, ...) __attribute__((format(printf, 2, 3)));
void msg_internal_error_ex_wrap(int primary_only, const char *format, ...) __attribute__((format(printf, 2, 3)));
void msg_internal_error_ex_raw(int primary_only, const char *format, ...) __attribute__((format(printf, 2, 3)));

/* An error line behind the error prefix; returns. */
void msg_error(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* ---- Fatal calls: an error line, then exit(1) ------------------------------------------------------------------ */

/* The _syserr calls take errno on entry and add the line "System error message: " with its text. The _primary_ calls
 * write nothing while the primary flag is clear, and end the process all the same. msg_internal_error and
 * msg_primary_internal_error use the internal-error prefix, the others the error prefix. */
void msg_fatal(const char *format, ...) __attribute__((noreturn, format(printf, 1, 2)));
void msg_internal_error(const char *format, ...) __attribute__((noreturn, format(printf, 1, 2)));
void msg_fatal_syserr(const char *format, ...) __attribute__((noreturn, format(printf, 1, 2)));
void msg_primary_fatal(const char *format, ...) __attribute__((noreturn, format(printf, 1, 2)));
void msg_primary_internal_error(const char *format, ...) __attribute__((noreturn, format(printf, 1, 2)));
void msg_primary_fatal_syserr(const char *format, ...) __attribute__((noreturn, format(printf, 1, 2)));

/* ---- Continuation and diagnostics ------------------------------------------------------------------------------ */

/* Continues the last message with its type, layout, primary-only mark and indentation: on the same line when that line
 * was left open, else on a new, indented one. Continuations chain. Before any message: an error ends the process. */
void MSG_CONT(const char *format, ...) __attribute__((format(printf, 1, 2)));
void msg_vcont(const char *format, va_list args) __attribute__((format(printf, 1, 0)));

/* Writes one diagnostic text to every stream of MSG_DIAG: no prefix, no wrapping, no newline of its own. Without a
 * stream nothing is formatted. The formatted text is read as a format once more, with no arguments: "%%" becomes "%",
 * "%m" the text of errno, any other conversion stands as it is; so a percent sign that must appear is doubled twice in
 * the format. Limit: 16383 characters, the rest is cut. A conversion that fails ends the text in front of it. Write
 * errors are not looked at. errno is kept. */
void msg_diag(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* ---- Streams --------------------------------------------------------------------------------------------------- */

/* Appends the stream to the list of each type in the mask, in ascending order of the bits. The stream stays the
 * caller's and must stay open while it is in a list. A null stream is ignored. When a list cannot grow for lack of
 * memory a warning says so and the stream is not added. When it cannot be created the process ends; only while the
 * memory library reports, spare slots make the list. */
void msg_add_stream(int type_mask, FILE *stream);

/* Takes the first occurrence of the stream out of the list of each type in the mask; the others keep their order. A
 * stream that is not in a list is ignored. Nothing is flushed or closed. */
void msg_remove_stream(int type_mask, FILE *stream);

/* Empties the list of each type in the mask; its slots are kept. Nothing is flushed or closed. */
void msg_clear_streams(int type_mask);

/* The stream list of one type, owned by the library and valid until the process ends. An unknown type ends the process
 * with an error. */
MsgStreamDesc *_msg_get_stream_desc(int type);

/* 1 when informational (warning) messages have at least one stream, else 0. */
int msg_info_has_stream(void);
int msg_warn_has_stream(void);

/* Sets or reads the sync flag, which makes msg_diag force each line to disk.
 * mode 1: sets the flag of each type in the mask; where it was clear, the type's streams are flushed and forced to
 *   disk.
 * mode 0, or above 1: changes nothing; a flag once set stays set. Returns mode.
 * mode below 0: reads. Returns the flag of the one type in the mask, or -1 when the mask names more than one.
 * Returns -2 when the mask holds none of the five types. */
int msg_sync_mode(int type_mask, int mode);

/* The primary flag, 1 at first: messages marked primary-only are written only while it is not 0. */
void msg_set_primary(int flag);
int msg_is_primary(void);

/* The name of one type in the library's own reports: "informational", "debug", "warning", "error" or "diag". An unknown
 * type ends the process with an error. */
const char *msg_type_name(int type);

/* Formats into storage from malloc, initial_size bytes at first and as many as needed in the end. Returns the text,
 * which the caller releases with free, or null when memory runs out or the format cannot be converted. Clears errno. */
char *msg_vformat_alloc(const char *format, va_list args, size_t initial_size) __attribute__((format(printf, 1, 0)));

/* ---- Prefixes and width ---------------------------------------------------------------------------------------- */

/* Each setter keeps a copy of the text; null counts as "". Without memory a warning says so and the prefix stays.
 * A message under way keeps the prefix that it began with; its further lines have the mp prefix of their time.
 * print: informational messages, "" at first. warn: warnings, "Warning: ". mp: ahead of every line of every message
 * that is not primary-only, "". error: errors, "Error: ". internal_error: internal errors, "Internal error: ". */
void msg_set_print_prefix(const char *text);
void msg_set_warn_prefix(const char *text);
void msg_set_mp_prefix(const char *text);
void msg_set_error_prefix(const char *text);
void msg_set_internal_error_prefix(const char *text);

/* The prefix as it stands, never null; owned by the library and valid until the prefix is set again. */
const char *msg_get_print_prefix(void);
const char *msg_get_warn_prefix(void);
const char *msg_get_mp_prefix(void);
const char *msg_get_error_prefix(void);
const char *msg_get_internal_error_prefix(void);

/* Sets the width limit in columns; 0 means no wrapping. A negative width ends the process with an error. From then on
 * the environment variable ZEL_MSGERR_WRAP is not read any more. */
void msg_set_width_limit(int32_t width);

/* The width limit in columns, 78 at first. The first call, also by the first message, reads ZEL_MSGERR_WRAP once: a
 * number from 1 to 32766 can widen the limit but not narrow it, any other number turns wrapping off, anything else
 * changes nothing. */
int32_t msg_get_width_limit(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
