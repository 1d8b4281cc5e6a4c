// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Replacing functions of the C library: the linker sends each call of SYMBOL to
// __wrap_SYMBOL.
#include <support/interpose.h>

#include <cstdarg>

// Defines the hook of a function, and its wrapper under the name that calls of it have on
// this target.
#define HOOK(result, name, symbol, parameters, arguments)                                                              \
    extern "C" result real_##name parameters __asm__("__real_" symbol);                                                \
    extern "C" result wrap_##name parameters __asm__("__wrap_" symbol);                                                \
    namespace zel::test::hook {                                                                                        \
    Hook<result parameters> name = {.real = real_##name, .replacement = {}};                                           \
    }                                                                                                                  \
    /* A call before the hook is constructed finds it empty. */                                                        \
    result wrap_##name parameters {                                                                                    \
        const auto &hook = zel::test::hook::name;                                                                      \
        return hook.replacement ? hook.replacement arguments : real_##name arguments;                                  \
    }

// With 64-bit file offsets and times some functions have other names on x86.
#ifdef __i386__
#define TIME64(symbol, symbol_x86) symbol_x86
#else
#define TIME64(symbol, symbol_x86) symbol
#endif

HOOK(int, accept, "accept", (int fd, sockaddr *address, socklen_t *length), (fd, address, length))
HOOK(int, access, "access", (const char *path, int mode), (path, mode))
HOOK(int, bind, "bind", (int fd, const sockaddr *address, socklen_t length), (fd, address, length))
HOOK(int, chdir, "chdir", (const char *path), (path))
HOOK(int, clock_gettime, TIME64("clock_gettime", "__clock_gettime64"), (clockid_t clock, timespec *time), (clock, time))
// The further arguments of clone are not passed on.
HOOK(int, clone, "clone", (int (*body)(void *), void *stack, int flags, void *argument), (body, stack, flags, argument))
HOOK(int, close, "close", (int fd), (fd))
HOOK(void, closelog, "closelog", (), ())
HOOK(int, connect, "connect", (int fd, const sockaddr *address, socklen_t length), (fd, address, length))
HOOK(ssize_t, copy_file_range, "copy_file_range",
     (int from, off_t *from_offset, int to, off_t *to_offset, size_t length, unsigned flags),
     (from, from_offset, to, to_offset, length, flags))
HOOK(int, dup2, "dup2", (int from, int to), (from, to))
HOOK(int, execvp, "execvp", (const char *file, char *const *argv), (file, argv))
HOOK(int, fchmod, "fchmod", (int fd, mode_t mode), (fd, mode))
// The third argument of fcntl is passed on whether there is one or not.
HOOK(int, fcntl, TIME64("fcntl64", "__fcntl_time64"), (int fd, int command, long argument), (fd, command, argument))
HOOK(FILE *, fdopen, "fdopen", (int fd, const char *mode), (fd, mode))
HOOK(int, fflush, "fflush", (FILE * stream), (stream))
HOOK(char *, fgets, "fgets", (char *buffer, int size, FILE *stream), (buffer, size, stream))
HOOK(FILE *, fopen, "fopen64", (const char *path, const char *mode), (path, mode))
HOOK(FILE *, fopencookie, "fopencookie", (void *cookie, const char *mode, cookie_io_functions_t calls),
     (cookie, mode, calls))
HOOK(pid_t, fork, "fork", (), ())
HOOK(int, fputs, "fputs", (const char *text, FILE *stream), (text, stream))
HOOK(void, free, "free", (void *pointer), (pointer))
HOOK(void, freeaddrinfo, "freeaddrinfo", (addrinfo * list), (list))
HOOK(int, fstat, TIME64("fstat64", "__fstat64_time64"), (int fd, struct stat *status), (fd, status))
HOOK(int, fstatat, TIME64("fstatat64", "__fstatat64_time64"),
     (int fd, const char *name, struct stat *status, int flags), (fd, name, status, flags))
HOOK(int, fsync, "fsync", (int fd), (fd))
HOOK(int, ftruncate, "ftruncate64", (int fd, off_t length), (fd, length))
HOOK(int, getaddrinfo, "getaddrinfo", (const char *host, const char *service, const addrinfo *hints, addrinfo **list),
     (host, service, hints, list))
HOOK(unsigned long, getauxval, "getauxval", (unsigned long type), (type))
HOOK(ssize_t, getdents64, "getdents64", (int fd, void *buffer, size_t size), (fd, buffer, size))
HOOK(char *, getlogin, "getlogin", (), ())
HOOK(int, getpeername, "getpeername", (int fd, sockaddr *address, socklen_t *length), (fd, address, length))
HOOK(passwd *, getpwuid, "getpwuid", (uid_t user), (user))
HOOK(ssize_t, getrandom, "getrandom", (void *buffer, size_t size, unsigned flags), (buffer, size, flags))
HOOK(int, getsockname, "getsockname", (int fd, sockaddr *address, socklen_t *length), (fd, address, length))
HOOK(int, getsockopt, TIME64("getsockopt", "__getsockopt64"),
     (int fd, int level, int name, void *value, socklen_t *length), (fd, level, name, value, length))
HOOK(int, glob, TIME64("glob64", "__glob64_time64"),
     (const char *pattern, int flags, int (*on_error)(const char *, int), glob_t *record),
     (pattern, flags, on_error, record))
// The third argument of ioctl is passed on whether there is one or not.
HOOK(int, ioctl, TIME64("ioctl", "__ioctl_time64"), (int fd, unsigned long request, void *argument),
     (fd, request, argument))
HOOK(int, kill, "kill", (pid_t pid, int signal), (pid, signal))
HOOK(int, listen, "listen", (int fd, int backlog), (fd, backlog))
HOOK(tm *, localtime_r, TIME64("localtime_r", "__localtime64_r"), (const time_t *now, tm *local), (now, local))
HOOK(void *, malloc, "malloc", (size_t size), (size))
HOOK(int, mkdir, "mkdir", (const char *path, mode_t mode), (path, mode))
HOOK(void *, mmap, "mmap64", (void *address, size_t length, int protection, int flags, int fd, off_t offset),
     (address, length, protection, flags, fd, offset))
HOOK(int, mprotect, "mprotect", (void *address, size_t length, int protection), (address, length, protection))
// The third argument of open is passed on whether there is one or not.
HOOK(int, open, "open64", (const char *path, int flags, mode_t mode), (path, flags, mode))
// The mode of openat is passed on whether there is one or not.
HOOK(int, openat, "openat64", (int fd, const char *name, int flags, mode_t mode), (fd, name, flags, mode))
HOOK(void, openlog, "openlog", (const char *ident, int options, int facility), (ident, options, facility))
HOOK(int, ppoll, TIME64("ppoll", "__ppoll64"),
     (pollfd * entries, nfds_t count, const timespec *timeout, const sigset_t *blocked),
     (entries, count, timeout, blocked))
HOOK(void *, realloc, "realloc", (void *pointer, size_t size), (pointer, size))
HOOK(ssize_t, read, "read", (int fd, void *buffer, size_t size), (fd, buffer, size))
HOOK(ssize_t, readlinkat, "readlinkat", (int fd, const char *path, char *text, size_t size), (fd, path, text, size))
HOOK(ssize_t, recv, "recv", (int fd, void *buffer, size_t length, int flags), (fd, buffer, length, flags))
HOOK(int, remove, "remove", (const char *path), (path))
HOOK(int, renameat, "renameat", (int from_folder, const char *from, int to_folder, const char *to),
     (from_folder, from, to_folder, to))
HOOK(int, select, TIME64("select", "__select64"),
     (int count, fd_set *readable, fd_set *writable, fd_set *exceptional, timeval *timeout),
     (count, readable, writable, exceptional, timeout))
HOOK(ssize_t, send, "send", (int fd, const void *buffer, size_t length, int flags), (fd, buffer, length, flags))
HOOK(ssize_t, sendfile, "sendfile64", (int to, int from, off_t *offset, size_t length), (to, from, offset, length))
HOOK(ssize_t, sendmsg, TIME64("sendmsg", "__sendmsg64"), (int fd, const msghdr *message, int flags),
     (fd, message, flags))
HOOK(int, setsockopt, TIME64("setsockopt", "__setsockopt64"),
     (int fd, int level, int name, const void *value, socklen_t length), (fd, level, name, value, length))
HOOK(int, shutdown, "shutdown", (int fd, int how), (fd, how))
HOOK(int, sigaction, "sigaction", (int signal, const struct sigaction *action, struct sigaction *before),
     (signal, action, before))
HOOK(unsigned, sleep, "sleep", (unsigned seconds), (seconds))
HOOK(int, socket, "socket", (int family, int type, int protocol), (family, type, protocol))
HOOK(int, socketpair, "socketpair", (int family, int type, int protocol, int *fds), (family, type, protocol, fds))
HOOK(int, stat, TIME64("stat64", "__stat64_time64"), (const char *path, struct stat *status), (path, status))
HOOK(int, statvfs, "statvfs64", (const char *path, struct statvfs *status), (path, status))
HOOK(long, sysconf, "sysconf", (int name), (name))
// The two arguments of its one format are passed on.
HOOK(void, syslog, "syslog", (int priority, const char *format, int length, const char *text),
     (priority, format, length, text))
HOOK(time_t, time, TIME64("time", "__time64"), (time_t * now), (now))
HOOK(int, unlinkat, "unlinkat", (int fd, const char *name, int flags), (fd, name, flags))
HOOK(int, vsnprintf, "vsnprintf", (char *buffer, size_t size, const char *format, va_list args),
     (buffer, size, format, args))
HOOK(pid_t, waitpid, "waitpid", (pid_t pid, int *status, int options), (pid, status, options))
HOOK(ssize_t, write, "write", (int fd, const void *buffer, size_t size), (fd, buffer, size))
