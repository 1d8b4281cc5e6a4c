// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// What the tests of the file services share.
#include "file_services_support.h"

#include <support/census.h>
#include <support/interpose.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace zel::test {

namespace {

// The calls so far, and what happens at one of them.
struct Watch {
    int nth;
    std::function<bool(const std::string &)> action;
    Names names = {};
    bool is_at_work = false; // the action's own calls are not counted

    // Whether this call fails.
    bool sees(const char *name) {
        if (is_at_work) {
            return false;
        }
        names.emplace_back(name);
        if (static_cast<int>(names.size()) - 1 != nth) {
            return false;
        }
        is_at_work = true;
        const bool fails = action(name);
        is_at_work = false;
        return fails;
    }
};

template <typename Result, typename... Arguments>
Interposed<Result(Arguments...)> watched(Hook<Result(Arguments...)> &hook, const char *name, Watch &watch) {
    const auto earlier = hook.replacement;
    return {hook, [&hook, earlier, name, &watch](Arguments... arguments) -> Result {
                if (!watch.sees(name)) {
                    return earlier ? earlier(arguments...) : hook.real(arguments...);
                }
                errno = EIO;
                return static_cast<Result>(-1);
            }};
}

} // namespace

Names with_calls(const std::function<void()> &body, int nth, const std::function<bool(const std::string &)> &action) {
    Watch watch = {.nth = nth, .action = action};
    // A close that fails has closed.
    const Interposed closing(hook::close, [&watch](int fd) {
        const bool fails = watch.sees("close");
        const int closed = hook::close.real(fd);
        errno = fails ? EIO : errno;
        return fails ? -1 : closed;
    });
    const auto copy_file_range = watched(hook::copy_file_range, "copy_file_range", watch);
    const auto fchmod = watched(hook::fchmod, "fchmod", watch);
    const auto fcntl = watched(hook::fcntl, "fcntl", watch);
    const auto fstat = watched(hook::fstat, "fstat", watch);
    const auto fsync = watched(hook::fsync, "fsync", watch);
    const auto getrandom = watched(hook::getrandom, "getrandom", watch);
    const auto ioctl = watched(hook::ioctl, "ioctl", watch);
    const auto mkdir = watched(hook::mkdir, "mkdir", watch);
    const auto open = watched(hook::open, "open", watch);
    const auto openat = watched(hook::openat, "openat", watch);
    const auto read = watched(hook::read, "read", watch);
    const auto readlinkat = watched(hook::readlinkat, "readlinkat", watch);
    const auto renameat = watched(hook::renameat, "renameat", watch);
    const auto sendfile = watched(hook::sendfile, "sendfile", watch);
    const auto stat = watched(hook::stat, "stat", watch);
    const auto unlinkat = watched(hook::unlinkat, "unlinkat", watch);
    const auto write = watched(hook::write, "write", watch);
    body();
    return watch.names;
}

Names calls_of(const std::function<void()> &body) {
    return with_calls(body, -1, {});
}

void sweep(const std::function<void()> &prepare, const std::function<int()> &service,
           const std::function<void(const Fared &)> &check) {
    prepare();
    const auto calls = static_cast<int>(calls_of(service).size());
    EXPECT_GT(calls, 0);
    for (int nth = 0; nth < calls; ++nth) {
        prepare();
        const auto before = open_descriptors();
        Fared fared = {};
        with_calls(
            [&] {
                errno = 0;
                fared.result = service();
                fared.error = errno;
            },
            nth,
            [&fared](const std::string &name) {
                fared.failed = name;
                return true;
            });
        SCOPED_TRACE(std::to_string(nth) + ": " + fared.failed);
        EXPECT_EQ(open_descriptors(), before);
        check(fared);
    }
}

std::set<std::string> entries(const std::string &folder) {
    std::set<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(folder)) {
        names.insert(entry.path().filename());
    }
    return names;
}

mode_t permissions(const std::string &path) {
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

Mask::Mask(mode_t mask) : before(umask(mask)) {}

Mask::~Mask() {
    umask(before);
}

std::string long_text(size_t length) {
    std::string text(length, '\0');
    for (size_t at = 0; at < length; at += sizeof at) {
        memcpy(text.data() + at, &at, std::min(sizeof at, length - at));
    }
    return text;
}

} // namespace zel::test
