/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * File control: patterns, trees, children for commands, paths, status tests, file stamps.
 *
 *   1. Find entries by a shell pattern: platform_glob, then platform_glob_free.
 *   2. Remove, copy and move trees and files; start a command as a child.
 *   3. Resolve a path or take it apart. Storage for the result comes from the caller, or
 *      from the memory library when the buffer is null.
 *   4. Ask for the status of a path, or take a stamp of it and compare later.
 *
 * Example: has the file changed since it was read?
 *
 *   FileStamp stamp = platform_file_stamp("settings");
 *   read_settings("settings");
 *   ...
 *   if (platform_file_changed("settings", stamp)) {
 *       read_settings("settings");
 *   }
 *
 * Rules of the whole header, unless a declaration says otherwise:
 *
 *   Results   1 for success or yes, 0 for failure or no.
 *   Null      A null path is treated like a path that does not exist.
 *   Paths     A path is a byte string. Blanks, newlines, leading dashes and bytes of no
 *             encoding are allowed. A relative path starts at the current directory.
 *   Buffers   A buffer for a whole path has room for 4097 bytes: 4096 characters and
 *             the NUL. A path may stand in the buffer of its own result.
 *   Storage   A result that is allocated comes from the memory library. The caller
 *             releases it with zel_free. A failed service leaves nothing allocated.
 *   Memory    Without memory the process ends after a message. Nothing else here ends it.
 */
#ifndef ZEL_COMPONENTS_PLATFORM_FILE_CONTROL_H
#define ZEL_COMPONENTS_PLATFORM_FILE_CONTROL_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* The paths that a pattern expanded to. platform_glob fills it, platform_glob_free
 * releases it. */
typedef struct PlatformFileList {
    uint32_t count;    /* how many paths matched */
    char **paths;      /* the paths, owned by the record */
    void *glob_record; /* the C library's expansion; null when there is none */
} PlatformFileList;

/* The status of a file in eleven words. Two stamps of a file tell whether it changed in
 * between.
 * - It is passed and returned by value.
 * - Times are in seconds since 1970, their low 32 bits. */
typedef struct FileStamp {
    uint32_t group;       /* number of the file's group; not of its owner */
    uint32_t change_time; /* last change of the status */
    uint32_t modify_time; /* last modification of the contents */
    uint32_t access_time; /* last access; never compared */
    uint32_t device;      /* number of the device, low 32 bits */
    uint32_t inode;       /* number of the inode, low 32 bits */
    uint32_t mode;        /* kind and permission bits */
    uint32_t size_low;    /* size in bytes, low 32 bits */
    uint32_t size_high;   /* size in bytes, high 32 bits */
    uint32_t check;       /* size_low XOR 0x404040; 0 when the stamp could not be taken */
    uint32_t zero;        /* always 0 */
} FileStamp;

/* The flags of platform_mode_test: one kind, plus any number of permissions. */
typedef enum PlatformMode {
    PLATFORM_MODE_ANY = 0,        /* kind: any */
    PLATFORM_MODE_REGULAR = 1,    /* kind: a regular file */
    PLATFORM_MODE_DIR = 2,        /* kind: a directory */
    PLATFORM_MODE_SOCKET = 3,     /* kind: a socket */
    PLATFORM_MODE_READ = 0x100,   /* permission: the owner may read */
    PLATFORM_MODE_WRITE = 0x200,  /* permission: the owner may write */
    PLATFORM_MODE_EXECUTE = 0x400 /* permission: the owner may execute or search */
} PlatformMode;

/* ---- Patterns ---------------------------------------------------------------------------------------------------- */

/* Expands a shell pattern in a directory.
 * - dir: the directory. Special characters in it are expanded too.
 * - pattern: null or "" means "*".
 * - list: receives the paths, sorted, each with dir in front.
 * - Returns 1, or 0 when nothing matches, list or dir is null, or dir is "".
 * - A result of 0 leaves the list as it was.
 * - The list belongs to the caller, who releases it with platform_glob_free. */
int platform_glob(const char *dir, const char *pattern, PlatformFileList *list);

/* Releases the paths and the record of a list, and clears the list.
 * - list: a null list, or one without a record, is left alone. */
void platform_glob_free(PlatformFileList *list);

/* Tells whether a name matches a shell pattern.
 * - name: a null name matches nothing.
 * - pattern: null or "" means "*". */
int platform_match(const char *name, const char *pattern);

/* ---- Trees and files --------------------------------------------------------------------------------------------- */

/* These services run a tool of the system and wait for it:
 *
 *   platform_remove_tree   rm -r -f PATH
 *   platform_copy_tree     cp -a FROM TO
 *   platform_move_tree     mv -f FROM TO
 *
 * The tool is looked for in /bin, then in /usr/bin, then along PATH. A process with
 * rights that its caller lacks does not search PATH. The tool inherits the standard
 * descriptors, so its complaints are seen. */

/* Removes a tree, or a single file, by rm -r -f.
 * - Returns 1 when the tool ended with status 0, also for a path that does not exist.
 * - Returns 0 for a null path, without the tool, and when no child can be made. */
int platform_remove_tree(const char *path);

/* Copies a tree, or a single file, by cp -a.
 * - Returns 1 when the tool ended with status 0.
 * - Returns 0 for a null path, without the tool, and when no child can be made. */
int platform_copy_tree(const char *from, const char *to);

/* Moves a directory by mv -f.
 * - from: a directory that the process may write. For anything else nothing runs.
 * - Returns 1 when the tool ended with status 0.
 * - Returns 0 for a null path, without the tool, and when no child can be made. */
int platform_move_tree(const char *from, const char *to);

/* Removes a directory and all that it holds, in this process.
 * - path: a directory that the process may write. Each "/" at its end is ignored.
 * - path is refused when it is "", "/" or a link, or ends in the component "." or "..".
 * - Returns 1 when everything is removed.
 * - Returns 0 for a path that is refused, and at the first entry that cannot be removed.
 *   Entries that were removed before it stay removed.
 * - Returns 0 when an entry was added meanwhile; the directory is not empty then.
 * - Each directory is listed once: plain entries first, then hidden ones, both sorted.
 * - A link is removed and never followed. Nothing outside the tree is removed, also while
 *   another process exchanges a directory of the tree for a link.
 * - A directory that another process moves out of the tree while it is being emptied is
 *   emptied all the same.
 * - A file system that is mounted in the tree is emptied. Its directory is in use and
 *   cannot be removed: the result is 0.
 * - Limits: up to 33 descriptors and /proc. Without them the result is 0. The depth of
 *   the tree has no limit. */
int platform_remove_dir(const char *path);

/* Copies the bytes of a file.
 * - to: created with mode 0666 less the process's mask, or truncated.
 * - Returns 1 when both files could be opened, also when a read or a write failed on the
 *   way. To learn whether the copy is whole, compare the sizes.
 * - Returns 0 when a file cannot be opened, or both are the same file. */
int platform_copy_file(const char *from, const char *to);

/* ---- Children for commands --------------------------------------------------------------------------------------- */

/* Starts a program as a child.
 * - file: the program, searched along PATH.
 * - argv: its argument vector, ended by a null pointer.
 * - fds: null, or three descriptors. See the table.
 * - Returns the child's process number, or -1 when no child can be made.
 * - A child that cannot execute the program ends with status 127. So does a child whose
 *   standard descriptors find no room at the limit of descriptors.
 * - The caller waits for the child (platform_wait_child).
 * - Output streams are flushed first.
 *
 *   fds                    standard input, output and error of the child
 *   null                   the parent's own
 *   entry N, 0 or more     a copy of that descriptor, which is closed in the child after
 *                          its last use unless it is in its place already
 *   entry N, negative      the parent's own descriptor N
 *   entry N, not open      the parent's own descriptor N */
int32_t platform_spawn(const char *file, char *const argv[], const int *fds);

/* Starts a program with its arguments as a list, like platform_spawn without fds.
 * - arg0 and the texts after it: the argument vector, ended by a null pointer of type
 *   char *.
 * - Returns the child's process number, or -1 when no child can be made. */
int32_t platform_spawnl(const char *file, const char *arg0, ...) __attribute__((sentinel));

/* Starts a program like platform_spawnl, with /dev/null as all three standard
 * descriptors.
 * - Returns the child's process number, or -1 when no child can be made or /dev/null
 *   cannot be opened. */
int32_t platform_spawnl_quiet(const char *file, const char *arg0, ...) __attribute__((sentinel));

/* ---- Working directory and paths --------------------------------------------------------------------------------- */

/* Tells the current directory.
 * - buf: receives it. Null allocates 4097 bytes, of which 4096 are used.
 * - size: the bytes of buf. It is ignored when buf is null.
 * - Returns the buffer, or null with errno. */
char *platform_get_cwd(char *buf, size_t size);

/* Changes the current directory.
 * - Returns 1, or 0 after the report "platform_set_cwd" (platform_perror). A null path is
 *   reported as EFAULT. */
int platform_set_cwd(const char *path);

/* Resolves every link, "." and ".." of a path.
 * - buf: receives the absolute path. Null allocates 4097 bytes.
 * - Returns the buffer, or null with errno when the path cannot be resolved. */
char *platform_resolve(const char *path, char *buf);

/* Resolves a path as seen from a directory: it changes there, resolves, and changes back.
 * - dir: where path starts. A change that fails is reported as by platform_set_cwd, and
 *   the work goes on from where the process is.
 * - buf: as for platform_resolve.
 * - Returns the buffer, or null with errno when the path cannot be resolved.
 * - The process does not leave a current directory that was removed, or whose name has
 *   more than 4095 characters: no path leads back. The report is "platform_set_cwd".
 *   Then an absolute path is resolved, and any other gives null. */
char *platform_resolve_in(const char *dir, const char *path, char *buf);

/* Resolves a path into a static buffer, which every call overwrites.
 * - Returns the buffer, or path itself when it cannot be resolved. */
const char *platform_resolve_static(const char *path);

/* Tells whether a path begins with "/". */
int platform_is_absolute(const char *path);

/* Composes the path that leads from one directory to a target.
 * - base: the directory to start from. Each "/" of base after the common part is one step
 *   up, also a "/" at its end. From "/a/b" to "/a/x" the result is "../x", from "/a/b/"
 *   it is "../../x". To start from the directory itself leave out the "/" at the end.
 * - target: the path to reach.
 * - base and target are resolved first when they do not begin with "/".
 * - buf: receives the result. Null allocates 4097 bytes.
 * - Returns the buffer. Equal paths give ".".
 * - Returns null with errno when a path cannot be resolved, and with ENAMETOOLONG when
 *   the result exceeds 4096 characters. */
char *platform_relative_path(const char *base, const char *target, char *buf);

/* The parts of a path. Only the text counts: nothing is looked up.
 *
 *   path              dirname    basename     extension   stem
 *   "/a/b.c/d.tar.gz" "/a/b.c"   "d.tar.gz"   ".gz"       "d.tar"
 *   "/a/.profile"     "/a"       ".profile"   null        ".profile"
 *   "name"            ""         "name"       null        "name"
 *   "/a/"             "/a"       ""           null        "" */

/* Copies the part of a path before its last "/".
 * - buf: receives the part and must have room for it. Null allocates precisely what is
 *   needed.
 * - Returns the buffer; "" when there is no "/". A null path gives null. */
char *platform_dirname(const char *path, char *buf);

/* Copies the part of a path after its last "/".
 * - buf: as for platform_dirname.
 * - Returns the buffer; the whole path when there is no "/". A null path gives null. */
char *platform_basename(const char *path, char *buf);

/* Copies the part of the base name from its last "." on.
 * - buf: as for platform_dirname. It is left alone when the result is null.
 * - Returns the buffer; null when no "." stands after the first character of the base
 *   name. A null path gives null. */
char *platform_extension(const char *path, char *buf);

/* Copies the base name of a path without its extension.
 * - buf: as for platform_dirname.
 * - Returns the buffer. A null path gives null. */
char *platform_stem(const char *path, char *buf);

/* ---- Status ------------------------------------------------------------------------------------------------------ */

/* Tells whether a path exists. A link counts as the file that it points to. */
int platform_exists(const char *path);

/* The same as platform_exists, under its second name. */
int platform_file_exists(const char *path);

/* Tells whether the process may read the path, by its real user and group. */
int platform_is_readable(const char *path);

/* Tells whether the process may write the path, by its real user and group. */
int platform_is_writable(const char *path);

/* Tells whether the process may execute the path, or search it when it is a directory, by
 * its real user and group. */
int platform_is_executable(const char *path);

/* Tells whether the path is a directory, or a link to one. */
int platform_is_dir(const char *path);

/* Tells when a file was modified.
 * - Returns the time in seconds since 1970, or 0 when the status cannot be read. */
int64_t platform_mtime(const char *path);

/* Tells the size of a file.
 * - Returns the size in bytes, or -1 when the status cannot be read. */
int64_t platform_file_size(const char *path);

/* Tells the login name of a file's owner.
 * - Returns the name, or null when the file is missing or its owner has no entry in the
 *   user database.
 * - The text belongs to the C library. Its next look-up of a user may overwrite it. */
const char *platform_file_owner(const char *path);

/* Tells how much an unprivileged process may still write to the file system of a path.
 * - Returns the bytes, at most INT64_MAX.
 * - Returns -1 for a null or empty path, and -2 when the file system cannot be asked. */
int64_t platform_free_space(const char *path);

/* ---- Entries of a directory -------------------------------------------------------------------------------------- */

/* Removes a file, a link or an empty directory.
 * - A link is removed itself, whether or not it points to anything.
 * - Returns 1, or 0 when there is no such entry or it cannot be removed. */
int platform_remove_file(const char *path);

/* Renames an entry.
 * - to: an entry of that name is replaced.
 * - Returns 1 when it did, else 0. */
int platform_rename(const char *from, const char *to);

/* Makes a directory of mode 0777 less the process's mask.
 * - Returns 1 when it did, else 0. */
int platform_mkdir(const char *path);

/* The same as platform_mkdir, under its second name. */
int platform_make_dir(const char *path);

/* Removes an empty directory.
 * - Returns 1 when it did, else 0. */
int platform_rmdir(const char *path);

/* ---- Stamps ------------------------------------------------------------------------------------------------------ */

/* Takes the stamp of a path. A link counts as the file that it points to.
 * - Returns the stamp. When the status cannot be read all its words are 0: it is not
 *   valid. */
FileStamp platform_file_stamp(const char *path);

/* Takes the stamp of an open descriptor.
 * - Returns the stamp. When the status cannot be read all its words are 0: it is not
 *   valid. */
FileStamp platform_fd_stamp(int fd);

/* Takes the stamp of an open stream.
 * - stream: null gives the stamp that is not valid.
 * - Returns the stamp. When the status cannot be read all its words are 0: it is not
 *   valid. */
FileStamp platform_stream_stamp(FILE *stream);

/* Tells whether a stamp was taken of a file. */
int platform_stamp_valid(FileStamp stamp);

/* Tells whether two stamps differ.
 * - Access times are not compared: reading a file is no change. */
int platform_stamps_differ(FileStamp a, FileStamp b);

/* Tells whether a file has changed since its stamp was taken.
 * - A file that is gone has changed, unless it was missing when the stamp was taken. */
int platform_file_changed(const char *path, FileStamp stamp);

/* Tells whether an open file has changed since its stamp was taken.
 * - A descriptor that is not open has changed, unless the stamp is not valid either. */
int platform_fd_changed(int fd, FileStamp stamp);

/* Tells whether the file of a stream has changed since its stamp was taken.
 * - stream: null has changed, unless the stamp is not valid either. */
int platform_stream_changed(FILE *stream, FileStamp stamp);

/* Tells whether a stamped file is of a kind and its owner has permissions.
 * - flags: one kind of PlatformMode plus permissions of it. Other bits do not count.
 * - Returns 1 when the kind matches and the owner has every permission of flags. */
int platform_mode_test(FileStamp stamp, uint32_t flags);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
