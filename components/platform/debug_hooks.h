/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * The start-up hook: a process that another one starts can be stopped, or re-launched under a debugger, from outside.
 *
 * A program calls the hook first thing. A developer then asks for a pause or a debugger in one of two ways, and the
 * parent that starts the program need not change:
 *
 *   - on the command line: the word __ZEL_DEBUG__, in any case of letters, and the request behind it. Both are cut from
 *     the arguments before the program sees them. No diagnostics file is opened and nothing echoed then.
 *   - in the environment: ZEL_DEBUG=request. The variable is emptied first, so that a program started from here does
 *     not stop again. The first program that calls the hook takes the request: a parent that calls it sets ZEL_DEBUG
 *     for its companion itself, or a script that sets the variable stands in for the companion.
 *
 * The request, a line of words separated by blanks or tabs; its first word counts in any case of letters:
 *
 *   delay [SECONDS]     sleeps that long, 30 seconds without a number; then the program goes on
 *   prompt [WORD...]    writes the words, or "ZEL_DEBUG prompt>", to standard error and waits for a line of input. Of
 *                       standard input it takes that line and not a byte more, and at most 254 characters of it.
 *   using [COMMAND]     becomes /bin/sh -c COMMAND; without a command the user's shell (SHELL, else tcsh)
 *   exec PROGRAM [ARG...]  becomes the program; PATH is not searched
 *
 * An empty request is "using" with the user's shell. The started command finds in ZEL_EXE the program, in ZEL_EXE_PARMS
 * its own arguments and in ZEL_DEBUG_PROMPT "debug NAME". The arguments are joined with single blanks: one that holds a
 * blank comes back as two.
 *
 * A process with rights that its caller lacks (set-user-ID and the like) sees no request. The marker and what follows
 * stay ordinary arguments, and the variables that direct the library count as unset everywhere in it. The hook takes
 * them out of the environment, so that no program that is started from here obeys them: ZEL_DEBUG, ZEL_PERROR,
 * ZEL_DIAGNOSTICS_PATH, ZEL_DIAG_DIR, ZEL_DIST, ZEL_TMPDIR, TMP and TEMP.
 *
 * Example: stop a companion before it does anything, while its parent starts it as always, and look at it:
 *
 *   int main(int argc, char **argv) {
 *       platform_debug_hooks(&argc, argv);
 *       ...
 *
 *   $ ZEL_DEBUG='using gdb --args "$ZEL_EXE" $ZEL_EXE_PARMS' ./companion
 */
#ifndef ZEL_COMPONENTS_PLATFORM_DEBUG_HOOKS_H
#define ZEL_COMPONENTS_PLATFORM_DEBUG_HOOKS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* The hook, as the first thing a program does. argc, argv: its own; both are changed in place when a marker stands
 * among the first 510 arguments: the count becomes the marker's index and the entry there null. Returns when nothing
 * was asked for, and after "delay" and "prompt"; otherwise the process becomes another program, or ends with status 1
 * after a message. Unless the request came by the marker it opens the diagnostics destination and echoes the arguments
 * (platform_diag_startup). */
void platform_debug_hooks(int32_t *argc, char **argv);

/* The same with a name for the diagnostics file; null derives it from the program's. */
void platform_debug_hooks_named(int32_t *argc, char **argv, const char *name);

/* Carries out one request. program: argument 0. args_before: the program's own arguments, ended by null. Returns for
 * "delay" and "prompt" only. An unknown request, or a program that cannot be started, is a message on standard error
 * and exit(1). It carries out what it is given, also with rights that the caller of the process lacks. */
void platform_debug_op(const char *program, char **args_before, const char *request);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
