/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * File services: a copy that tells whether it is whole, a file whose content is replaced
 * and never lost, directories with those above them, unique temporary files, and the
 * status of a file in full width.
 *
 *   1. platform_copy_checked copies a file, platform_replace_file replaces a content.
 *   2. platform_make_dirs makes a directory and what is missing above it.
 *   3. platform_temporary_file and platform_temporary_dir make what nobody else has.
 *   4. platform_file_status takes the status of a file. platform_file_status_differs
 *      compares two of them.
 *
 * Example:
 *
 *   if (!platform_replace_file("settings", text, strlen(text), 0600)) {
 *       platform_perror("settings"); // the old settings stand as they were
 *   }
 *
 * Rules of the whole header, unless a declaration says otherwise:
 *
 *   Results     1 for success or yes, 0 for failure or no. A failure leaves the errno of
 *               the system call that failed, or what the declaration says. No report is
 *               made.
 *   Paths       A path is a byte string. A relative path starts at the current directory.
 *               A null path is one that does not exist, ENOENT. ENAMETOOLONG: it has more
 *               than 4096 bytes.
 *   Memory      No storage is allocated, and nothing here ends the process.
 *   Signals     A call that a signal interrupts goes on.
 *   Successors  A copy and a replacement are written to a new file in the directory of
 *               their target, the successor. Its name is ".zel-" and twelve characters.
 *               Its owner alone can read it until it is complete. Then it takes the name
 *               of the target.
 */
#ifndef ZEL_COMPONENTS_PLATFORM_FILE_SERVICES_H
#define ZEL_COMPONENTS_PLATFORM_FILE_SERVICES_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* The status of a file in full width. */
typedef struct PlatformFileStatus {
    int64_t size;                /* in bytes */
    int64_t modify_seconds;      /* last modification of the contents, since 1970 */
    int64_t change_seconds;      /* last change of the status, since 1970 */
    uint64_t device;             /* number of the device */
    uint64_t inode;              /* number of the inode */
    uint32_t modify_nanoseconds; /* of the last modification, below 1000000000 */
    uint32_t change_nanoseconds; /* of the last change, below 1000000000 */
    uint32_t mode;               /* kind and permission bits */
    uint32_t owner;              /* number of the user */
    uint32_t group;              /* number of the group */
    uint32_t links;              /* how many names the file has */
} PlatformFileStatus;

/* ---- Whole files ------------------------------------------------------------------------------------------------- */

/* A function of the program that is called after each part of a copy.
 * - copied: how many bytes are in the copy.
 * - size: the size of the source when the copy began. A source that grows gives more.
 * - user: the pointer that was given to the copy.
 * - Returns not 0 to go on, 0 to end the copy. It must return. */
typedef int (*PlatformCopyProgress)(int64_t copied, int64_t size, void *user);

/* Copies a regular file: its content and its permissions.
 * - from: the source. Links are followed.
 * - to: the target, created or replaced. Links are followed as in platform_replace_file.
 * - progress: called after each part, or null. A part has at most 8 MiB, or is the whole
 *   file where both files share their blocks. An empty file has no part.
 * - user: passed to progress.
 * - Returns 1 when every byte is in the target.
 * - Returns 0 with errno; the target is as it was, and no part of a copy is left. EINVAL:
 *   the source or the target is no regular file, or both are one file. EISDIR: the target
 *   is a directory. EAGAIN: the source became shorter meanwhile. ECANCELED: progress
 *   returned 0. EACCES: a link in a shared directory is not followed.
 * - The target is a new file of the caller. It also replaces one that the caller may not
 *   write, if the directory can be written. Other names of an earlier file keep its
 *   content.
 * - Permissions are kept whatever the file mode creation mask is. The set-user-ID bit is
 *   kept when both files have one owner, the set-group-ID bit when they have one group.
 *   Owner, times and attributes are not copied.
 * - The kernel moves the content without the process, or lets both files share their
 *   blocks, where the file systems offer that.
 * - A source that is written meanwhile is copied up to the end that is met.
 * - The copy is not synced: a loss of power soon afterwards may damage it. A process that
 *   is killed meanwhile leaves the target as it was, and its successor beside it. */
int platform_copy_checked(const char *from, const char *to, PlatformCopyProgress progress, void *user);

/* Replaces the content of a file, or creates it. At every moment, a loss of power
 * included, the file holds the whole old content or the whole new one.
 * - path: the file. A link is followed, and stays. In a directory that all may write,
 *   with the sticky bit, a link is followed when it belongs to the caller or to the owner
 *   of the directory.
 * - data: the new content; null with a length of 0 is allowed.
 * - length: in bytes.
 * - mode: the permissions, whatever the file mode creation mask is.
 * - Returns 1 when the new content is on the disk.
 * - Returns 0 with errno; the old content stands, and nothing is left beside it. EISDIR:
 *   a directory stands there. EINVAL: something else stands there that is no regular
 *   file. EACCES: the directory cannot be read or written, or a link is not followed.
 * - The last step is the sync of the directory. When that fails, the result is 0 although
 *   the new content stands: a loss of power may bring the old one back.
 * - The file is a new one of the caller. Other names of the old file keep its content.
 * - A process that is killed meanwhile may leave the successor beside the file. */
int platform_replace_file(const char *path, const void *data, size_t length, uint32_t mode);

/* ---- Directories ------------------------------------------------------------------------------------------------- */

/* Makes a directory and those above it that are missing.
 * - path: "." and ".." and repeated slashes are allowed.
 * - mode: of each directory that is made, less the file mode creation mask. Without the
 *   permissions to write and search, its owner can make nothing in it.
 * - Returns 1 when the directory is there, also when it was there before, or another
 *   process makes it meanwhile.
 * - Returns 0 with errno. ENOTDIR: something else stands in the way. Directories that
 *   were made before the failure stay. */
int platform_make_dirs(const char *path, uint32_t mode);

/* ---- Temporary files --------------------------------------------------------------------------------------------- */

/* Creates an empty file that nobody else has opened. Its owner alone can read and write
 * it.
 * - dir: the directory, or null for the first of ZEL_TMPDIR, TMP and TEMP that is set and
 *   not empty, else /tmp. A process with rights that its caller lacks takes /tmp.
 * - prefix: the start of the name, without a slash. Six random characters follow it.
 * - path: receives the path of the file. 4097 bytes hold every one.
 * - size: of path, in bytes.
 * - Returns the descriptor, open for reading and writing, close-on-exec and above the
 *   standard ones. It belongs to the caller, and so does the file.
 * - Returns -1 with errno; path is as it was. ERANGE: the path does not fit. EINVAL: the
 *   prefix has a slash. EEXIST: a hundred names were taken. */
int platform_temporary_file(const char *dir, const char *prefix, char *path, size_t size);

/* Makes an empty directory that its owner alone can enter.
 * - Arguments and errors: as platform_temporary_file.
 * - Returns 1; the directory belongs to the caller.
 * - Returns 0 with errno; path is as it was. */
int platform_temporary_dir(const char *dir, const char *prefix, char *path, size_t size);

/* ---- Status ------------------------------------------------------------------------------------------------------ */

/* Takes the status of a file. Links are followed.
 * - status: filled; left as it was after a failure.
 * - Returns 1, or 0 with errno. */
int platform_file_status(const char *path, PlatformFileStatus *status);

/* Tells whether two statuses of one path show a change: another file, another size, or
 * another time of modification or change.
 * - Returns 1 for a change, else 0.
 * - A file system stamps in steps of its clock, often some milliseconds. A change that
 *   keeps the size, within the step of the first status, is not seen. */
int platform_file_status_differs(const PlatformFileStatus *before, const PlatformFileStatus *after);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
