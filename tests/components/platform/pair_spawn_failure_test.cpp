// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A start in shared memory when a step fails: nothing is left behind.
#include "spawn_support.h"

#include <csignal>
#include <fcntl.h>
#include <sys/mman.h>

using namespace zel::test;

namespace {

// A start that takes every step: new standard descriptors that change places, a directory, non-blocking ends.
PairHandle *spawn_with_all() {
    static const int fds[] = {1, 0, 2};
    PlatformPairSpawnOptions options = usual();
    options.stdio_fds = fds;
    options.directory = "/";
    options.flags =
        PLATFORM_PAIR_SPAWN_NON_BLOCKING | PLATFORM_PAIR_SPAWN_CLOSE_OTHERS | PLATFORM_PAIR_SPAWN_DEFAULT_SIGNALS;
    return spawn_companion("pair_echo", &options);
}

bool mask_is_empty() {
    sigset_t blocked;
    sigprocmask(SIG_BLOCK, nullptr, &blocked);
    return sigisemptyset(&blocked) == 1;
}

// The n-th call of the function fails, for n = 0, 1, 2 and so on, until the start takes no more of them. Returns how
// many starts failed.
template <typename Result, typename... Arguments>
int sweep(Hook<Result(Arguments...)> &hook, int error, std::type_identity_t<Result> result, PairHandle *(*start)(),
          const std::string &text) {
    int failed = 0;
    for (int nth = 0; nth < 100; ++nth) {
        const std::set<int> before = open_descriptors();
        int calls = 0;
        PairHandle *ph = nullptr;
        {
            auto failing = fail_nth(hook, nth, error, result);
            const Interposed counting(hook, [&calls, &failing](Arguments... arguments) -> Result {
                ++calls;
                return failing(arguments...);
            });
            ph = start();
        }
        EXPECT_TRUE(mask_is_empty()) << nth;
        if (ph->error_number == 0) {
            EXPECT_EQ(finish(ph), kServed);
        } else {
            ++failed;
            expect_failed_start(ph, error, text.c_str());
        }
        EXPECT_EQ(open_descriptors(), before) << nth;
        if (calls <= nth) {
            return failed;
        }
    }
    ADD_FAILURE() << "there is no end of calls";
    return failed;
}

PairHandle *spawn_usual() {
    return spawn_companion("pair_echo");
}

} // namespace

TEST(PairSpawnFailure, ASocketpairThatFailsIsReported) {
    EXPECT_EQ(sweep(hook::socketpair, EMFILE, -1, spawn_usual, "socketpair create failed"), 1);
}

TEST(PairSpawnFailure, ACloneThatFailsIsReported) {
    EXPECT_EQ(sweep(hook::clone, ENOMEM, -1, spawn_usual, "fork failed"), 1);
}

TEST(PairSpawnFailure, MemoryThatIsMissingIsReported) {
    EXPECT_EQ(finish(spawn_usual()), kServed); // the shared area is there from now on
    EXPECT_EQ(sweep(hook::mmap, ENOMEM, MAP_FAILED, spawn_usual, "fork failed"), 1);
    EXPECT_EQ(sweep(hook::mprotect, ENOMEM, -1, spawn_usual, "fork failed"), 1);
}

TEST(PairSpawnFailure, StandardDescriptorsThatFailAreReported) {
    EXPECT_EQ(sweep(hook::open, EMFILE, -1, spawn_usual, "execvp failed"), 2);
    EXPECT_EQ(sweep(hook::dup2, EMFILE, -1, spawn_usual, "execvp failed"), 3);
    EXPECT_EQ(sweep(hook::dup2, EMFILE, -1, spawn_with_all, "execvp failed"), 2);
}

TEST(PairSpawnFailure, ADirectoryThatFailsIsReported) {
    EXPECT_EQ(sweep(hook::chdir, EIO, -1, spawn_with_all, "execvp failed"), 1);
}

// The flags of a descriptor are read and set without a promise; a copy of one is a step.
TEST(PairSpawnFailure, ACopyOfADescriptorThatFailsIsReported) {
    int failed = 0;
    for (int nth = 0; nth < 4; ++nth) {
        int copies = 0;
        const std::set<int> before = open_descriptors();
        PairHandle *ph = nullptr;
        {
            const Interposed failing(hook::fcntl, [&copies, nth](int fd, int command, long argument) {
                if (command == F_DUPFD && copies++ == nth) {
                    errno = EMFILE;
                    return -1;
                }
                return hook::fcntl.real(fd, command, argument);
            });
            ph = spawn_with_all();
        }
        if (ph->error_number == 0) {
            EXPECT_EQ(finish(ph), kServed);
        } else {
            ++failed;
            expect_failed_start(ph, EMFILE);
        }
        EXPECT_EQ(open_descriptors(), before);
    }
    EXPECT_EQ(failed, 2);
}

TEST(PairSpawnFailure, AStartIsTriedAgainWhileTheProcessTableIsFull) {
    for (const int failures : {30, 31}) {
        int attempts = 0;
        PairHandle *ph = nullptr;
        {
            const Interposed failing(hook::clone, [&](int (*body)(void *), void *stack, int flags, void *argument) {
                if (attempts++ < failures) {
                    errno = EAGAIN;
                    return -1;
                }
                return hook::clone.real(body, stack, flags, argument);
            });
            ph = spawn_usual();
        }
        EXPECT_EQ(attempts, 31);
        if (failures == 30) {
            EXPECT_EQ(finish(ph), kServed);
        } else {
            expect_failed_start(ph, EAGAIN, "fork failed");
        }
    }
}

TEST(PairSpawnFailure, NoMemoryForTheHandleEndsTheProcessWithAnError) {
    const Outcome outcome = run_in_child([] {
        const Interposed failing(hook::malloc, [](size_t size) -> void * {
            return size == sizeof(PairHandle) ? nullptr : hook::malloc.real(size);
        });
        spawn_usual();
    });
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "Error: platform_pair_spawn: Not enough memory to allocate " +
                               std::to_string(sizeof(PairHandle)) + " bytes.\n");
}

TEST(PairSpawnFailure, AHandleThatIsNotOpenCanBeAskedAndClosed) {
    PairHandle *ph = spawn("/nowhere", {"nowhere"});
    EXPECT_EQ(platform_pair_ok(ph), 0);
    EXPECT_STREQ(platform_pair_errstr(ph), "No such file or directory");
    int32_t value = 1;
    EXPECT_EQ(platform_pair_send(ph, &value, sizeof value), 0);
    EXPECT_EQ(platform_pair_stop(ph, 1000), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(platform_pair_kill_child(ph), 0);
    EXPECT_EQ(platform_pair_exec_error(ph), ENOENT) << "whatever the transfers have met";
    platform_pair_close(ph);
}
