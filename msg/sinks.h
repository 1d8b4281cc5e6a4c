/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * Streams that are more than files: a log of limited size, a ring of the last bytes, the
 * system log, a function of the program. Each is a stream of the C library:
 * msg_add_stream takes it like any other, and fclose ends it.
 *
 *   1. Open the stream. It is null with errno when it cannot be opened.
 *   2. Add it to the types that it shall get: msg_add_stream.
 *   3. To close it before the process ends, take it out of all types first:
 *      msg_remove_stream. Then call fclose.
 *
 * Example:
 *
 *   FILE *log = msg_open_rotating_file("server.log", 1 << 20, 3); // older ones: server.log.1 to .3
 *   if (log == NULL) {
 *       msg_fatal_syserr("server.log");
 *   }
 *   msg_add_stream(MSG_WARNING | MSG_ERROR, log);
 *   msg_add_stream(MSG_DEBUG | MSG_ERROR, msg_open_ring(65536, STDERR_FILENO)); // seen when it matters
 *   msg_debug("%d clients", 12);
 *
 * These streams keep the following rules:
 *
 *   - They take their memory when they are opened. None is asked for while text is
 *     written. Only the syslog of the C library may ask for some.
 *   - They have no descriptor of their own: fileno fails with EBADF.
 *   - A stream that fails is dropped by the message library as a failing file is. */
#ifndef ZEL_MSG_SINKS_H
#define ZEL_MSG_SINKS_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* ---- Files ----------------------------------------------------------------------------------------------------- */

/* Opens a file of limited size. A line that would not fit any more goes into a new file.
 * The older ones are renamed to PATH.1, PATH.2 and so on, the youngest first.
 * - path: created, or continued where it ends. Later renames stay in its directory,
 *   whatever the working directory is by then.
 * - most_bytes: of one file, at least 1. A longer line stands in a file of its own. A
 *   line of more than 8192 bytes, and one that is flushed before its end, may end beyond.
 * - older_files: how many are kept beside it. 0 keeps none: the file is emptied.
 * - Result: a line-buffered stream. Two descriptors are open with it, above the standard
 *   ones and close-on-exec.
 * - Errors: null with errno. EINVAL: a null path, or a number below its least. EPERM:
 *   under the name stands no regular file, or one of another user or with a second link.
 *   A link is not followed (ELOOP), and a FIFO is not waited for (ENXIO).
 * - When the file cannot be renamed, or no new one opened, it goes on growing: no line is
 *   lost. Each further line tries again.
 * - A write that fails in the middle of a line, for want of space, leaves its beginning.
 *   The next line begins on a line of its own.
 * - Several processes may write to one file, such as a parent and its children. One of
 *   them renames it, under a lock (F_SETLK), and the others go on in the new one at their
 *   next line that does not fit. While somebody holds the lock the file goes on growing.
 * - msg_sync_mode forces the file to disk like any other. */
FILE *msg_open_rotating_file(const char *path, int64_t most_bytes, int32_t older_files);

/* ---- Rings ----------------------------------------------------------------------------------------------------- */

/* Opens a ring: it keeps the bytes written last.
 * - size: of the ring in bytes, at least 1.
 * - fd: where the ring is written when a fatal call or an assertion of the library ends
 *   the process; -1 for nowhere. The descriptor stays the caller's.
 * - Result: an unbuffered stream. A ring whose stream was closed is forgotten.
 * - Errors: null with errno. EINVAL: a size of 0, or an fd below -1.
 * - At such an end the rings are written in the order in which they were opened, once. No
 *   memory is needed. The message of the fatal call is in it when the ring is a stream of
 *   MSG_ERROR.
 * - What is written out begins with a whole line. A ring that holds but the end of one
 *   line gives that.
 * - A child made by fork has a ring of its own with the same bytes. */
FILE *msg_open_ring(size_t size, int fd);

/* Writes out what a ring holds, the oldest bytes first. The ring keeps them.
 * - ring: a stream of msg_open_ring.
 * - fd: where to. A full non-blocking descriptor is waited for. SIGPIPE is not raised.
 * - Result: 1, or 0 with errno; part of the text may be written then. EINVAL: the stream
 *   is no ring. */
int msg_write_ring(FILE *ring, int fd);

/* ---- Lines that go elsewhere ----------------------------------------------------------------------------------- */

/* Both streams below take whole lines:
 *
 *   - A line of up to 16384 bytes, with its newline, arrives at once. A longer one
 *     arrives in parts of that size.
 *   - A line without its end waits for it. A flush does not hand it on; the close of the
 *     stream and the end of the process by exit do. */

/* Opens a stream to the system log. Each line is an entry, and an empty line is none.
 * - ident: the name of the program in the log, copied. The process number follows it.
 * - priority: a facility and a level, as syslog takes them. A facility of 0 is LOG_USER.
 * - Result: an unbuffered stream.
 * - Errors: null with errno. EINVAL: a null ident, or a priority of other bits.
 * - The C library keeps one name and one connection for the process. The stream sets its
 *   name by openlog before each entry. fclose ends the connection by closelog: a program
 *   that calls syslog by itself calls openlog again then.
 * - The C library does not tell whether an entry reached the log: the stream never
 *   fails. */
FILE *msg_open_syslog(const char *ident, int priority);

/* A function of the program that takes text.
 * - text, length: a line with its newline. No NUL follows.
 * - user: as given to msg_open_function.
 * - Result: not 0 when it took the text. 0 drops the stream, as a failing file is
 *   dropped; errno, which is 0 on entry, names the reason.
 * - It may write messages. Those do not reach its own stream.
 * - It returns, or ends the process. It does not close its stream. */
typedef int (*MsgSinkFunction)(const char *text, size_t length, void *user);

/* Opens a stream to a function: each line, with its newline, is one call.
 * - user: handed to the function.
 * - Result: an unbuffered stream.
 * - Errors: null with errno. EINVAL: a null function.
 * - A child made by fork does not hand over the beginning of a line that its parent
 *   wrote. */
FILE *msg_open_function(MsgSinkFunction function, void *user);

/* ---- Texts ----------------------------------------------------------------------------------------------------- */

/* Writes a diagnostic text as it stands to every stream of MSG_DIAG.
 * - text: of any length. No conversion is looked for in it. Null counts as "".
 * - As with msg_diag, the text has no prefix, is not wrapped and gets no newline, write
 *   errors are ignored, and errno is kept. */
void msg_diag_text(const char *text);

/* A program with a msg_debug of its own keeps it: its definition is the one that is
 * linked. When it is no function of this type, the program defines ZEL_OWN_MSG_DEBUG
 * before it includes this header. */
#ifndef ZEL_OWN_MSG_DEBUG
/* Writes a line of the type MSG_DEBUG without a prefix, wrapped. */
void msg_debug(const char *format, ...) __attribute__((format(printf, 1, 2)));
#endif

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
