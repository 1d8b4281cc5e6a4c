// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Replacing functions of the C library for the scope of a test, in the library and in the
// test itself.
//
//   Interposed failing(hook::send, [](int, const void *, size_t, int) -> ssize_t { errno = EPIPE; return -1; });
//
// A replacement may call the real function: hook::send.real(...). A forked child inherits
// the replacements. Those of malloc, realloc and free allocate through the real functions
// alone.
#ifndef ZEL_TESTS_SUPPORT_INTERPOSE_H
#define ZEL_TESTS_SUPPORT_INTERPOSE_H

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <functional>
#include <glob.h>
#include <netdb.h>
#include <poll.h>
#include <pwd.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/types.h>
#include <type_traits>

namespace zel::test {

template <typename Signature>
struct Hook;

template <typename Result, typename... Arguments>
struct Hook<Result(Arguments...)> {
    Result (*real)(Arguments...);
    std::function<Result(Arguments...)> replacement;
};

// Puts a replacement in place. The end of its scope restores the one before.
template <typename Signature>
class Interposed {
public:
    Interposed(Hook<Signature> &hook, std::function<Signature> replacement) : hook_(hook), before_(hook.replacement) {
        hook_.replacement = std::move(replacement);
    }
    ~Interposed() { hook_.replacement = before_; }
    Interposed(const Interposed &) = delete;
    Interposed &operator=(const Interposed &) = delete;

private:
    Hook<Signature> &hook_;
    std::function<Signature> before_;
};

template <typename Signature, typename Replacement>
Interposed(Hook<Signature> &, Replacement) -> Interposed<Signature>;

// A replacement whose n-th call (from 0) fails with that error and result. All other
// calls go to the real function.
template <typename Result, typename... Arguments>
std::function<Result(Arguments...)> fail_nth(Hook<Result(Arguments...)> &hook, int nth, int error,
                                             std::type_identity_t<Result> result) {
    return [&hook, nth, error, result, calls = 0](Arguments... arguments) mutable -> Result {
        if (calls++ == nth) {
            errno = error;
            return result;
        }
        return hook.real(arguments...);
    };
}

// A replacement whose every call fails with that error and result.
template <typename Result, typename... Arguments>
std::function<Result(Arguments...)> fail_always(Hook<Result(Arguments...)> & /*hook*/, int error,
                                                std::type_identity_t<Result> result) {
    return [error, result](Arguments...) -> Result {
        errno = error;
        return result;
    };
}

namespace hook {

extern Hook<int(int, sockaddr *, socklen_t *)> accept;
extern Hook<int(const char *, int)> access;
extern Hook<int(int, const sockaddr *, socklen_t)> bind;
extern Hook<int(const char *)> chdir;
extern Hook<int(clockid_t, timespec *)> clock_gettime;
extern Hook<int(int (*)(void *), void *, int, void *)> clone;
extern Hook<int(int)> close;
extern Hook<void()> closelog;
extern Hook<int(int, const sockaddr *, socklen_t)> connect;
extern Hook<ssize_t(int, off_t *, int, off_t *, size_t, unsigned)> copy_file_range;
extern Hook<int(int, int)> dup2;
extern Hook<int(const char *, char *const *)> execvp;
extern Hook<int(int, mode_t)> fchmod;
extern Hook<int(int, int, long)> fcntl;
extern Hook<FILE *(int, const char *)> fdopen;
extern Hook<int(FILE *)> fflush;
extern Hook<char *(char *, int, FILE *)> fgets;
extern Hook<FILE *(const char *, const char *)> fopen;
extern Hook<FILE *(void *, const char *, cookie_io_functions_t)> fopencookie;
extern Hook<pid_t()> fork;
extern Hook<int(const char *, FILE *)> fputs;
extern Hook<void(void *)> free;
extern Hook<void(addrinfo *)> freeaddrinfo;
extern Hook<int(int, struct stat *)> fstat;
extern Hook<int(int, const char *, struct stat *, int)> fstatat;
extern Hook<int(int)> fsync;
extern Hook<int(int, off_t)> ftruncate;
extern Hook<int(const char *, const char *, const addrinfo *, addrinfo **)> getaddrinfo;
extern Hook<unsigned long(unsigned long)> getauxval;
extern Hook<ssize_t(int, void *, size_t)> getdents64;
extern Hook<char *()> getlogin;
extern Hook<int(int, sockaddr *, socklen_t *)> getpeername;
extern Hook<passwd *(uid_t)> getpwuid;
extern Hook<ssize_t(void *, size_t, unsigned)> getrandom;
extern Hook<int(int, sockaddr *, socklen_t *)> getsockname;
extern Hook<int(int, int, int, void *, socklen_t *)> getsockopt;
extern Hook<int(const char *, int, int (*)(const char *, int), glob_t *)> glob;
extern Hook<int(int, unsigned long, void *)> ioctl;
extern Hook<int(pid_t, int)> kill;
extern Hook<int(int, int)> listen;
extern Hook<tm *(const time_t *, tm *)> localtime_r;
extern Hook<void *(size_t)> malloc;
extern Hook<int(const char *, mode_t)> mkdir;
extern Hook<void *(void *, size_t, int, int, int, off_t)> mmap;
extern Hook<int(void *, size_t, int)> mprotect;
extern Hook<int(const char *, int, mode_t)> open;
extern Hook<int(int, const char *, int, mode_t)> openat;
extern Hook<void(const char *, int, int)> openlog;
extern Hook<int(pollfd *, nfds_t, const timespec *, const sigset_t *)> ppoll;
extern Hook<void *(void *, size_t)> realloc;
extern Hook<ssize_t(int, const char *, char *, size_t)> readlinkat;
extern Hook<int(const char *)> remove;
extern Hook<int(int, const char *, int, const char *)> renameat;
extern Hook<ssize_t(int, void *, size_t)> read;
extern Hook<ssize_t(int, void *, size_t, int)> recv;
extern Hook<int(int, fd_set *, fd_set *, fd_set *, timeval *)> select;
extern Hook<ssize_t(int, const void *, size_t, int)> send;
extern Hook<ssize_t(int, int, off_t *, size_t)> sendfile;
extern Hook<ssize_t(int, const msghdr *, int)> sendmsg;
extern Hook<int(int, int, int, const void *, socklen_t)> setsockopt;
extern Hook<int(int, int)> shutdown;
extern Hook<int(int, const struct sigaction *, struct sigaction *)> sigaction;
extern Hook<unsigned(unsigned)> sleep;
extern Hook<int(int, int, int)> socket;
extern Hook<int(int, int, int, int *)> socketpair;
extern Hook<int(const char *, struct stat *)> stat;
extern Hook<int(const char *, struct statvfs *)> statvfs;
extern Hook<long(int)> sysconf;
extern Hook<void(int, const char *, int, const char *)> syslog; // for the format "%.*s"
extern Hook<time_t(time_t *)> time;
extern Hook<int(int, const char *, int)> unlinkat;
extern Hook<int(char *, size_t, const char *, va_list)> vsnprintf;
extern Hook<pid_t(pid_t, int *, int)> waitpid;
extern Hook<ssize_t(int, const void *, size_t)> write;

} // namespace hook

} // namespace zel::test

#endif
