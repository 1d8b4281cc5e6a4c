/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * File control: patterns, trees, paths, children for commands, file stamps, status tests.
 *
 * Every service says by its result whether it worked: 1 and 0 unless stated otherwise. Nothing here ends the process,
 * but for want of memory. Storage that a service allocates for its caller comes from the memory library: release it
 * with zel_free. A path buffer of the caller's has room for 4097 bytes.
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
 * A null path is treated like one that does not exist. Paths are byte strings: blanks, newlines, leading dashes and
 * bytes of no encoding are names like any other.
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

/* What a pattern expanded to. Released by platform_glob_free. */
typedef struct PlatformFileList {
    uint32_t count;    /* paths that matched */
    char **paths;      /* them, owned by the record */
    void *glob_record; /* the expansion; null when there is none */
} PlatformFileList;

/* A file's status in eleven words, by which a change is told. Passed by value. */
typedef struct FileStamp {
    uint32_t group;       /* group number of the file; not its owner's */
    uint32_t change_time; /* status change, seconds; this and all times: low 32 bits */
    uint32_t modify_time; /* modification, seconds */
    uint32_t access_time; /* access, seconds; never compared */
    uint32_t device;      /* low 32 bits */
    uint32_t inode;       /* low 32 bits */
    uint32_t mode;        /* kind and permission bits */
    uint32_t size_low;    /* size in bytes, low and high word */
    uint32_t size_high;
    uint32_t check; /* size_low XOR 0x404040; a stamp that could not be taken has 0 */
    uint32_t zero;  /* 0 */
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

/* Expands a shell pattern in a directory. pattern: null or "" means "*". Returns 1 and fills the list; 0, the list left
 * as it is, when nothing matches, list or dir is null, or dir is "". Special characters in dir are expanded too. */
int platform_glob(const char *dir, const char *pattern, PlatformFileList *list);

/* Releases what platform_glob put into the list. A null list, or one without a record: nothing happens. */
void platform_glob_free(PlatformFileList *list);

/* 1 when the name matches the shell pattern. pattern: null or "" means "*". A null name matches nothing. */
int platform_match(const char *name, const char *pattern);

/* ---- Trees and files --------------------------------------------------------------------------------------------- */

/* Run the system's rm -r -f, cp -a and mv -f, and wait. Return 1 when the tool ended with status 0. They inherit the
 * standard descriptors, so what they complain of is seen. Only a directory that the process may write is moved: for
 * anything else platform_move_tree returns 0 and runs nothing. A process with rights that its caller lacks takes the
 * tools from /bin and /usr/bin alone, any other also along PATH; without the tool the result is 0. */
int platform_remove_tree(const char *path);
int platform_copy_tree(const char *from, const char *to);
int platform_move_tree(const char *from, const char *to);

/* Removes a directory and all below it, in this process. Each directory is listed once: plain entries, then hidden
 * ones, each in order. Returns 0 when the path is no directory that the process may write, at the first entry that
 * cannot be removed, and when something was added meanwhile; what was removed until then stays removed.
 * A link is removed and never followed. The path is left alone, 0, when it is itself a link, is "" or "/", or its last
 * component is "." or ".."; each "/" at its end is passed over first.
 * Nothing outside the tree is removed, also while another process exchanges a directory of it for a link. A directory
 * that is moved out of the tree while it is being emptied is emptied all the same. What is mounted in the tree is
 * emptied too; its directory is in use and cannot be removed, 0.
 * Takes up to 33 descriptors and needs /proc; without them it returns 0. The depth of the tree has no limit. */
int platform_remove_dir(const char *path);

/* Copies the bytes of a file. The target is created with mode 0666 before the mask, or truncated. Returns 0 when either
 * cannot be opened or both are the same file; else 1, also when a read failed or a write was cut short on the way. */
int platform_copy_file(const char *from, const char *to);

/* ---- Children for commands --------------------------------------------------------------------------------------- */

/* Starts a program, searched along PATH. fds: null, or the descriptors that become its standard input, output and
 * error, a negative one meaning the parent's own; each is closed in the child after its last use, unless it is in its
 * place already. An entry that is not open leaves the parent's own. Returns the child's process number, or -1. A
 * program that cannot be executed is a child that ends with status 127, and so is one whose standard descriptors find
 * no room at the limit of descriptors. The caller waits for it (platform_wait_child). Output streams are flushed
 * first. */
int32_t platform_spawn(const char *file, char *const argv[], const int *fds);

/* The same with the arguments as a list, ended by a null pointer of type char *; without redirection, and with
 * /dev/null as all three standard descriptors: -1 too when that cannot be opened. */
int32_t platform_spawnl(const char *file, const char *arg0, ...) __attribute__((sentinel));
int32_t platform_spawnl_quiet(const char *file, const char *arg0, ...) __attribute__((sentinel));

/* ---- Working directory and paths --------------------------------------------------------------------------------- */

/* The current directory, in buf of size bytes; null allocates 4097. Returns the buffer, or null with errno. */
char *platform_get_cwd(char *buf, size_t size);

/* Changes the current directory. Returns 0 after the report "platform_set_cwd" (platform_perror) when that fails. */
int platform_set_cwd(const char *path);

/* The path with every link, "." and ".." resolved, in buf; null allocates. Returns the buffer, or null with errno.
 * platform_resolve_in does it from dir: it changes there and back, and reports a change that fails as platform_set_cwd
 * does, but goes on. A current directory without a name to come back by (it was removed, or has more than 4095
 * characters) is reported in the same way and not left: then an absolute path is resolved and any other gives null. */
char *platform_resolve(const char *path, char *buf);
char *platform_resolve_in(const char *dir, const char *path, char *buf);

/* The same in a static buffer that every call overwrites; on failure the path itself. */
const char *platform_resolve_static(const char *path);

/* 1 when the path is not null and begins with "/". */
int platform_is_absolute(const char *path);

/* A path that leads from the directory base to target, in buf; null allocates. Each "/" of base behind the common part
 * is one step up, also one at the end of base: from "/a/b" to "/a/x" the way is "../x", and from "/a/b/" it is
 * "../../x". For the way from the directory itself give base without "/" at its end. A path that does not begin with
 * "/" is resolved first. Equal paths give ".". Returns the buffer; null, with errno, when a path cannot be resolved or
 * the result exceeds 4096 characters. */
char *platform_relative_path(const char *base, const char *target, char *buf);

/* Parts of a path, copied into buf, which must have room for them; null allocates precisely what is needed. A null path
 * gives null.
 * dirname: all before the last "/", "" when there is none. basename: all behind it. extension: from the last "." of the
 * base name on, null when there is none behind its first character. stem: the base name without its extension. */
char *platform_dirname(const char *path, char *buf);
char *platform_basename(const char *path, char *buf);
char *platform_extension(const char *path, char *buf);
char *platform_stem(const char *path, char *buf);

/* ---- Status ------------------------------------------------------------------------------------------------------ */

/* 1 when the path exists; a link counts as what it points to. Both are the same. */
int platform_exists(const char *path);
int platform_file_exists(const char *path);

/* 1 when the process has that access to the path. */
int platform_is_readable(const char *path);
int platform_is_writable(const char *path);
int platform_is_executable(const char *path);

/* 1 when the path is a directory. */
int platform_is_dir(const char *path);

/* Modification time in seconds since 1970, 0 when unknown. */
int64_t platform_mtime(const char *path);

/* Size in bytes, -1 when unknown. */
int64_t platform_file_size(const char *path);

/* The login name of the file's owner; null when the file or its owner's entry is missing. Owned by the C library, valid
 * until its next such name. */
const char *platform_file_owner(const char *path);

/* Removes a file, a link or an empty directory. 0 when there is none of that name or it cannot be removed. */
int platform_remove_file(const char *path);

/* Renames; replaces what is at the target. 1 when it did, else 0. */
int platform_rename(const char *from, const char *to);

/* Makes a directory of mode 0777 before the mask. 1 when it did, else 0. Both are the same. */
int platform_mkdir(const char *path);
int platform_make_dir(const char *path);

/* Removes an empty directory. 1 when it did, else 0. */
int platform_rmdir(const char *path);

/* Bytes that an unprivileged process may still write to the path's file system, at most INT64_MAX; -1 for a null or
 * empty path, -2 when it cannot be asked. */
int64_t platform_free_space(const char *path);

/* ---- Stamps ------------------------------------------------------------------------------------------------------ */

/* The stamp of a path, an open descriptor, an open stream. When the status cannot be read: all words zero, not valid.
 */
FileStamp platform_file_stamp(const char *path);
FileStamp platform_fd_stamp(int fd);
FileStamp platform_stream_stamp(FILE *stream);

/* 1 when the stamp was taken of a file. */
int platform_stamp_valid(FileStamp stamp);

/* 1 when two stamps differ. Access times are not compared: reading a file is no change. */
int platform_stamps_differ(FileStamp a, FileStamp b);

/* 1 when a fresh stamp differs from the one given; a file that is gone has changed, unless it was missing when the
 * stamp was taken. */
int platform_file_changed(const char *path, FileStamp stamp);
int platform_fd_changed(int fd, FileStamp stamp);
int platform_stream_changed(FILE *stream, FileStamp stamp);

/* 1 when the stamped file is of a kind and its owner has permissions. flags: one kind of PlatformMode plus permissions,
 * all of which must be there. */
int platform_mode_test(FileStamp stamp, uint32_t flags);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
