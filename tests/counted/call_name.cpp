// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The names of system calls. Their numbers differ between the targets.
#include "call_name.h"

#include <algorithm>
#include <linux/net.h>
#include <sys/syscall.h>

namespace zel::test {

namespace {

constexpr long kAny = -1;

struct Name {
    long number;
    const char *name;
    long first = kAny; // what the first argument must be
};

constexpr Name kNames[] = {
    {SYS_brk, "brk"},
    {SYS_clone, "fork"},
    {SYS_close, "close"},
    {SYS_dup2, "dup2"},
    {SYS_execve, "exec"},
    {SYS_fcntl, "fcntl"},
    {SYS_fsync, "fsync"},
    {SYS_ftruncate, "ftruncate"},
    {SYS_futex, "futex"},
    {SYS_getpid, "getpid"},
    {SYS_mmap, "mmap"},
    {SYS_munmap, "munmap"},
    {SYS_openat, "open"},
    {SYS_pselect6, "select"},
    {SYS_read, "read"},
    {SYS_ppoll, "poll"},
    {SYS_recvfrom, "recv"},
    {SYS_rt_sigpending, "sigpending"},
    {SYS_rt_sigprocmask, "sigprocmask"},
    {SYS_rt_sigtimedwait, "sigtimedwait"},
    {SYS_sendmsg, "sendmsg"},
    {SYS_sendto, "send"},
    {SYS_set_robust_list, "set_robust_list"},
    {SYS_socketpair, "socketpair"},
    {SYS_statx, "stat"},
    {SYS_unlinkat, "unlinkat"},
    {SYS_wait4, "waitpid"},
    {SYS_write, "write"},
};

#ifdef __i386__

// The forms for 64-bit offsets and times, and the one call for all of sockets.
constexpr Name kNamesOfTarget[] = {
    {SYS_fcntl64, "fcntl"},
    {SYS_fstat64, "stat"},
    {SYS_fstatat64, "stat"},
    {SYS_ftruncate64, "ftruncate"},
    {SYS_futex_time64, "futex"},
    {SYS_mmap2, "mmap"},
    {SYS_ppoll_time64, "poll"},
    {SYS_pselect6_time64, "select"},
    {SYS_rt_sigtimedwait_time64, "sigtimedwait"},
    {SYS_socketcall, "recv", SYS_RECV},
    {SYS_socketcall, "send", SYS_SEND},
    {SYS_socketcall, "sendmsg", SYS_SENDMSG},
    {SYS_socketcall, "socketpair", SYS_SOCKETPAIR},
};

#else

constexpr Name kNamesOfTarget[] = {
    {SYS_newfstatat, "stat"},
    {SYS_select, "select"},
};

#endif

template <size_t Count>
const char *find(const Name (&names)[Count], long number, long first) {
    const Name *found = std::find_if(names, names + Count, [number, first](const Name &name) {
        return name.number == number && (name.first == kAny || name.first == first);
    });
    return found == names + Count ? nullptr : found->name;
}

} // namespace

std::string call_name(long number, long first) {
    const char *of_target = find(kNamesOfTarget, number, first);
    const char *name = of_target != nullptr ? of_target : find(kNames, number, first);
    return name != nullptr ? name : "call " + std::to_string(number);
}

} // namespace zel::test
