/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * The diagnostic log: a file of the process for the texts that msg_diag writes.
 *
 * MSG_DIAG has no stream at first. msg_open_diag_log creates the log and adds its
 * stream. The path of the log is
 *
 *   log-path = directory "/" "zel" pid login ".log"       /tmp/zel4711guest.log
 *
 * pid is the process number in decimal. login is the login name, empty when none is
 * known.
 *
 *   1. Open the log: msg_open_diag_log.
 *   2. Have each text forced to disk, if it must outlive a crash: msg_sync_mode.
 *   3. Write texts: msg_diag.
 *
 * Example:
 *
 *   msg_open_diag_log(NULL);               // the directory comes from the environment
 *   msg_sync_mode(MSG_DIAG, 1);            // each line is on disk before the next begins
 *   msg_diag("request %d\n", 12);
 *
 * Rules of the file:
 *
 *   - A child made by fork writes into the file of its parent until it opens one of
 *     its own.
 *   - An executed program does not inherit the file.
 *   - Others can foresee the name. A file that is there is emptied and taken only when
 *     it is a regular file of the effective user with a single link. Nothing else
 *     under the name is followed, waited for or changed.
 *   - The environment variables below count as unset in a process with rights that its
 *     caller lacks (set-user-ID and the like). */
#ifndef ZEL_MSG_DIAG_LOG_H
#define ZEL_MSG_DIAG_LOG_H

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Takes every stream out of MSG_DIAG, then creates or empties the log and adds its
 * stream.
 * - dir: the directory. null or "" takes the first variable that is set, even to "",
 *   of ZEL_DIAG_DIR, ZEL_DIAGNOSTICS_PATH and ZEL_TMPDIR, else "/tmp".
 * - Returns the directory that was tried.
 * - An empty directory, one that the process may not write, and a file that cannot be
 *   opened leave diagnostics off without a report.
 * - A directory of more than 4095 characters is refused. The result is "".
 * - The result belongs to the library. The next call overwrites it.
 * - The stream belongs to the library and stays open until the process ends, also when
 *   another log has taken its place. The program does not close it.
 * - Text that an earlier log of this process still buffers is written out before a
 *   file is emptied. Text that cannot be written is discarded. */
const char *msg_open_diag_log(const char *dir);

/* Returns the directory in effect.
 * - It is the one that the last msg_open_diag_log tried, unless that is "".
 * - Otherwise it is the one that the variables name at this call, in the same order.
 * - The result belongs to the library or to the environment. */
const char *msg_get_diag_dir(void);

/* Returns the directory for temporary files.
 * - It is the value of ZEL_TMPDIR if that is set, even to "", else "/tmp".
 * - The result belongs to the library or to the environment. */
const char *msg_get_tmpdir(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
