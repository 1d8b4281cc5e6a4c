// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Logs of limited size: what stands under their names, and calls that fail.
#include "msg_support.h"
#include "sinks_support.h"

#include <support/census.h>
#include <support/interpose.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace zel::test;

namespace {

class RotationFailure : public testing::Test {
protected:
    LogFolder folder;

    // The error of an opening that is refused, with nothing left open.
    int refusal(const std::string &path) {
        const std::set<int> before = open_descriptors();
        errno = 0;
        FILE *log = msg_open_rotating_file(path.c_str(), 100, 1);
        const int error = errno;
        EXPECT_EQ(log, nullptr);
        EXPECT_EQ(open_descriptors(), before);
        return error;
    }

    // The log and its older files after lines during which the n-th call fails. Returns
    // whether that call was made.
    template <typename Signature, typename Result>
    bool lines_with(Hook<Signature> &hook, int nth, int error, Result result) {
        FILE *log = folder.open(4, 3);
        fputs("one\ntwo\n", log);
        int calls = 0;
        {
            auto failing = fail_nth(hook, nth, error, result);
            const Interposed counted(hook, [&calls, failing](auto... arguments) mutable {
                ++calls;
                return failing(arguments...);
            });
            fputs("six\n", log);
        }
        fputs("ten\n", log);
        EXPECT_EQ(ferror(log), 0);
        EXPECT_EQ(fclose(log), 0);
        return calls > nth;
    }

    std::string in_order() const {
        std::string text;
        for (const char *suffix : {".3", ".2", ".1", ""}) {
            text += read_file(folder.log + suffix);
        }
        return text;
    }
};

} // namespace

TEST_F(RotationFailure, ALinkIsNotFollowed) {
    const std::string target = folder.path + "/target";
    write_file(target, "mine\n");
    EXPECT_EQ(symlink(target.c_str(), folder.log.c_str()), 0);
    EXPECT_EQ(refusal(folder.log), ELOOP);
    EXPECT_EQ(read_file(target), "mine\n");
}

TEST_F(RotationFailure, AFifoDoesNotHoldTheProgramUp) {
    EXPECT_EQ(mkfifo(folder.log.c_str(), 0600), 0);
    EXPECT_EQ(refusal(folder.log), ENXIO);
    const int reader = open(folder.log.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_EQ(refusal(folder.log), EPERM);
    close(reader);
}

TEST_F(RotationFailure, WhatIsNoPlainFileOfTheUserIsLeftAlone) {
    write_file(folder.log, "mine\n");
    EXPECT_EQ(link(folder.log.c_str(), (folder.path + "/second").c_str()), 0);
    EXPECT_EQ(refusal(folder.log), EPERM);
    EXPECT_EQ(read_file(folder.log), "mine\n");
    EXPECT_EQ(refusal(folder.path), EISDIR);
    EXPECT_EQ(refusal("/dev/null"), EPERM);
    EXPECT_EQ(unlink((folder.path + "/second").c_str()), 0);
    const Interposed foreign(hook::fstat, [](int fd, struct stat *status) {
        const int result = hook::fstat.real(fd, status);
        status->st_uid = geteuid() + 1;
        return result;
    });
    EXPECT_EQ(refusal(folder.log), EPERM);
}

TEST_F(RotationFailure, OddPathsAreRefused) {
    EXPECT_EQ(refusal(""), ENOENT);
    EXPECT_EQ(refusal(folder.path + "/no/log"), ENOENT);
    EXPECT_EQ(refusal(folder.path + "/"), ENOENT);
    EXPECT_EQ(refusal(folder.path + "/."), EISDIR);
    EXPECT_EQ(refusal(folder.path + "/" + std::string(300, 'x')), ENAMETOOLONG);
    EXPECT_EQ(refusal(std::string(5000, '/') + "tmp/log"), ENAMETOOLONG);
}

TEST_F(RotationFailure, ANullPathAndOddNumbersAreRefused) {
    errno = 0;
    EXPECT_EQ(msg_open_rotating_file(nullptr, 100, 1), nullptr);
    EXPECT_EQ(errno, EINVAL);
    for (const int64_t most_bytes : {INT64_MIN, INT64_C(-1), INT64_C(0)}) {
        errno = 0;
        EXPECT_EQ(folder.open(most_bytes, 1), nullptr);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(folder.open(100, -1), nullptr);
    EXPECT_EQ(folder.names(), "");
}

TEST_F(RotationFailure, APlantedOlderNameIsReplacedAndNotFollowed) {
    const std::string target = folder.path + "/target";
    write_file(target, "mine\n");
    EXPECT_EQ(symlink(target.c_str(), (folder.log + ".1").c_str()), 0);
    FILE *log = folder.open(4, 1);
    fputs("one\ntwo\n", log);
    fclose(log);
    EXPECT_EQ(folder.all(), "two\n|one\n");
    EXPECT_EQ(read_file(target), "mine\n");
}

TEST_F(RotationFailure, ADirectoryUnderAnOlderNameLetsTheFileGrow) {
    EXPECT_EQ(mkdir((folder.log + ".1").c_str(), 0700), 0);
    FILE *log = folder.open(4, 1);
    fputs("one\ntwo\n", log);
    EXPECT_EQ(read_file(folder.log), "one\ntwo\n");
    EXPECT_EQ(rmdir((folder.log + ".1").c_str()), 0);
    fputs("six\n", log);
    fclose(log);
    EXPECT_EQ(folder.all(), "six\n|one\ntwo\n");
}

TEST_F(RotationFailure, ALinkThatIsPlantedMeanwhileIsNotFollowed) {
    const std::string target = folder.path + "/target";
    write_file(target, "mine\n");
    FILE *log = folder.open(4, 1);
    {
        const Interposed planting(hook::renameat,
                                  [&](int from_directory, const char *from, int to_directory, const char *to) {
                                      const int result = hook::renameat.real(from_directory, from, to_directory, to);
                                      EXPECT_EQ(symlink(target.c_str(), folder.log.c_str()), 0);
                                      return result;
                                  });
        fputs("one\ntwo\n", log);
    }
    fputs("six\n", log);
    EXPECT_EQ(read_file(folder.log + ".1"), "one\ntwo\nsix\n");
    EXPECT_EQ(unlink(folder.log.c_str()), 0);
    fputs("ten\n", log);
    fclose(log);
    EXPECT_EQ(folder.all(), "ten\n|one\ntwo\nsix\n");
    EXPECT_EQ(read_file(target), "mine\n");
}

// ---- Calls that fail ------------------------------------------------------------------------------------------------

TEST_F(RotationFailure, AnOpeningThatFailsLeavesNothing) {
    write_file(folder.log, "old\n");
    const auto fails = [this](auto &hook, int nth, int error, auto result) {
        const Interposed failing(hook, fail_nth(hook, nth, error, result));
        EXPECT_EQ(refusal(folder.log), error);
    };
    fails(hook::malloc, 0, ENOMEM, nullptr);
    fails(hook::open, 0, EMFILE, -1);
    fails(hook::openat, 0, EMFILE, -1);
    fails(hook::openat, 1, EACCES, -1);
    fails(hook::fcntl, 0, EINVAL, -1);
    fails(hook::fopencookie, 0, ENOMEM, nullptr);
    const Interposed failing(hook::fstat, fail_nth(hook::fstat, 0, EIO, -1));
    EXPECT_EQ(refusal(folder.log), EPERM);
    EXPECT_EQ(folder.all(), "old\n");
}

TEST_F(RotationFailure, WithoutADescriptorAboveTheStandardOnesThereIsNone) {
    const Outcome outcome = run_in_child([this] {
        close(STDIN_FILENO);
        const Interposed failing(hook::fcntl, fail_always(hook::fcntl, EMFILE, -1));
        FILE *log = folder.open(100, 1);
        printf("%s %d %d", log == nullptr ? "none" : "some", errno == EMFILE ? 1 : 0, dup(STDOUT_FILENO));
    });
    EXPECT_EQ(outcome.out, "none 1 0");
}

TEST_F(RotationFailure, NoLineIsLostWhicheverStepOfARotationFails) {
    const auto sweep = [this](auto &hook, int error, auto result) {
        int nth = 0;
        while (lines_with(hook, nth, error, result)) {
            EXPECT_EQ(in_order(), "one\ntwo\nsix\nten\n") << nth;
            for (const char *suffix : {"", ".1", ".2", ".3"}) {
                unlink((folder.log + suffix).c_str());
            }
            ++nth;
        }
        EXPECT_GT(nth, 0);
        for (const char *suffix : {"", ".1", ".2", ".3"}) {
            unlink((folder.log + suffix).c_str());
        }
    };
    sweep(hook::renameat, EACCES, -1);
    sweep(hook::openat, EMFILE, -1);
    sweep(hook::fstatat, EIO, -1);
    sweep(hook::fstat, EIO, -1);
    sweep(hook::fcntl, EAGAIN, -1);
    sweep(hook::fcntl, ENOLCK, -1);
    sweep(hook::write, EINTR, -1);
}

TEST_F(RotationFailure, AFileSystemWithoutLocksDoesWithout) {
    FILE *log = folder.open(4, 3);
    const Interposed failing(hook::fcntl, fail_always(hook::fcntl, ENOLCK, -1));
    fputs("one\ntwo\n", log);
    EXPECT_EQ(folder.all(), "two\n|one\n");
    fclose(log);
}

TEST_F(RotationFailure, NoMemoryIsAskedForWhileItRotates) {
    FILE *log = folder.open(4, 3);
    {
        const Interposed failing(hook::malloc, [](size_t) -> void * { abort(); });
        fputs("one\n", log);
        fputs("two\n", log);
    }
    fclose(log);
    EXPECT_EQ(folder.all(), "two\n|one\n");
}

TEST_F(RotationFailure, ALineThatWasWrittenLeavesErrnoAlone) {
    FILE *log = folder.open(4, 3);
    errno = EDOM;
    fputs("one\ntwo\nsix\n", log);
    EXPECT_EQ(errno, EDOM);
    fclose(log);
}

// ---- Full disks -----------------------------------------------------------------------------------------------------

namespace {

// A disk that takes so many more bytes. Standard output and errors are not on it.
std::function<ssize_t(int, const void *, size_t)> disk_with(size_t left) {
    return [left](int fd, const void *text, size_t size) mutable -> ssize_t {
        if (fd <= STDERR_FILENO) {
            return hook::write.real(fd, text, size);
        }
        if (left == 0) {
            errno = ENOSPC;
            return -1;
        }
        const size_t taken = std::min(size, left);
        left -= taken;
        return hook::write.real(fd, text, taken);
    };
}

} // namespace

TEST_F(RotationFailure, AFullDiskDropsTheStreamAndTheNextLineStandsAlone) {
    const Outcome outcome = run_messages([this] {
        msg_set_width_limit(0);
        msg_add_stream(MSG_INFO | MSG_ERROR, folder.open(1000, 1));
        {
            const Interposed full(hook::write, disk_with(5));
            msg_print("one two");
            msg_print("three");
        }
        msg_error("later");
    });
    EXPECT_EQ(folder.all(), "one t\nError: later\n");
    EXPECT_EQ(outcome.out, "one two\nthree\n");
    EXPECT_EQ(outcome.err, "\nWarning: Error during output of informational message.  This stream will no longer be "
                           "used.\n         Stream error was: No space left on device\nError: later\n");
}

// A real limit: the file size of the process. The report goes into memory.
TEST_F(RotationFailure, AFileThatMayNotGrowDropsTheStreamOnce) {
    const Outcome outcome = run_messages([this] {
        signal(SIGXFSZ, SIG_IGN);
        FILE *ring = msg_open_ring(1000, -1);
        msg_set_width_limit(0);
        msg_clear_streams(MSG_INFO | MSG_WARNING);
        msg_add_stream(MSG_INFO, folder.open(1000, 1));
        msg_add_stream(MSG_WARNING, ring);
        struct rlimit limit = {};
        getrlimit(RLIMIT_FSIZE, &limit);
        const struct rlimit small = {.rlim_cur = 6, .rlim_max = limit.rlim_max};
        setrlimit(RLIMIT_FSIZE, &small);
        msg_print("one");
        msg_print("two");
        msg_print("six");
        setrlimit(RLIMIT_FSIZE, &limit);
        msg_write_ring(ring, STDOUT_FILENO);
    });
    EXPECT_EQ(folder.all(), "one\ntw");
    EXPECT_EQ(outcome.out, "\nWarning: Error during output of informational message.  This stream will no longer be "
                           "used.\n         Stream error was: File too large\n");
}
