// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The signals of a companion that is started in shared memory.
#include "spawn_support.h"

#include <csignal>
#include <cstring>
#include <sys/wait.h>
#include <unistd.h>

using namespace zel::test;

namespace {

volatile sig_atomic_t handled = 0;

void count(int /*signal*/) {
    handled = handled + 1;
}

// The masks of the companion's process, as numbers.
struct Masks {
    unsigned long long blocked = 0;
    unsigned long long ignored = 0;
    unsigned long long caught = 0;
};

constexpr unsigned long long bit(int signal) {
    return 1ULL << (signal - 1);
}

Masks masks_with(uint32_t flags) {
    PlatformPairSpawnOptions options = usual();
    options.flags = flags;
    const std::string text = said_by("cat", {"cat", "/proc/self/status"}, options);
    Masks masks;
    sscanf(strstr(text.c_str(), "SigBlk:"), "SigBlk: %llx SigIgn: %llx SigCgt: %llx", &masks.blocked, &masks.ignored,
           &masks.caught);
    return masks;
}

// Prepares the signals of a process of its own and prints the masks of its companion.
std::string said_of_masks(uint32_t flags) {
    return run_in_child([flags] {
               signal(SIGUSR1, count);
               signal(SIGUSR2, SIG_IGN);
               sigset_t blocked;
               sigemptyset(&blocked);
               sigaddset(&blocked, SIGHUP);
               sigprocmask(SIG_SETMASK, &blocked, nullptr);
               const Masks masks = masks_with(flags);
               printf("blocked %d, ignored %d, caught %d", masks.blocked == bit(SIGHUP) ? 1 : 0,
                      (masks.ignored & bit(SIGUSR2)) != 0 ? 1 : 0, masks.caught == 0 ? 0 : 1);
               sigprocmask(SIG_BLOCK, nullptr, &blocked);
               printf("; parent's %d",
                      sigismember(&blocked, SIGHUP) == 1 && sigismember(&blocked, SIGINT) == 0 ? 1 : 0);
           })
        .out;
}

} // namespace

TEST(PairSpawnSignals, MaskAndIgnoredSignalsAreTheParentsOwn) {
    EXPECT_EQ(said_of_masks(0), "blocked 1, ignored 1, caught 0; parent's 1");
}

TEST(PairSpawnSignals, AllAreBackToDefaultWhereAsked) {
    EXPECT_EQ(said_of_masks(PLATFORM_PAIR_SPAWN_DEFAULT_SIGNALS), "blocked 0, ignored 0, caught 0; parent's 1");
}

// The signal arrives in the child between its start and its program.
TEST(PairSpawnSignals, NoHandlerOfTheParentRunsInTheChild) {
    handled = 0;
    signal(SIGUSR1, count);
    const Interposed raising(hook::chdir, [](const char *path) {
        kill(getpid(), SIGUSR1);
        return hook::chdir.real(path);
    });
    PlatformPairSpawnOptions options = usual();
    options.directory = "/";
    PairHandle *ph = spawn_companion("pair_echo", &options);
    EXPECT_EQ(handled, 0) << "the child's memory is the parent's";
    EXPECT_EQ(finish(ph), -SIGUSR1) << "the signal is at its default in the child";
    signal(SIGUSR1, SIG_DFL);
}

TEST(PairSpawnSignals, ASignalToTheParentIsHandledAfterTheStart) {
    handled = 0;
    signal(SIGUSR1, count);
    const pid_t parent = getpid();
    const Interposed raising(hook::chdir, [parent](const char *path) {
        kill(parent, SIGUSR1);
        return hook::chdir.real(path);
    });
    PlatformPairSpawnOptions options = usual();
    options.directory = "/";
    PairHandle *ph = spawn_companion("pair_echo", &options);
    EXPECT_EQ(handled, 1);
    EXPECT_EQ(finish(ph), kServed);
    signal(SIGUSR1, SIG_DFL);
}

TEST(PairSpawnSignals, TheHandlersOfTheParentStay) {
    signal(SIGUSR1, count);
    EXPECT_EQ(finish(spawn_companion("pair_echo")), kServed);
    EXPECT_EQ(signal(SIGUSR1, SIG_DFL), count);
}

TEST(PairSpawnSignals, SigpipeIsIgnoredOnceTheProgramRuns) {
    const Outcome outcome = run_in_child([] {
        signal(SIGPIPE, SIG_DFL);
        PlatformPairSpawnOptions options = usual();
        options.flags = PLATFORM_PAIR_SPAWN_IGNORE_SIGPIPE;
        platform_pair_close(spawn("/nowhere", {"nowhere"}, &options));
        printf("%d ", signal(SIGPIPE, SIG_DFL) == SIG_DFL ? 0 : 1);
        finish(spawn_companion("pair_echo"));
        printf("%d ", signal(SIGPIPE, SIG_DFL) == SIG_DFL ? 0 : 1);
        finish(spawn_companion("pair_echo", &options));
        printf("%d ", signal(SIGPIPE, SIG_DFL) == SIG_IGN ? 1 : 0);
    });
    EXPECT_EQ(outcome.out, "0 0 1 ");
}

TEST(PairSpawnSignals, AParentThatIgnoresSigchldLearnsOfAFailedStart) {
    signal(SIGCHLD, SIG_IGN);
    expect_failed_start(spawn("/nowhere", {"nowhere"}), ENOENT);
    signal(SIGCHLD, SIG_DFL);
}
