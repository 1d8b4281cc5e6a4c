/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * Message streams: the one channel through which a program and the runtime report.
 *
 * A message has a type, and each type has a list of output streams. A message goes to
 * every stream of its type:
 *
 *   type         name             streams at first   prefixes of its calls, at first
 *   -----------  ---------------  -----------------  ---------------------------------
 *   MSG_INFO     "informational"  standard output    print prefix ""
 *   MSG_DEBUG    "debug"          standard output    none; written by msg_debug
 *   MSG_WARNING  "warning"        standard error     warn prefix "Warning: "
 *   MSG_ERROR    "error"          standard error     error prefix "Error: ",
 *                                                    internal-error "Internal error: "
 *   MSG_DIAG     "diag"           none               none; written by msg_diag
 *
 * The format and its arguments are those of printf. The first line of a message begins
 * with the mp prefix and the prefix of the call. Each later line begins with the mp
 * prefix and as many spaces as the prefix has characters, at most 49. A primary-only
 * message has no mp prefix. Lines are wrapped at the width limit of 78 columns.
 *
 *   1. Set prefixes and width, if the defaults do not suit: msg_set_print_prefix,
 *      msg_set_width_limit.
 *   2. Add further streams: msg_add_stream(MSG_INFO | MSG_WARNING, log).
 *   3. Report: msg_print, msg_warn, msg_error. msg_fatal ends the process with status 1.
 *   4. Add a line to the last message: MSG_CONT.
 *
 * Example:
 *
 *   msg_set_print_prefix("backup: ");
 *   msg_print("%d files in %s", 12, "/home/guest");      // backup: 12 files in /home/guest
 *   msg_warn("%s is not readable", "core");              // Warning: core is not readable
 *   MSG_CONT("It was left out.");                        //          It was left out.
 *
 * Every output call but msg_diag keeps these rules:
 *
 *   - A format that begins with a single "$" ends the process with an error. "$$" at
 *     the start of a format stands for one "$".
 *   - In most messages %s, %d and %u have the C library's own meaning, even when the
 *     program gave them another by register_printf_specifier. Do not rely on either.
 *   - A stream on which a write or a flush fails is dropped from the type for good. A
 *     warning reports it. The message goes on to the other streams.
 *   - A write that a signal interrupts has failed. Install handlers with SA_RESTART,
 *     or the stream is dropped. A full non-blocking descriptor fails in the same way.
 *   - A text of up to 9998 characters needs no memory. A longer text needs some. So does
 *     a message within a message, which a stream of the program may write. A message
 *     that finds no memory is replaced by a fixed text on standard error.
 *   - The library closes no stream.
 *   - A stream may stand in several lists, and twice in one.
 *   - errno is not kept. A message that was written leaves it 0. */
#ifndef ZEL_MSG_MSG_H
#define ZEL_MSG_MSG_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

/* <sys/msg.h> may define MSG_INFO as 12, a command of msgctl. Here the name is the
 * message type, whichever header comes first. Write 12 in a call of msgctl. */
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

/* The type of a message, see the table above.
 * - Each code is a single bit: a set of types is a mask.
 * - Bits of a mask above these five are ignored. */
typedef enum MsgType {
    MSG_INFO = 1,    /* ordinary output */
    MSG_DEBUG = 2,   /* debug text */
    MSG_WARNING = 4, /* a warning */
    MSG_ERROR = 8,   /* an error */
    MSG_DIAG = 16    /* diagnostic text */
} MsgType;

/* The layout of a message.
 * - A width limit of 0 lays every message out as MSG_FMT_RAW. The newline and the
 *   flush of MSG_FMT_LINE still follow.
 * - The prefix or the indentation begins each line in every layout. */
typedef enum MSG_FMT_TYPE {
    MSG_FMT_RAW = 0,  /* not wrapped; nothing is appended */
    MSG_FMT_WRAP = 1, /* wrapped; nothing is appended, so that the line stays open */
    MSG_FMT_LINE = 2  /* wrapped; a newline is appended and the streams are flushed */
} MSG_FMT_TYPE;

/* The output streams of one message type, in the order in which they were added.
 * - The array belongs to the library.
 * - The streams belong to whoever opened them. */
typedef struct MsgStreamDesc {
    int32_t count;    /* streams in use */
    int32_t capacity; /* slots allocated */
    FILE **streams;   /* null until the first stream is added */
    int32_t sync;     /* the sync flag, 0 or 1; see msg_sync_mode */
} MsgStreamDesc;

/* ---- Output ---------------------------------------------------------------------------------------------------- */

/* The output calls. Types and layouts stand without MSG_ and MSG_FMT_:
 *
 *                                                                              after
 *   call                        type     prefix          layout  primary-only  writing
 *   --------------------------  -------  --------------  ------  ------------  ---------
 *   msg_print                   INFO     print           LINE    no            returns
 *   msg_print_no_prefix         INFO     none            LINE    no            returns
 *   msg_print_with_prefix       INFO     the caller's    LINE    no            returns
 *   msg_print_wrap              INFO     print           WRAP    no            returns
 *   msg_print_raw               INFO     print           RAW     no            returns
 *   msg_warn                    WARNING  warn            LINE    no            returns
 *   msg_warn_wrap               WARNING  warn            WRAP    no            returns
 *   msg_warn_raw                WARNING  warn            RAW     no            returns
 *   msg_primary_print           INFO     print           LINE    yes           returns
 *   msg_primary_print_wrap      INFO     print           WRAP    yes           returns
 *   msg_primary_print_raw       INFO     print           RAW     yes           returns
 *   msg_primary_warn            WARNING  warn            LINE    yes           returns
 *   msg_primary_warn_wrap       WARNING  warn            WRAP    yes           returns
 *   msg_primary_warn_raw        WARNING  warn            RAW     yes           returns
 *   msg_error_ex                ERROR    error           LINE    the caller's  returns
 *   msg_error_ex_wrap           ERROR    error           WRAP    the caller's  returns
 *   msg_error_ex_raw            ERROR    error           RAW     the caller's  returns
 *   msg_internal_error_ex       ERROR    internal-error  LINE    the caller's  returns
 *   msg_internal_error_ex_wrap  ERROR    internal-error  WRAP    the caller's  returns
 *   msg_internal_error_ex_raw   ERROR    internal-error  RAW     the caller's  returns
 *   msg_error                   ERROR    error           LINE    no            returns
 *   msg_fatal                   ERROR    error           LINE    no            exit(1)
 *   msg_internal_error          ERROR    internal-error  LINE    no            exit(1)
 *   msg_fatal_syserr            ERROR    error           LINE    no            exit(1) *
 *   msg_primary_fatal           ERROR    error           LINE    yes           exit(1)
 *   msg_primary_internal_error  ERROR    internal-error  LINE    yes           exit(1)
 *   msg_primary_fatal_syserr    ERROR    error           LINE    yes           exit(1) *
 *   MSG_CONT, msg_vcont         those of the message that is continued         returns
 *
 * The calls marked * add a continuation: "System error message: " and the text that
 * errno had on entry. A primary-only message is written only while the primary flag is
 * not 0. */

/* Writes one message. Every call of the table writes through this one.
 * - type: one MsgType.
 * - fmt_type: one MSG_FMT_TYPE.
 * - primary_only: not 0 marks the message primary-only.
 * - continuation: not 0 goes on in the line that is open; 0 begins a line of its own.
 * - prefix: the text that begins the message; null counts as "".
 * - format, args: as for vprintf.
 * - An unknown type ends the process with an error.
 * - An unknown fmt_type ends the process with an error while the width limit is not 0. */
void _msg_output(int type, int fmt_type, int primary_only, int continuation, const char *prefix, const char *format,
                 va_list args) __attribute__((format(printf, 6, 0)));

/* Writes an informational line after the print prefix. */
void msg_print(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* Writes an informational line after the mp prefix alone. */
void msg_print_no_prefix(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* Writes informational text after the print prefix, wrapped. The line stays open. */
void msg_print_wrap(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* Writes informational text after the print prefix, not wrapped. Appends nothing. */
void msg_print_raw(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* Writes an informational line after the caller's prefix.
 * - prefix: the text that begins the line; null counts as "". */
void msg_print_with_prefix(const char *prefix, const char *format, ...) __attribute__((format(printf, 2, 3)));

/* Writes a warning as a line after the warn prefix. */
void msg_warn(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* Writes a warning after the warn prefix, wrapped. The line stays open. */
void msg_warn_wrap(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* Writes a warning after the warn prefix, not wrapped. Appends nothing. */
void msg_warn_raw(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* As msg_print, but primary-only. */
void msg_primary_print(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* As msg_print_wrap, but primary-only. */
void msg_primary_print_wrap(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* As msg_print_raw, but primary-only. */
void msg_primary_print_raw(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* As msg_warn, but primary-only. */
void msg_primary_warn(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* As msg_warn_wrap, but primary-only. */
void msg_primary_warn_wrap(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* As msg_warn_raw, but primary-only. */
void msg_primary_warn_raw(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* Writes an error as a line after the error prefix.
 * - primary_only: as for _msg_output.
 * - Returns to the caller. */
void msg_error_ex(int primary_only, const char *format, ...) __attribute__((format(printf, 2, 3)));

/* Writes an error after the error prefix, wrapped. The line stays open.
 * - primary_only: as for _msg_output.
 * - Returns to the caller. */
void msg_error_ex_wrap(int primary_only, const char *format, ...) __attribute__((format(printf, 2, 3)));

/* Writes an error after the error prefix, not wrapped. Appends nothing.
 * - primary_only: as for _msg_output.
 * - Returns to the caller. */
void msg_error_ex_raw(int primary_only, const char *format, ...) __attribute__((format(printf, 2, 3)));

/* Writes an internal error as a line after the internal-error prefix.
 * - primary_only: as for _msg_output.
 * - Returns to the caller. */
void msg_internal_error_ex(int primary_only, const char *format, ...) __attribute__((format(printf, 2, 3)));

/* Writes an internal error after the internal-error prefix, wrapped. The line stays open.
 * - primary_only: as for _msg_output.
 * - Returns to the caller. */
void msg_internal_error_ex_wrap(int primary_only, const char *format, ...) __attribute__((format(printf, 2, 3)));

/* Writes an internal error after the internal-error prefix, not wrapped. Appends nothing.
 * - primary_only: as for _msg_output.
 * - Returns to the caller. */
void msg_internal_error_ex_raw(int primary_only, const char *format, ...) __attribute__((format(printf, 2, 3)));

/* Writes an error as a line after the error prefix. Returns to the caller. */
void msg_error(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* ---- Fatal calls ----------------------------------------------------------------------------------------------- */

/* Writes an error line after the error prefix, then calls exit(1). */
void msg_fatal(const char *format, ...) __attribute__((noreturn, format(printf, 1, 2)));

/* Writes an error line after the internal-error prefix, then calls exit(1). */
void msg_internal_error(const char *format, ...) __attribute__((noreturn, format(printf, 1, 2)));

/* As msg_fatal, with the system's error text as a continuation.
 * - The text is that of errno on entry. */
void msg_fatal_syserr(const char *format, ...) __attribute__((noreturn, format(printf, 1, 2)));

/* As msg_fatal, but primary-only.
 * - While the primary flag is 0 nothing is written. The process ends all the same. */
void msg_primary_fatal(const char *format, ...) __attribute__((noreturn, format(printf, 1, 2)));

/* As msg_internal_error, but primary-only.
 * - While the primary flag is 0 nothing is written. The process ends all the same. */
void msg_primary_internal_error(const char *format, ...) __attribute__((noreturn, format(printf, 1, 2)));

/* As msg_fatal_syserr, but primary-only.
 * - While the primary flag is 0 nothing is written. The process ends all the same. */
void msg_primary_fatal_syserr(const char *format, ...) __attribute__((noreturn, format(printf, 1, 2)));

/* ---- Continuation and diagnostics ------------------------------------------------------------------------------ */

/* Continues the last message with its type, layout, primary-only mark and indentation.
 * - The text goes on in the line that the last message left open. After a full line it
 *   begins a new line with the indentation.
 * - A continuation can be continued.
 * - A continuation before any message ends the process with an error. */
void MSG_CONT(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* MSG_CONT with an argument list.
 * - format, args: as for vprintf. */
void msg_vcont(const char *format, va_list args) __attribute__((format(printf, 1, 0)));

/* Writes one diagnostic text to every stream of MSG_DIAG.
 * - The text has no prefix, is not wrapped and gets no newline.
 * - The formatted text is read as a format once more, without arguments. "%%" becomes
 *   "%". "%m" becomes the text of errno on entry. Other conversions stand as they are.
 * - "%%%%" in the format writes one percent sign.
 * - The text ends in front of a conversion that fails.
 * - Write errors are ignored. A failing stream stays in the list.
 * - Without a stream nothing is formatted.
 * - The formatted text is cut to 16383 characters.
 * - errno is kept. */
void msg_diag(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* ---- Streams --------------------------------------------------------------------------------------------------- */

/* Appends the stream to the list of each type in the mask, in ascending order of the
 * bits.
 * - type_mask: a set of MsgType bits.
 * - stream: the stream; null is ignored.
 * - A list that cannot grow for lack of memory stays as it is, and a warning says so.
 * - Without memory for the first slots of a list the process ends with status 1. A report
 *   of the memory library takes spare slots instead.
 * - The stream stays the caller's. It must stay open while it is in a list.
 * - A write that a signal interrupts drops the stream, except in msg_diag. Install
 *   handlers with SA_RESTART. */
void msg_add_stream(int type_mask, FILE *stream);

/* Takes the first occurrence of the stream out of the list of each type in the mask.
 * - type_mask: a set of MsgType bits.
 * - stream: the stream; one that is not in a list is ignored.
 * - The other streams keep their order.
 * - Nothing is flushed or closed. */
void msg_remove_stream(int type_mask, FILE *stream);

/* Empties the list of each type in the mask.
 * - type_mask: a set of MsgType bits.
 * - The slots of a list are kept.
 * - Nothing is flushed or closed. */
void msg_clear_streams(int type_mask);

/* Returns the stream list of one type.
 * - type: one MsgType.
 * - An unknown type ends the process with an error.
 * - The list belongs to the library and is valid until the process ends. */
MsgStreamDesc *_msg_get_stream_desc(int type);

/* Returns 1 when MSG_INFO has at least one stream, else 0. */
int msg_info_has_stream(void);

/* Returns 1 when MSG_WARNING has at least one stream, else 0. */
int msg_warn_has_stream(void);

/* Sets or reads the sync flag of the types in the mask.
 * - type_mask: a set of MsgType bits.
 * - mode 1: sets the flag of each type. Where the flag was 0, the streams of the type
 *   are flushed and forced to disk. Returns 1.
 * - mode 0, or above 1: changes nothing. A flag stays set once it is set. Returns
 *   mode.
 * - mode below 0: reads. Returns the flag of the one type in the mask, or -1 when the
 *   mask holds several types.
 * - Returns -2 when the mask holds none of the five types.
 * - The flag of MSG_INFO is 1 at first, that of the other types 0.
 * - While the flag of MSG_DIAG is 1, msg_diag forces each text to disk. The other
 *   output calls do not read the flag. */
int msg_sync_mode(int type_mask, int mode);

/* Sets the primary flag.
 * - flag: not 0 lets primary-only messages through, 0 leaves them unwritten. */
void msg_set_primary(int flag);

/* Returns the primary flag as it was set; 1 at first. */
int msg_is_primary(void);

/* Returns the name of one type, see the table above. The library's reports use it.
 * - type: one MsgType.
 * - An unknown type ends the process with an error. */
const char *msg_type_name(int type);

/* Formats into storage from malloc.
 * - format, args: as for vprintf.
 * - initial_size: bytes allocated at first. The storage grows until the text fits.
 * - Returns the text, or null when memory runs out or the format cannot be converted.
 * - The caller releases the text with free.
 * - Storage that cannot grow is not released.
 * - errno is cleared before each attempt. */
char *msg_vformat_alloc(const char *format, va_list args, size_t initial_size) __attribute__((format(printf, 1, 0)));

/* ---- Prefixes and width ---------------------------------------------------------------------------------------- */

/* The prefixes:
 *
 *   prefix          begins                                             at first
 *   --------------  -------------------------------------------------  ------------------
 *   print           informational messages                             ""
 *   warn            warnings, those of the library too                 "Warning: "
 *   mp              every line of a message that is not primary-only   ""
 *   error           errors and fatal errors, those of the library too  "Error: "
 *   internal-error  internal errors                                    "Internal error: "
 *
 * Rules of all prefixes:
 *
 * - A setter keeps a copy of its text. The text may be the prefix itself.
 * - A setter that finds no memory warns and leaves the prefix as it is.
 * - A message that is being written keeps the prefix with which it began. Its later lines
 *   begin with the mp prefix that is set by then.
 * - A getter returns a text of the library, never null, valid until the prefix is set
 *   again. */

/* Sets the print prefix.
 * - text: the new prefix; null counts as "". */
void msg_set_print_prefix(const char *text);

/* Sets the warn prefix.
 * - text: the new prefix; null counts as "". */
void msg_set_warn_prefix(const char *text);

/* Sets the mp prefix.
 * - text: the new prefix; null counts as "". */
void msg_set_mp_prefix(const char *text);

/* Sets the error prefix.
 * - text: the new prefix; null counts as "". */
void msg_set_error_prefix(const char *text);

/* Sets the internal-error prefix.
 * - text: the new prefix; null counts as "". */
void msg_set_internal_error_prefix(const char *text);

/* Returns the print prefix. */
const char *msg_get_print_prefix(void);

/* Returns the warn prefix. */
const char *msg_get_warn_prefix(void);

/* Returns the mp prefix. */
const char *msg_get_mp_prefix(void);

/* Returns the error prefix. */
const char *msg_get_error_prefix(void);

/* Returns the internal-error prefix. */
const char *msg_get_internal_error_prefix(void);

/* Sets the width limit.
 * - width: columns; 0 turns wrapping off.
 * - A negative width ends the process with an error.
 * - From then on the environment variable ZEL_MSGERR_WRAP is not read any more. */
void msg_set_width_limit(int32_t width);

/* Returns the width limit in columns; 78 at first, 0 for no wrapping.
 * - The first call reads ZEL_MSGERR_WRAP, unless a width was set. The first message
 *   that is written makes this call too.
 * - A number from 1 to 32766 in the variable widens the limit and never narrows it.
 * - Any other number turns wrapping off.
 * - A text without a number at its start changes nothing. */
int32_t msg_get_width_limit(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
