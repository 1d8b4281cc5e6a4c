/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * Environment services: variables, reports of failed system calls, the diagnostics file,
 * the distribution's name.
 *
 *   1. Read and set variables: platform_getenv, platform_setenv.
 *   2. After a system call that failed: platform_perror("what failed").
 *   3. The debug hook calls platform_diag_startup to open the diagnostics destination.
 *
 * Example:
 *
 *   int fd = open(path, O_RDONLY);
 *   if (fd == -1) {
 *       platform_perror("open index");   // "open index: No such file or directory" as a diagnostic line
 *       return 0;
 *   }
 *
 * The variables that direct these services, and when each is read:
 *
 *   ZEL_PERROR                        at the choice of the error-report stream, once
 *   ZEL_DIAGNOSTICS_PATH              at the choice of the diagnostics destination, once
 *   ZEL_TMPDIR, then TMP, then TEMP   then too, when that path is no writable directory
 *   ZEL_DIST                          on every call of platform_dist_name
 *
 * In a process with rights that its caller lacks (set-user-ID and the like) they count as
 * unset.
 */
#ifndef ZEL_COMPONENTS_PLATFORM_ENVIRONMENT_H
#define ZEL_COMPONENTS_PLATFORM_ENVIRONMENT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Looks a variable up in the environment, whatever the rights of the process.
 * - Returns the value, or null when it is unset.
 * - The text belongs to the environment. */
char *platform_getenv(const char *name);

/* Sets a variable in the environment.
 * - value: replaces the old value.
 * - Returns 0 always. Without memory the environment stays as it was.
 * - The storage, from malloc, goes to the environment and is never freed. */
int platform_setenv(const char *name, const char *value);

/* Reports a failed system call as the line "TEXT: SYSTEM ERROR TEXT".
 * - text: names what failed. msg_diag reads the finished line as a format once more: a
 *   percent sign in text must be doubled.
 * - The error is the value of errno on entry. errno is kept.
 * - The line goes to every stream of MSG_DIAG, and to the error-report stream if one is
 *   chosen (platform_perror_init).
 * - Allocates nothing. */
void platform_perror(const char *text);

/* Chooses the error-report stream.
 * - It is standard output when ZEL_PERROR is set and not empty, whatever its value. Else
 *   there is none.
 * - Only the first call in a process acts. platform_perror calls it, too. */
void platform_perror_init(void);

/* Opens the diagnostics destination, and writes each argument as the diagnostic line
 * argv[N] = "TEXT".
 * - argc: how many arguments there are. Below 1 none is written.
 * - name: goes into the name of the diagnostics file (platform_open_diagnostics).
 * - A null name is derived from argv[0]: its last component, without its extension and
 *   without a leading "kyrel", "zel" or "kq_" in any case of letters. With argc below 1
 *   it is empty. */
void platform_diag_startup(int32_t argc, char **argv, const char *name);

/* Chooses the destination of diagnostic lines, and opens it.
 * - name: goes into the name of the diagnostics file. Null adds nothing.
 * - Only the first call in a process acts.
 * - A file that cannot be opened, or a path above 4095 characters, is not reported.
 * - An existing file is taken only when it is a regular file of the effective user with a
 *   single link. Any other entry of that name is not followed, waited for or changed.
 * - The file stays open until the process ends, above descriptor 2 and close-on-exec.
 * - It sleeps one second before it opens a file.
 *
 *   ZEL_DIAGNOSTICS_PATH        destination
 *   unset, "" or "0"            none
 *   "stdout" or "1"             standard output; the word in any case of letters
 *   "stderr" or "2"             standard error; the word in any case of letters
 *   a directory                 the file zelYYMMDDHHMMSS<name>.log in it, created or
 *                               truncated
 *   any other text              the same file in the directory ZEL_TMPDIR, TMP or TEMP,
 *                               the first that is set, else in "/"
 *
 * - The time in the name is the local one. Its month counts from 00.
 * - A directory that the process may not write counts as any other text. */
void platform_open_diagnostics(const char *name);

/* Reads the name of the installed distribution: the first word of the file
 * dist/DISTRIBUTION below the directory ZEL_DIST.
 * - Returns at most 255 characters of the word, or "" when the file holds none.
 * - Returns null when ZEL_DIST is unset or the file cannot be opened.
 * - The text is a static buffer. The next call overwrites it.
 * - The file stays open: each call takes one descriptor, above 2 and close-on-exec. */
char *platform_dist_name(void);

/* Tells whether a path is a directory that the process may write, by its real user and
 * group.
 * - Returns 1 or 0; 0 for a null path. */
int platform_is_writable_dir(const char *path);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
