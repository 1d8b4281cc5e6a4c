/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * The start-up hook: on request it pauses a process at its start, or starts it again
 * under a debugger.
 *
 *   1. The program calls platform_debug_hooks before it does anything else.
 *   2. A developer states a request. The parent that starts the program need not change.
 *   3. The hook carries it out. Without a request the program runs as always.
 *
 * Example: stop a companion before it does anything, and look at it:
 *
 *   int main(int argc, char **argv) {
 *       platform_debug_hooks(&argc, argv);
 *       ...
 *
 *   $ ZEL_DEBUG='using gdb --args "$ZEL_EXE" $ZEL_EXE_PARMS' ./companion
 *
 * A request stands in one of two places:
 *
 *   prog ARG... __ZEL_DEBUG__ REQUEST   The marker, in any case of letters, is cut with
 *                                       all after it. No diagnostics file is opened.
 *   ZEL_DEBUG=REQUEST                   The variable is emptied first. The first program
 *                                       that calls the hook takes the request.
 *
 * A request is words between blanks or tabs. The first is its op, in any case of letters:
 *
 *   delay [SECONDS]        Sleeps SECONDS, or 30 seconds without the word, and goes on.
 *   prompt [WORD...]       Writes the words, or "ZEL_DEBUG prompt>", to standard error,
 *                          takes one line of standard input and not a byte more, at most
 *                          254 characters, and goes on.
 *   using [COMMAND]        Becomes /bin/sh -c COMMAND. Without the words, and for an
 *                          empty request, COMMAND is SHELL, or tcsh when that is unset.
 *   exec PROGRAM [ARG...]  Becomes the program. PATH is not searched.
 *
 * "using" and "exec" set three variables: ZEL_EXE to the program, ZEL_DEBUG_PROMPT to
 * "debug " and its file name, ZEL_EXE_PARMS to its arguments, joined with single blanks.
 * An argument that holds a blank comes back as two.
 *
 * A companion that is started without stdio_fds (zel_pair_connection.h) has no terminal,
 * not even under a debugger. Start it with stdio_fds to debug it.
 *
 * A process with rights that its caller lacks (set-user-ID and the like) sees no request.
 * The hook removes these variables from its environment: ZEL_DEBUG, ZEL_PERROR,
 * ZEL_DIAGNOSTICS_PATH, ZEL_DIAG_DIR, ZEL_DIST, ZEL_TMPDIR, TMP and TEMP.
 */
#ifndef ZEL_COMPONENTS_PLATFORM_DEBUG_HOOKS_H
#define ZEL_COMPONENTS_PLATFORM_DEBUG_HOOKS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Looks for a request and carries it out. The program calls it before anything else.
 * - argc: the number of arguments. A marker makes it the marker's own index.
 * - argv: the arguments. A marker is looked for up to argv[510] and becomes null.
 * - Returns when there is no request, and after "delay" and "prompt".
 * - Otherwise the process becomes another program, or ends by exit(1) after a message.
 * - Without a marker the diagnostics destination is opened and the arguments are echoed
 *   (platform_diag_startup). */
void platform_debug_hooks(int32_t *argc, char **argv);

/* Does the same as platform_debug_hooks, with a name for the diagnostics file.
 * - name: null derives it from the program's name. */
void platform_debug_hooks_named(int32_t *argc, char **argv, const char *name);

/* Carries out one request: a line of words, the op first.
 * - program: argument 0 of the program.
 * - args_before: the program's own arguments, ended by null.
 * - Returns after "delay" and "prompt" only.
 * - An unknown op, or a program that cannot be started, is a message on standard error
 *   and exit(1).
 * - The request is carried out also in a process with rights that its caller lacks. */
void platform_debug_op(const char *program, char **args_before, const char *request);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
