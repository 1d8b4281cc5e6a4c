/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * The process pair: a parent starts a companion, and the two talk over one connected stream socket.
 *
 * The parent:
 *
 *   1. platform_pair_parent_open_lp starts the companion and leaves its end in the environment, under a name of the
 *      parent's choosing.
 *   2. platform_pair_errstr and platform_pair_ok: did that work? A program that could not be executed shows later, as
 *      a companion that ended at once with status 1.
 *   3. platform_pair_send and platform_pair_recv for values; the message loop of socket.h, on platform_pair_rx_fd, for
 *      text.
 *   4. platform_pair_companion_alive watches and reaps the companion; platform_pair_kill_child stops it.
 *   5. platform_pair_close releases the handle. The companion sees the end of the stream; it is neither waited for nor
 *      signalled.
 *
 * The companion, early in its start-up:
 *
 *   1. platform_pair_child_open with the same name.
 *   2. platform_pair_ok; on failure a message with platform_pair_errno and platform_pair_errstr, and exit(1).
 *   3. Serves its parent until the stream ends.
 *
 * Example of a parent:
 *
 *   PairHandle *pair = platform_pair_parent_open_lp("ECHO_PAIR", 1, 1, "./echo", NULL, "echo", (char *) NULL);
 *   int32_t value = 42;
 *   platform_pair_send(pair, &value, sizeof value);
 *   platform_pair_recv(pair, &value, sizeof value);
 *   platform_pair_kill_child(pair);
 *   platform_pair_close(pair);
 *
 * The environment string: parent pid, blank, number, blank, tag.
 *
 *   "4711 5 pid-rtx_fd_l"      kind 12: 5 is the companion's descriptor ("pid-rtx_fd", kind 10, the same)
 *   "4711 20311 pid-rtx_fd_w"  kind 13, the tag of the hybrid arrangement
 *
 * Whatever the tag, the number is a TCP port on localhost when the variable NAME_HYBRID is set, not empty and begins
 * with none of 'f', 'F' and '0'; else a descriptor. A companion inherits that variable like any other: a parent that
 * was started with NAME_HYBRID set unsets it before it opens a local pair under NAME. Otherwise the companion takes its
 * descriptor for a port.
 *
 * Invariant: a handle is valid precisely when it is not null and its field self points at the record itself. Every
 * operation that takes a handle, except platform_pair_valid and platform_pair_describe, asserts that and aborts the
 * process otherwise.
 */
#ifndef ZEL_COMPONENTS_PLATFORM_ZEL_PAIR_CONNECTION_H
#define ZEL_COMPONENTS_PLATFORM_ZEL_PAIR_CONNECTION_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* One end of a pair. Made by the open operations, released by platform_pair_close alone. */
typedef struct PairHandle {
    int32_t companion_pid;      /* the process at the other end: the child, or the parent; 0 until known */
    int32_t parent;             /* 1 on the parent's side, 0 on the companion's */
    int32_t kind;               /* form of the environment string: 10, 12, 13, or 0 when none matched */
    int32_t hybrid_environment; /* 1 precisely when kind is 13 */
    int32_t blocking;           /* not 0: transfers block */
    int32_t rx_fd;              /* descriptor to receive from; -1 until open */
    int32_t tx_fd;              /* descriptor to send to; the same number */
    int32_t child_exit_status;  /* exit code of the child once reaped; 256 means not known */
    int32_t child_term_signal;  /* signal that ended the child, 0 if none */
    int32_t error_number;       /* last system error on this handle; 0: healthy; -1: bad environment string */
    const char *error_text;     /* start-up step that failed, a constant text, or null */
    struct PairHandle *self;    /* this record, while it is valid */
} PairHandle;

/* ---- Opening ----------------------------------------------------------------------------------------------------- */

/* Creates the pair and starts the companion.
 * env_name: the variable that will carry the companion's end. ignore_sigpipe not 0: the parent ignores SIGPIPE from
 * now on. blocking 0 puts both ends in non-blocking mode. file: the program, searched along PATH. stdio_fds: null gives
 * the companion /dev/null as its standard descriptors; else three descriptors that become its input, output and error,
 * each closed in the companion after its last use. An entry that is not open leaves the parent's own. arg0 and further
 * texts, then a null pointer of type char *: the companion's argument vector; a 257th text is an assertion that aborts.
 * Returns a handle in every case. Its error_text says what failed, error_number is the system's error:
 *   "socketpair create failed"   no companion, no descriptors
 *   "fork failed"                after up to 31 attempts; the two socket ends stay open in the parent
 * Output streams are flushed before the fork. The parent's end is close-on-exec. No memory for the handle ends the
 * process with an error.
 * A program that cannot be executed is a child that ends by exit(1), and so is one whose standard descriptors find no
 * room at the limit of descriptors. The caller's exit handlers run in that child, too: a handler that is for the parent
 * alone compares getpid() with the number that the parent noted. In that child every descriptor that can be read from
 * and has a position is /dev/null; the parent reads its files on where it was. */
PairHandle *platform_pair_parent_open_lp(const char *env_name, int ignore_sigpipe, int blocking, const char *file,
                                         const int *stdio_fds, const char *arg0, ...) __attribute__((sentinel));

/* The same with a ready argument vector, ended by a null pointer. */
PairHandle *platform_pair_parent_open_vp(const char *env_name, int ignore_sigpipe, int blocking, const char *file,
                                         const int *stdio_fds, char *const argv[]);

/* Opens the companion's end from the variable env_name. ignore_signals not 0: SIGHUP, SIGINT, SIGQUIT, SIGABRT,
 * SIGPIPE, SIGTERM and SIGURG are ignored from now on (not in the hybrid arrangement). blocking: kept in the handle; in
 * the hybrid arrangement not 0 makes the socket block.
 * Returns a handle in every case, its descriptors -1 on failure:
 *   error_text "Failing to start due to wrong type on linux", error_number 0    the variable is unset or has no tag
 *   error_number -1                                                             it does not begin with two numbers
 *   error_number of the system                                                  hybrid: the connection failed
 * In the first case platform_pair_ok is 1 on purpose: test error_text too. */
PairHandle *platform_pair_child_open(const char *env_name, int ignore_signals, int blocking);

/* 1 when the handle is not null and intact, else 0. Never asserts. */
int platform_pair_valid(const PairHandle *ph);

/* ---- Transfers --------------------------------------------------------------------------------------------------- */

/* One send, without MSG_NOSIGNAL: a parent that may write to a dead companion opens its pair with ignore_sigpipe.
 * Returns the count sent, which may be less than length. Otherwise 0, and the handle's error_number becomes errno,
 * unless that is EAGAIN, which is never stored. Sending zero bytes counts as a failure. A negative length is EINVAL. */
int32_t platform_pair_send(PairHandle *ph, const void *buffer, int32_t length);

/* One receive. Returns the count, which may be less than length; 0 at the end of the stream. On failure 0 too, and the
 * handle's error_number becomes errno, unless that is EAGAIN. A negative length is EINVAL. */
int32_t platform_pair_recv(PairHandle *ph, void *buffer, int32_t length);

/* ---- Watching and ending ----------------------------------------------------------------------------------------- */

/* 1 while the process at the other end lives. On the parent's side a companion that has ended is reaped, its exit
 * status and signal go into the handle, and the result is 0; a child that somebody else waited for counts as alive
 * until its number is gone. Kind 13: a companion always finds its parent alive. The process is looked for in /proc,
 * which takes a free descriptor: without one, or without /proc, the result is 0, and nobody is reaped. */
int platform_pair_companion_alive(PairHandle *ph);

/* Parent: platform_kill_and_reap of the companion; the handle's status fields stay as they are. When the fields already
 * hold the companion's end, or an earlier call waited for it, nobody is signalled and the result is 0: the number may
 * belong to another process by now. Until its program runs, a companion has the signal handlers of its parent: a parent
 * that handles SIGTERM hears from its companion first, or the signal is used up there and the wait has no end.
 * Companion: 0. */
int platform_pair_kill_child(PairHandle *ph);

/* Closes the descriptors and releases the handle, which must not be used again. Kind 13: the connection is shut down
 * for every copy of its descriptor. Returns 1. */
int platform_pair_close(PairHandle *ph);

/* One line of text that describes the handle; a damaged or null one too. buffer: 2048 bytes, or null for a static
 * buffer that every such call overwrites. Returns the buffer. When error_text is set the result is "zel: " and that
 * text, and nothing else. */
char *platform_pair_describe(const PairHandle *ph, char *buffer);

/* ---- The fields of a handle -------------------------------------------------------------------------------------- */

int32_t platform_pair_errno(const PairHandle *ph);              /* error_number */
int32_t platform_pair_ok(const PairHandle *ph);                 /* 1 when error_number is 0, else 0 */
int32_t platform_pair_parent(const PairHandle *ph);             /* parent */
int32_t platform_pair_child(const PairHandle *ph);              /* 1 when parent is 0, else 0 */
int32_t platform_pair_rx_fd(const PairHandle *ph);              /* rx_fd */
int32_t platform_pair_tx_fd(const PairHandle *ph);              /* tx_fd */
int32_t platform_pair_companion_pid(const PairHandle *ph);      /* companion_pid */
int32_t platform_pair_child_exit_status(const PairHandle *ph);  /* child_exit_status, 256 until known */
int32_t platform_pair_child_term_signal(const PairHandle *ph);  /* child_term_signal */
int32_t platform_pair_hybrid_environment(const PairHandle *ph); /* hybrid_environment */

/* The system's text for error_number; owned by the C library, valid until its next such text. */
const char *platform_pair_errstr(const PairHandle *ph);

/* ---- Waiting for processes --------------------------------------------------------------------------------------- */

/* waitpid on the pid without blocking; returns its result. exit_code and signal, either null: zeroed first; when the
 * pid was reaped, its exit code after a normal exit, or the signal that ended it. */
int32_t platform_wait_nohang(int32_t pid, int32_t *exit_code, int32_t *signal);

/* waitpid on the pid, blocking, again after every interruption. status: the wait status; may be null. Returns the pid,
 * or -1. Each call that fails, an interruption too, is reported as "waitpid: " (platform_perror). */
int32_t platform_wait_child(int32_t pid, int32_t *status);

/* Sends SIGTERM, or SIGKILL when SIGTERM cannot be sent, and waits for the process as platform_wait_child does. Returns
 * 1; 0 when neither signal could be sent. Blocks until the process has ended: there is no escalation after a time. A
 * pid below 1 is never signalled: 0. */
int platform_kill_and_reap(int32_t pid);

/* A shared descriptor on /dev/null, open for reading and writing; each open counts a reference. It stands above the
 * standard descriptors, and programs do not inherit it. -1 when it cannot be opened there. */
int platform_null_fd_open(void);

/* Gives one reference back; the last one closes the descriptor. Any other descriptor is ignored. */
void platform_null_fd_close(int fd);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
