/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * The process pair: a parent starts a companion, and the two talk over one connected
 * stream socket.
 *
 * The parent:
 *
 *   1. platform_pair_parent_open_lp starts the companion. The companion finds its end in
 *      an environment variable whose name the parent chooses.
 *   2. platform_pair_ok tells whether that worked. A program that cannot be executed
 *      shows later, as a companion that ended with status 1. platform_pair_exec_error of
 *      pair_control.h has the reason then.
 *   3. platform_pair_send and platform_pair_recv carry values. The message calls of
 *      socket.h carry text, on platform_pair_tx_fd and platform_pair_rx_fd.
 *   4. platform_pair_companion_alive watches the companion and reaps it.
 *   5. platform_pair_close ends the stream. The parent then waits for the companion.
 *
 * The companion, early in its start-up:
 *
 *   1. platform_pair_child_open opens its end under the same name.
 *   2. platform_pair_ok and error_text tell whether that worked.
 *   3. It serves its parent until the stream ends.
 *
 * Example of a parent, with an ending that cannot hang:
 *
 *   static void end_companion(PairHandle *pair, int seconds) {
 *       int32_t pid = platform_pair_companion_pid(pair);
 *       struct timespec pause = {0, 10000000}; // 10 ms
 *       platform_pair_close(pair);             // the companion sees the end of the stream
 *       for (int left = 100 * seconds; left > 0 && platform_wait_nohang(pid, NULL, NULL) == 0; --left) {
 *           nanosleep(&pause, NULL);
 *       }
 *       if (platform_wait_nohang(pid, NULL, NULL) == 0) { // not reaped: the number is still its own
 *           kill(pid, SIGKILL);
 *           platform_wait_child(pid, NULL);
 *       }
 *   }
 *   ...
 *   PairHandle *pair = platform_pair_parent_open_lp("ECHO_PAIR", 1, 1, "./echo", NULL, "echo", (char *) NULL);
 *   if (!platform_pair_ok(pair)) {
 *       msg_fatal("%s: %s", pair->error_text, platform_pair_errstr(pair));
 *   }
 *   int32_t value = 42;
 *   platform_pair_send(pair, &value, sizeof value);
 *   platform_pair_recv(pair, &value, sizeof value);
 *   end_companion(pair, 5);
 *
 * Example of text and values on one pair; the values wait for an acknowledgement:
 *
 *   static int receive_all(PairHandle *pair, void *buffer, int32_t length) {
 *       for (int32_t done = 0; done < length;) {
 *           int32_t count = platform_pair_recv(pair, (char *) buffer + done, length - done);
 *           if (count == 0) { // the end of the stream, or an error
 *               return 0;
 *           }
 *           done += count;
 *       }
 *       return 1;
 *   }
 *
 *   static int sum(PairHandle *pair, const int32_t *values, int32_t count, int32_t *total) {
 *       int fd = platform_pair_tx_fd(pair);
 *       int32_t ready;
 *       char text[16];
 *       snprintf(text, sizeof text, "%d", (int) count);
 *       return platform_send_message(fd, "sum", text, (char *) NULL) &&                 // text
 *              receive_all(pair, &ready, sizeof ready) &&                               // acknowledged
 *              platform_send_all(fd, values, count * (int32_t) sizeof *values) != -1 && // values
 *              receive_all(pair, total, sizeof *total);
 *   }
 *
 * Example of the companion of that parent, whose message loop reads ahead:
 *
 *   static PairHandle *pair;
 *
 *   static int on_message(int socket, char *first_line, char **lines) {
 *       int32_t ready = 1;
 *       int32_t total = 0;
 *       if (strcmp(first_line, "sum") != 0 || lines[0] == NULL) {
 *           return 0;
 *       }
 *       platform_send_all(socket, &ready, sizeof ready); // from here on the parent sends values
 *       for (long left = strtol(lines[0], NULL, 10); left > 0; --left) {
 *           int32_t value;
 *           if (!receive_all(pair, &value, sizeof value)) {
 *               return 0;
 *           }
 *           total += value;
 *       }
 *       return platform_send_all(socket, &total, sizeof total) != -1;
 *   }
 *   ...
 *   pair = platform_pair_child_open("SUM_PAIR", 0, 1);
 *   platform_msgbuf_set(platform_msgbuf_create(65536));
 *   platform_message_loop(platform_pair_rx_fd(pair), on_message, NULL, 0);
 *
 * The environment string: parent pid, blank, number, blank, tag.
 *
 *   the variable NAME           kind
 *   "4711 5 pid-rtx_fd"         10   PLATFORM_PAIR_KIND_PLAIN
 *   "4711 5 pid-rtx_fd_l"       12   PLATFORM_PAIR_KIND_LOCAL, set by a parent's open
 *   "4711 20311 pid-rtx_fd_w"   13   PLATFORM_PAIR_KIND_HYBRID
 *   no such tag, or unset        0   PLATFORM_PAIR_KIND_NONE
 *
 *   the variable NAME_HYBRID                 the number, whatever the tag
 *   unset, empty, or begins with f, F or 0   the companion's descriptor
 *   any other value, "no" too                a TCP port on localhost
 *
 * Traps:
 *
 * - The message loop reads ahead and swallows a value sent right after a message. Wait
 *   for an acknowledgement, as the example does, or send the value in a line.
 * - platform_pair_kill_child waits for ever for a companion that ignores SIGTERM or is
 *   stopped. End a companion as the example does, or by platform_pair_stop of
 *   pair_control.h.
 * - On a non-blocking pair the end of the stream and EAGAIN are both the result 0. Set
 *   errno to 0 before platform_pair_recv. It stays 0 at the end of the stream.
 * - With no descriptor free, or without /proc, platform_pair_companion_alive is 0 for a
 *   companion that lives.
 * - A peer can end its receiver by a message that is too long (socket.h).
 * - A NUL in a line of a message hides the rest of the line (socket.h).
 * - A companion inherits NAME_HYBRID like any other variable and takes its descriptor for
 *   a port. A parent unsets it before it opens a local pair under NAME.
 * - Without stdio_fds a companion has no terminal, not even under a debugger.
 *
 * Invariant: a handle is valid precisely when it is not null and its field self points at
 * it. A call with any other aborts, save platform_pair_valid and platform_pair_describe.
 */
#ifndef ZEL_COMPONENTS_PLATFORM_ZEL_PAIR_CONNECTION_H
#define ZEL_COMPONENTS_PLATFORM_ZEL_PAIR_CONNECTION_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* The field kind of a handle: the form of the environment string. */
typedef enum PlatformPairKind {
    PLATFORM_PAIR_KIND_NONE = 0,   /* the variable is unset, or no tag matched */
    PLATFORM_PAIR_KIND_PLAIN = 10, /* "pid-rtx_fd" */
    PLATFORM_PAIR_KIND_LOCAL = 12, /* "pid-rtx_fd_l"; every handle of a parent's open */
    PLATFORM_PAIR_KIND_HYBRID = 13 /* "pid-rtx_fd_w" */
} PlatformPairKind;

/* The values of the field error_number that are no error numbers of the system. */
typedef enum PlatformPairError {
    PLATFORM_PAIR_BAD_VARIABLE = -1, /* the variable does not begin with two numbers */
    PLATFORM_PAIR_HEALTHY = 0        /* no error so far */
} PlatformPairError;

/* The value of the field child_exit_status that is no exit code. */
typedef enum PlatformPairStatus {
    PLATFORM_PAIR_STATUS_UNKNOWN = 256 /* the companion has not been reaped */
} PlatformPairStatus;

/* One end of a pair. The open calls make it, platform_pair_close alone releases it. */
typedef struct PairHandle {
    int32_t companion_pid;      /* the process at the other end; 0 until known */
    int32_t parent;             /* 1 on the parent's side, 0 on the companion's */
    int32_t kind;               /* a PlatformPairKind */
    int32_t hybrid_environment; /* 1 precisely when kind is PLATFORM_PAIR_KIND_HYBRID */
    int32_t blocking;           /* not 0: transfers block */
    int32_t rx_fd;              /* descriptor to receive from; -1 until open */
    int32_t tx_fd;              /* descriptor to send to; the same number */
    int32_t child_exit_status;  /* exit code of a reaped child, else a PlatformPairStatus */
    int32_t child_term_signal;  /* signal that ended the child, 0 if none */
    int32_t error_number;       /* last system error, or a PlatformPairError */
    const char *error_text;     /* start-up step that failed, a constant text, or null */
    struct PairHandle *self;    /* this record, while it is valid */
} PairHandle;

/* ---- Opening -------------------------------------------------------------------------------------------------------
 *
 *   stdio_fds               the companion's input, output and error
 *   null                    /dev/null for each
 *   {in, out, err}          these descriptors of the parent
 *   an entry not open, -1   the parent's own descriptor of that place
 *
 *   error_text after a parent's open   error_number   open in the parent
 *   null                               0              its end of the pair
 *   "socketpair create failed"         the system's   nothing
 *   "fork failed"                      the system's   both socket ends, in no handle
 *
 *   error_number after a companion's open   meaning
 *   0, error_text null                      the end is open
 *   0, error_text set                       the variable is unset or has no tag; the text is
 *                                           "Failing to start due to wrong type on linux"
 *   PLATFORM_PAIR_BAD_VARIABLE              the variable does not begin with two numbers
 *   the system's                            the connection to a port failed
 */

/* Creates the pair and starts the companion.
 * - env_name: the variable that carries the companion's end.
 * - ignore_sigpipe: not 0 makes the parent ignore SIGPIPE once the companion is forked.
 * - blocking: 0 puts both ends into non-blocking mode.
 * - file: the program, searched along PATH.
 * - stdio_fds: the companion's standard descriptors, see the table. Each is closed in the
 *   companion after its last use.
 * - arg0 and further texts, then a null pointer of type char *: the argument vector.
 * - Result: a handle in every case.
 * - Errors: in the handle, see the table. A fork that fails by EAGAIN is tried up to 31
 *   times. No memory for the handle ends the process with an error. A 257th text is an
 *   assertion that aborts.
 * - A companion that cannot execute its program ends by exit(1). So does one whose
 *   standard descriptors find no room at the limit of descriptors.
 * - Such a companion runs the parent's exit handlers. A handler that is for the parent
 *   alone compares getpid() with the number that the parent noted.
 * - Such a companion has /dev/null in place of every descriptor that can be read from and
 *   has a position. The positions of the parent's files do not move.
 * - State: output streams are flushed before the fork. The parent's end is
 *   close-on-exec. */
PairHandle *platform_pair_parent_open_lp(const char *env_name, int ignore_sigpipe, int blocking, const char *file,
                                         const int *stdio_fds, const char *arg0, ...) __attribute__((sentinel));

/* platform_pair_parent_open_lp with a ready argument vector.
 * - argv: the texts, then a null pointer. Their number has no limit here. */
PairHandle *platform_pair_parent_open_vp(const char *env_name, int ignore_sigpipe, int blocking, const char *file,
                                         const int *stdio_fds, char *const argv[]);

/* Opens the companion's end.
 * - env_name: the variable that carries it.
 * - ignore_signals: not 0 ignores SIGHUP, SIGINT, SIGQUIT, SIGABRT, SIGPIPE, SIGTERM and
 *   SIGURG from now on. With a port all signals stay as they are.
 * - blocking: kept in the handle. With a port, not 0 makes the socket block.
 * - Result: a handle in every case. Its descriptors are -1 after a failure.
 * - Errors: in the handle, see the table. Without memory for it the process ends.
 * - Without the variable or a tag platform_pair_ok is 1: test error_text too. */
PairHandle *platform_pair_child_open(const char *env_name, int ignore_signals, int blocking);

/* Tells whether a handle is valid.
 * - ph: any pointer to readable storage, or null.
 * - Result: 1 for a valid handle, else 0. */
int platform_pair_valid(const PairHandle *ph);

/* ---- Transfers -----------------------------------------------------------------------------------------------------
 *
 *   result 0 of platform_pair_recv      errno (set to 0 before)   error_number
 *   the end of the stream               0                         unchanged
 *   nothing there, non-blocking pair    EAGAIN                    unchanged
 *   a failure                           the system's              the same
 */

/* Sends once, without MSG_NOSIGNAL. A parent that may write to a dead companion opens its
 * pair with ignore_sigpipe.
 * - Result: the count sent, which may be less than length; 0 on failure.
 * - Errors: error_number becomes errno, unless that is EAGAIN, which is never stored. A
 *   negative length is EINVAL. Zero bytes sent count as a failure.
 * - Blocks on a blocking pair while the peer does not read. */
int32_t platform_pair_send(PairHandle *ph, const void *buffer, int32_t length);

/* Receives once.
 * - Result: the count, which may be less than length; 0 at the end of the stream and on
 *   failure, see the table.
 * - Errors: error_number becomes errno, unless that is EAGAIN, which is never stored. A
 *   negative length is EINVAL.
 * - Blocks on a blocking pair until data is there. */
int32_t platform_pair_recv(PairHandle *ph, void *buffer, int32_t length);

/* ---- Watching and ending ----------------------------------------------------------------------------------------- */

/* Tells whether the process at the other end lives.
 * - Result: 1 while it lives, else 0.
 * - Parent: a companion that has ended is reaped, its exit status and signal go into the
 *   handle, and the result is 0. A child that other code waited for counts as alive
 *   while another process has its number.
 * - Kind PLATFORM_PAIR_KIND_HYBRID: 1 always for a companion, and for a parent whose
 *   companion_pid is 0.
 * - Limits: without /proc or a free descriptor the result is 0, and nobody is reaped. */
int platform_pair_companion_alive(PairHandle *ph);

/* Ends the companion by platform_kill_and_reap.
 * - Result: that of platform_kill_and_reap. On the companion's side 0.
 * - Blocks until the companion has ended, for ever when it ignores SIGTERM or is stopped.
 * - When the fields already hold the companion's end, or an earlier call waited for it,
 *   nobody is signalled and the result is 0. The number may belong to another process by
 *   then.
 * - Until its program runs, a companion has the signal handlers of its parent. Such a
 *   handler may use the SIGTERM up, and the wait has no end. A parent that handles
 *   SIGTERM makes this call only after its companion has sent something.
 * - State: the status fields of the handle stay as they are. */
int platform_pair_kill_child(PairHandle *ph);

/* Closes the descriptors and releases the handle.
 * - Result: 1.
 * - Ownership: the handle must not be used again.
 * - Kind PLATFORM_PAIR_KIND_HYBRID: the connection is shut down for every copy of its
 *   descriptor.
 * - The companion is neither waited for nor signalled. */
int platform_pair_close(PairHandle *ph);

/* Describes a handle in one line of text.
 * - ph: a damaged handle or null is described too.
 * - buffer: 2048 bytes, or null for a static buffer that every such call overwrites.
 * - Result: the buffer.
 * - With error_text set the text is "zel: " and error_text alone. */
char *platform_pair_describe(const PairHandle *ph, char *buffer);

/* ---- The fields of a handle -------------------------------------------------------------------------------------- */

/* Result: error_number, a number of the system or a PlatformPairError. */
int32_t platform_pair_errno(const PairHandle *ph);

/* Result: 1 when error_number is 0, else 0. */
int32_t platform_pair_ok(const PairHandle *ph);

/* Result: 1 on the parent's side, 0 on the companion's. */
int32_t platform_pair_parent(const PairHandle *ph);

/* Result: 1 on the companion's side, 0 on the parent's. */
int32_t platform_pair_child(const PairHandle *ph);

/* Result: rx_fd, the descriptor to receive from; -1 until open. The handle keeps it. */
int32_t platform_pair_rx_fd(const PairHandle *ph);

/* Result: tx_fd, the descriptor to send to; -1 until open. The handle keeps it. */
int32_t platform_pair_tx_fd(const PairHandle *ph);

/* Result: companion_pid, the number of the process at the other end; 0 until known. */
int32_t platform_pair_companion_pid(const PairHandle *ph);

/* Result: child_exit_status; PLATFORM_PAIR_STATUS_UNKNOWN before the child is reaped. */
int32_t platform_pair_child_exit_status(const PairHandle *ph);

/* Result: child_term_signal, the signal that ended the companion; 0 if none. */
int32_t platform_pair_child_term_signal(const PairHandle *ph);

/* Result: hybrid_environment, 1 when kind is PLATFORM_PAIR_KIND_HYBRID, else 0. */
int32_t platform_pair_hybrid_environment(const PairHandle *ph);

/* Result: the system's text for error_number.
 * - Ownership: the C library's. Its next error text may overwrite it. */
const char *platform_pair_errstr(const PairHandle *ph);

/* ---- Waiting for processes --------------------------------------------------------------------------------------- */

/* Calls waitpid without blocking.
 * - pid: the child.
 * - exit_code: zeroed first; gets the exit code of a child that ended by exit. May be
 *   null.
 * - signal: zeroed first; gets the signal that ended the child. May be null.
 * - Result: that of waitpid: pid when it was reaped, 0 while it runs, -1 with errno. */
int32_t platform_wait_nohang(int32_t pid, int32_t *exit_code, int32_t *signal);

/* Calls waitpid, and calls it again after every interruption.
 * - pid: the child.
 * - status: gets the wait status; may be null.
 * - Result: pid.
 * - Errors: -1. Each call that fails, an interruption too, is reported as "waitpid: "
 *   (platform_perror).
 * - Blocks until the child has ended. */
int32_t platform_wait_child(int32_t pid, int32_t *status);

/* Sends SIGTERM, or SIGKILL when SIGTERM cannot be sent, and waits for the process.
 * - pid: below 1 nobody is signalled.
 * - Result: 1; 0 when no signal could be sent.
 * - Blocks until the process ends, for ever when it ignores SIGTERM or is stopped. */
int platform_kill_and_reap(int32_t pid);

/* Opens the shared descriptor on /dev/null, for reading and writing.
 * - Result: the descriptor. It is above the standard descriptors, and programs do not
 *   inherit it.
 * - Errors: -1 when it cannot be opened.
 * - Ownership: each open counts a reference, given back by platform_null_fd_close. */
int platform_null_fd_open(void);

/* Gives one reference to the shared descriptor back. The last one closes it.
 * - fd: the shared descriptor. Any other is ignored. */
void platform_null_fd_close(int fd);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
