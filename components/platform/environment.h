/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * Environment services: variables, reports of failed system calls, the start-up diagnostics file, the distribution.
 *
 *   1. Read and set variables: platform_getenv, platform_setenv.
 *   2. After a system call that failed: platform_perror("what failed").
 *   3. At start-up the debug hook calls platform_diag_startup, which opens the destination of diagnostic lines.
 *
 * Example:
 *
 *   int fd = open(path, O_RDONLY);
 *   if (fd == -1) {
 *       platform_perror("open index");   // "open index: No such file or directory" as a diagnostic line
 *       return 0;
 *   }
 *
 * Variables read here, each once, at the moment that its operation states: ZEL_PERROR, ZEL_DIAGNOSTICS_PATH,
 * ZEL_TMPDIR, TMP, TEMP; and ZEL_DIST, on every call of platform_dist_name. In a process with rights that its caller
 * lacks (set-user-ID and the like) they count as unset.
 */
#ifndef ZEL_COMPONENTS_PLATFORM_ENVIRONMENT_H
#define ZEL_COMPONENTS_PLATFORM_ENVIRONMENT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* The value of an environment variable, or null when it is unset; whatever the rights of the process. The text belongs
 * to the environment. */
char *platform_getenv(const char *name);

/* Sets an environment variable. Returns 0 always. The storage, from malloc, is handed to the environment and never
 * freed; without memory the environment stays as it was. */
int platform_setenv(const char *name, const char *value);

/* Reports a failed system call: "TEXT: SYSTEM ERROR TEXT" and a newline, the error taken from errno on entry, to every
 * stream of MSG_DIAG, and to the error-report stream if one was chosen (platform_perror_init). The diagnostic line is
 * read as a format twice, see msg_diag: a percent sign in text must be doubled. Allocates nothing; errno is kept. */
void platform_perror(const char *text);

/* Chooses the error-report stream: standard output when ZEL_PERROR is set and not empty, whatever its value, else
 * none. Only the first call in a process acts; platform_perror makes it if nobody has. */
void platform_perror_init(void);

/* Opens the diagnostics destination (platform_open_diagnostics) and writes each argument as a diagnostic line,
 * argv[N] = "TEXT". name: goes into the file's name; null derives it from argv[0]: its last component without its
 * extension and without a leading "kyrel", "zel" or "kq_" in any case of letters. argc below 1: nothing is derived and
 * nothing is echoed. */
void platform_diag_startup(int32_t argc, char **argv, const char *name);

/* Chooses where diagnostic lines go, from ZEL_DIAGNOSTICS_PATH: unset, empty or "0" nowhere; "stdout" or "1" standard
 * output; "stderr" or "2" standard error (both words in any case of letters); else a directory in which
 * zelYYMMDDHHMMSS<name>.log is created or truncated, the month counted from 00. A directory that cannot be written is
 * replaced by the first set one of ZEL_TMPDIR, TMP and TEMP, else "/". name may be null.
 * Only the first call in a process acts. Sleeps one second before it opens a file. A file that cannot be opened, or
 * whose path would exceed 4095 characters, is left out without a report. A file that is there is taken only when it is
 * a regular one of the effective user with a single link; nothing else under the name is followed, waited for or
 * changed. The file stays open until the process ends, above descriptor 2 and close-on-exec. */
void platform_open_diagnostics(const char *name);

/* The first word of the file dist/DISTRIBUTION below the directory that ZEL_DIST names, at most 255 characters of it;
 * "" when the file holds none; null when the variable is unset or the file cannot be opened. The text is a static
 * buffer, overwritten by the next call. The file stays open: one descriptor a call, above 2 and close-on-exec. */
char *platform_dist_name(void);

/* 1 when the process may write to path and path is a directory, else 0; so also for a null path. */
int platform_is_writable_dir(const char *path);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
