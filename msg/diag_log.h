/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * The diagnostic log: a file of the process's own for the lines that msg_diag writes.
 *
 * Diagnostic lines go nowhere until a stream is added to MSG_DIAG. msg_open_diag_log creates
 *
 *   log-path = directory "/" "zel" pid login ".log"       /tmp/zel4711guest.log
 *
 * with the process number in decimal and the login name, if one is known, and adds it. A child made by fork writes into
 * its parent's file until it opens one of its own; a program that is executed does not inherit it.
 *
 * Others can foresee the name. A file that is there is taken, and emptied, only when it is a regular one of the
 * effective user with a single link; nothing else under the name is followed, waited for or changed.
 *
 * In a process with rights that its caller lacks (set-user-ID and the like) the variables below count as unset.
 *
 * Example:
 *
 *   msg_open_diag_log(NULL);               // the directory comes from the environment
 *   msg_sync_mode(MSG_DIAG, 1);            // each line is on disk before the next begins
 *   msg_diag("request %d\n", 12);
 */
#ifndef ZEL_MSG_DIAG_LOG_H
#define ZEL_MSG_DIAG_LOG_H

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Takes every stream out of MSG_DIAG, then creates or truncates the log in the directory and adds it.
 * dir: null or "" takes the first that is set, even to "", of ZEL_DIAG_DIR, ZEL_DIAGNOSTICS_PATH and ZEL_TMPDIR, else
 * "/tmp".
 * Returns the directory that was tried, owned by the library and overwritten by the next call. Diagnostics stay off,
 * without a report, when it is empty, is no directory that the process may write, or the file cannot be opened. A
 * directory of more than 4095 characters is refused: "". The file stays open until the process ends, also when it is no
 * longer written, so nobody may close its stream. What an earlier log of this process still holds is written out before
 * a file is emptied, or discarded when it cannot be written: afterwards the file holds what comes after the call. */
const char *msg_open_diag_log(const char *dir);

/* The directory that the last msg_open_diag_log tried, unless that is ""; else the one that the environment names now,
 * by the same order. Owned by the library or the environment. */
const char *msg_get_diag_dir(void);

/* The value of ZEL_TMPDIR if it is set, even to "", else "/tmp". Owned by the library or the environment. */
const char *msg_get_tmpdir(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
