/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * The process pair under control: a start that tells at once whether the program runs,
 * transfers with a deadline, and an ending that cannot hang.
 *
 * The calls work on the handles of zel_pair_connection.h, whichever call opened them.
 *
 *   need                                        call
 *   start, and know that the program runs       platform_pair_spawn
 *   why a companion of an older open never ran  platform_pair_exec_error
 *   a whole value, or the reason why not        platform_pair_send_all, platform_pair_recv_all
 *   a question and its answer of any size       platform_pair_exchange
 *   wait for the end, at most so long           platform_pair_wait
 *   end the companion, whatever it does         platform_pair_stop
 *   in the companion: keep the pair to itself   platform_pair_child_seal
 *   in the companion: end with the parent       platform_pair_follow_parent
 *
 * Example of a parent:
 *
 *   char name[] = "square";
 *   char *argv[] = {name, NULL};
 *   PairHandle *pair = platform_pair_spawn("SQUARE_PAIR", "./square", argv, NULL);
 *   if (!platform_pair_ok(pair)) { // execvp failed: No such file or directory
 *       msg_fatal("%s: %s", pair->error_text, platform_pair_errstr(pair));
 *   }
 *   int32_t number = 12;
 *   int32_t square = 0;
 *   if (platform_pair_exchange(pair, &number, sizeof number, &square, sizeof square, 5000) != PLATFORM_PAIR_DONE) {
 *       msg_warn("no answer within five seconds");
 *   }
 *   platform_pair_stop(pair, 1000); // whatever the companion does, it has ended after this
 *   platform_pair_close(pair);
 *
 * Example of its companion:
 *
 *   PairHandle *pair = platform_pair_child_open("SQUARE_PAIR", 0, 1);
 *   int32_t number;
 *   platform_pair_follow_parent(pair, SIGKILL);
 *   platform_pair_child_seal(pair, "SQUARE_PAIR");
 *   while (platform_pair_recv_all(pair, &number, sizeof number, -1, NULL) == PLATFORM_PAIR_DONE) {
 *       number *= number;
 *       platform_pair_send_all(pair, &number, sizeof number, -1, NULL);
 *   }
 *
 * Example of text and values on one pair, in a companion whose message loop reads ahead:
 *
 *   static int on_values(int socket, char *first_line, char **lines) {
 *       int32_t left = strcmp(first_line, "values") == 0 && lines[0] != NULL ? atoi(lines[0]) : 0;
 *       int32_t total = 0;
 *       for (int32_t value; left > 0; --left) { // the values came right behind the message
 *           if (platform_pair_recv_all(values_pair, &value, sizeof value, 5000, NULL) != PLATFORM_PAIR_DONE) {
 *               return 0;
 *           }
 *           total += value;
 *       }
 *       return platform_send_all(socket, &total, sizeof total) != -1;
 *   }
 *
 * Times are in milliseconds. A negative time sets no limit; 0 does what can be done at
 * once. A signal does not shorten and does not lengthen a time.
 */
#ifndef ZEL_COMPONENTS_PLATFORM_PAIR_CONTROL_H
#define ZEL_COMPONENTS_PLATFORM_PAIR_CONTROL_H

#include <components/platform/zel_pair_connection.h>

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* ---- Starting ---------------------------------------------------------------------------------------------------- */

/* The flags of platform_pair_spawn. */
typedef enum PlatformPairSpawnFlag {
    PLATFORM_PAIR_SPAWN_NON_BLOCKING = 1,    /* both ends in non-blocking mode */
    PLATFORM_PAIR_SPAWN_IGNORE_SIGPIPE = 2,  /* the parent ignores SIGPIPE once the program runs */
    PLATFORM_PAIR_SPAWN_DEFAULT_SIGNALS = 4, /* ignored signals are back to default too, and none is blocked */
    PLATFORM_PAIR_SPAWN_CLOSE_OTHERS = 8     /* the companion has its pair and the standard descriptors alone */
} PlatformPairSpawnFlag;

/* What a start may ask for. A record of zeros but for its size asks for the usual. */
typedef struct PlatformPairSpawnOptions {
    size_t size;                    /* sizeof(PlatformPairSpawnOptions) */
    const int *stdio_fds;           /* three descriptors, as in platform_pair_parent_open_lp; null: /dev/null */
    const char *directory;          /* the companion's working directory; null: the parent's */
    const char *const *environment; /* entries "NAME=VALUE", then a null pointer; null: none */
    uint32_t flags;                 /* any number of PlatformPairSpawnFlag */
} PlatformPairSpawnOptions;

/* Creates a pair and starts the companion, as platform_pair_parent_open_vp does. The
 * start costs the same in a parent of any size.
 * - env_name: the variable that carries the companion's end.
 * - file: the program, searched along the parent's PATH. A relative path starts from the
 *   companion's working directory.
 * - argv: the argument vector, a null pointer at its end.
 * - options: null for the usual.
 * - Result: a handle in every case.
 * - Errors: in the handle: error_number, and error_text "socketpair create failed", "fork
 *   failed" or "execvp failed". A step before the program, as the working directory, fails
 *   as "execvp failed" too. No child is left, and no descriptor is open. No memory for the
 *   handle ends the process with an error.
 * - EINVAL with "execvp failed": options of another size, an unknown flag, or an entry
 *   without "=".
 * - environment: an entry replaces the parent's of the same name, and the last of several
 *   wins. The pair's own variable wins over all, and env_name with "_HYBRID" is left out.
 * - Signals: those that the parent catches are back to default in the companion. The
 *   parent handles none between the start and the program.
 * - No exit handler and no output stream of the parent runs in the companion.
 * - State: output streams are flushed before. The parent's end is close-on-exec.
 * - Blocks until the companion's program runs. */
PairHandle *platform_pair_spawn(const char *env_name, const char *file, char *const argv[],
                                const PlatformPairSpawnOptions *options);

/* The error with which the companion of a handle could not be executed.
 * - ph: of platform_pair_parent_open_lp, platform_pair_parent_open_vp or
 *   platform_pair_spawn.
 * - Result: an error number of the system; 0 while none is known. A step before the
 *   program, as the standard descriptors, counts as well.
 * - A companion that is about to fail may still be on its way: ask once the stream has
 *   ended or the companion has been reaped.
 * - Limits: without memory for a shared area, or with more than 1024 handles open, the
 *   result stays 0. platform_pair_spawn has the error in error_number even then. */
int32_t platform_pair_exec_error(const PairHandle *ph);

/* ---- Transfers -----------------------------------------------------------------------------------------------------
 *
 *   - They work on a blocking pair as on a non-blocking one, and leave its mode as it is.
 *   - No signal is raised: SIGPIPE stays away without ignore_sigpipe.
 *   - What a message loop has read ahead on the same descriptor is received first, so that
 *     text and values mix on one pair. It must stand in a buffer of platform_msgbuf_create,
 *     one of the first 1024 at a time. Bytes of another descriptor stay where they are, and
 *     so do bytes of two descriptors in one buffer.
 *   - platform_pair_close, platform_socket_close and platform_msgbuf_reset end that. A
 *     descriptor that is closed by other means leaves its bytes to the next pair with its
 *     number: reset the buffer first.
 */

/* Results of the transfers. */
typedef enum PlatformPairTransfer {
    PLATFORM_PAIR_DONE = 1,      /* every byte went through */
    PLATFORM_PAIR_ENDED = 0,     /* the peer closed before that */
    PLATFORM_PAIR_FAILED = -1,   /* an error; errno and error_number hold it */
    PLATFORM_PAIR_TIMED_OUT = -2 /* the time was over before that */
} PlatformPairTransfer;

/* Sends the whole buffer.
 * - length: 0 is done at once.
 * - milliseconds: the most time that it takes.
 * - moved: gets the count of bytes sent, whatever the result; may be null.
 * - Result: a PlatformPairTransfer. Bytes that were sent need not have been received.
 * - Errors: PLATFORM_PAIR_FAILED. A negative length is EINVAL. The other results leave
 *   error_number as it was. */
int platform_pair_send_all(PairHandle *ph, const void *buffer, int32_t length, int32_t milliseconds, int32_t *moved);

/* Receives the whole buffer.
 * - length: 0 is done at once.
 * - milliseconds: the most time that it takes.
 * - moved: gets the count of bytes received, whatever the result; may be null. They stand
 *   at the start of the buffer, and no other call receives them again.
 * - Result: a PlatformPairTransfer. A peer that closed with our data unread has closed:
 *   PLATFORM_PAIR_ENDED.
 * - Errors: as platform_pair_send_all. */
int platform_pair_recv_all(PairHandle *ph, void *buffer, int32_t length, int32_t milliseconds, int32_t *moved);

/* Sends a question and receives its answer at the same time: neither side waits for the
 * other, however long the two are.
 * - out, out_length: the question.
 * - in, in_length: storage for the answer, which has precisely that length.
 * - milliseconds: the most time that both take together.
 * - Result: a PlatformPairTransfer; PLATFORM_PAIR_DONE when both are whole. After another
 *   result nobody knows how far either came: the pair is of no more use.
 * - Errors: as platform_pair_send_all. */
int platform_pair_exchange(PairHandle *ph, const void *out, int32_t out_length, void *in, int32_t in_length,
                           int32_t milliseconds);

/* ---- Ending ------------------------------------------------------------------------------------------------------ */

/* Waits for the end of the companion and reaps it.
 * - ph: a parent's handle.
 * - milliseconds: the longest wait.
 * - Result: 1 when the companion has ended, now or before; child_exit_status and
 *   child_term_signal say how. 0 when the time was over first.
 * - Errors: -1 with errno. ECHILD: the companion was reaped elsewhere, and nobody knows
 *   how it ended. EINVAL: a companion's handle, or no companion.
 * - A parent that ignores SIGCHLD has its companions reaped by the system: ECHILD.
 * - Limits: without a free descriptor, or on a kernel before 5.3, the end is noticed up to
 *   5 milliseconds late. */
int platform_pair_wait(PairHandle *ph, int32_t milliseconds);

/* Ends the companion: SIGTERM and SIGCONT, a wait, then SIGKILL, and reaps it.
 * - ph: a parent's handle.
 * - milliseconds: the grace between SIGTERM and SIGKILL. With 0 SIGKILL follows at once,
 *   with a negative time never.
 * - Result: 1 when the companion has ended, now or before; the fields of the handle say
 *   how. 0 when it could not be ended.
 * - Errors: those of platform_pair_wait, as -1. errno holds the reason of a 0: EPERM for a
 *   companion with other rights, ETIMEDOUT for one that is still there 10 seconds after
 *   SIGKILL.
 * - Nobody is signalled when the companion has been reaped: its number may belong to
 *   another process.
 * - A companion that is stopped, that ignores SIGTERM or that has ended already is ended
 *   like any other. */
int platform_pair_stop(PairHandle *ph, int32_t milliseconds);

/* ---- In the companion -------------------------------------------------------------------------------------------- */

/* Keeps the pair from the programs that the companion starts: its end becomes
 * close-on-exec, and the variables env_name and env_name with "_HYBRID" leave the
 * environment.
 * - ph: a companion's handle.
 * - Result: 1, or 0 with errno. Nothing has changed then.
 * - Errors: EINVAL: a parent's handle, or a name that is empty or holds "=". EBADF: a
 *   handle that is not open. ENOMEM. */
int platform_pair_child_seal(PairHandle *ph, const char *env_name);

/* Has the kernel send a signal when the parent ends. When it has ended already, the
 * signal is sent at once.
 * - ph: a companion's handle of the kind PLATFORM_PAIR_KIND_PLAIN or
 *   PLATFORM_PAIR_KIND_LOCAL.
 * - signal: SIGKILL ends a companion that does anything else.
 * - Result: 1, or 0 with errno. The request of before is in place then.
 * - Errors: EINVAL: another handle, or no signal. ECHILD: the parent of the handle lives,
 *   but another process, as a shell or a debugger, has started this one; or the parent is
 *   in another PID namespace.
 * - Limits: the kernel looks at the thread that started the companion. It also forgets
 *   the request when a program with raised rights is executed. */
int platform_pair_follow_parent(const PairHandle *ph, int signal);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
