// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Whether the other side still lives, stopping it, and closing the handle.
#include "pair_support.h"

#include <msg/base/limits.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <sys/resource.h>
#include <unistd.h>

using namespace zel::test;

namespace {

// Counts the calls that would touch a process, and lets them through. Nothing is sent to this process or to a group.
struct ProcessCalls {
    int waits = 0;
    std::vector<std::string> signals = {}; // "PID SIGNAL"

    Interposed<pid_t(pid_t, int *, int)> waitpid{hook::waitpid, [this](pid_t pid, int *status, int options) {
                                                     ++waits;
                                                     return hook::waitpid.real(pid, status, options);
                                                 }};
    Interposed<int(pid_t, int)> kill{hook::kill, [this](pid_t pid, int signal) {
                                         signals.push_back(std::to_string(pid) + " " + std::to_string(signal));
                                         return pid < 1 || pid == getpid() ? 0 : hook::kill.real(pid, signal);
                                     }};
};

// A companion that has begun to serve. Before that it is a child on its way to the program: a signal runs the parent's
// handler there, and under valgrind it is lost.
PairHandle *start_running() {
    PairHandle *ph = start();
    EXPECT_TRUE(echoes(ph, 1));
    return ph;
}

// A companion that ends as it is told, when it has ended.
PairHandle *start_ended(int32_t how) {
    PairHandle *ph = start({.companion = "pair_ender"});
    EXPECT_TRUE(send_value(ph, how));
    wait_until_ended(ph->companion_pid);
    return ph;
}

void expect_end(int32_t how, int32_t exit_status, int32_t signal) {
    SCOPED_TRACE(how);
    PairHandle *ph = start_ended(how);
    EXPECT_EQ(platform_pair_companion_alive(ph), 0);
    EXPECT_EQ(platform_pair_child_exit_status(ph), exit_status);
    EXPECT_EQ(platform_pair_child_term_signal(ph), signal);
    EXPECT_FALSE(has_children()) << "the companion has been reaped";
    platform_pair_close(ph);
}

// The number of a process that is gone.
pid_t gone_process() {
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(0);
    }
    reap(pid);
    return pid;
}

std::string closings_of(PairHandle *ph) {
    std::string calls;
    const Interposed closing(hook::close, [&calls](int fd) {
        calls += "close " + std::to_string(fd) + ";";
        return 0;
    });
    const Interposed shutting(hook::shutdown, [&calls](int fd, int how) {
        calls += "shutdown " + std::to_string(fd) + (how == SHUT_RDWR ? " both;" : " another way;");
        return 0;
    });
    EXPECT_EQ(platform_pair_close(ph), 1);
    return calls;
}

PairHandle *open_with_descriptors(const char *tag, int rx_fd, int tx_fd) {
    const ScopedVariable variable(kPairVariable, std::string("123 7 ") + tag);
    PairHandle *ph = platform_pair_child_open(kPairVariable, 0, 1);
    ph->rx_fd = rx_fd;
    ph->tx_fd = tx_fd;
    return ph;
}

} // namespace

TEST(PairCompanionAlive, ARunningCompanionIsAlive) {
    PairHandle *ph = start();
    EXPECT_EQ(platform_pair_companion_alive(ph), 1);
    EXPECT_EQ(platform_pair_child_exit_status(ph), 256);
    EXPECT_EQ(platform_pair_child_term_signal(ph), 0);
    EXPECT_EQ(finish(ph), kServed);
}

TEST(PairCompanionAlive, AnExitIsReapedAndItsStatusKept) {
    expect_end(0, 0, 0);
    expect_end(7, 7, 0);
    expect_end(255, 255, 0);
}

TEST(PairCompanionAlive, ADeathBySignalIsReapedAndTheSignalKept) {
    expect_end(-SIGKILL, 0, SIGKILL);
    expect_end(-SIGTERM, 0, SIGTERM);
}

TEST(PairCompanionAlive, AskedAgainTheCompanionIsStillGone) {
    PairHandle *ph = start_ended(7);
    EXPECT_EQ(platform_pair_companion_alive(ph), 0);
    EXPECT_EQ(platform_pair_companion_alive(ph), 0);
    EXPECT_EQ(platform_pair_child_exit_status(ph), 7);
    platform_pair_close(ph);
}

TEST(PairCompanionAlive, ACompanionThatSomebodyElseReapedIsGoneAndItsStatusUnknown) {
    PairHandle *ph = start_ended(7);
    EXPECT_EQ(reap(ph->companion_pid), 7);
    EXPECT_EQ(platform_pair_companion_alive(ph), 0);
    EXPECT_EQ(platform_pair_child_exit_status(ph), 256);
    EXPECT_EQ(platform_pair_child_term_signal(ph), 0);
    platform_pair_close(ph);
}

TEST(PairCompanionAlive, AProcessThatIsNoChildCountsAsAlive) {
    PairHandle *ph = start();
    const pid_t child = ph->companion_pid;
    ph->companion_pid = getpid();
    EXPECT_EQ(platform_pair_companion_alive(ph), 1);
    EXPECT_EQ(platform_pair_child_exit_status(ph), 256);
    ph->companion_pid = child;
    EXPECT_EQ(finish(ph), kServed);
}

TEST(PairCompanionAlive, AFailedStartHasNoCompanion) {
    const ProcessCalls calls;
    PairHandle *ph = start_without_sockets();
    EXPECT_EQ(platform_pair_companion_alive(ph), 0);
    EXPECT_EQ(calls.waits, 0);
    platform_pair_close(ph);
}

TEST(PairCompanionAlive, AProcessThatDoesNotExistIsNotWaitedFor) {
    PairHandle *ph = start_without_sockets();
    ph->companion_pid = gone_process();
    const ProcessCalls calls;
    EXPECT_EQ(platform_pair_companion_alive(ph), 0);
    EXPECT_EQ(calls.waits, 0);
    platform_pair_close(ph);
}

TEST(PairCompanionAlive, AHybridParentWithoutANumberTakesItForAlive) {
    PairHandle *ph = start_without_sockets();
    ph->kind = 13;
    EXPECT_EQ(platform_pair_companion_alive(ph), 1);
    ph->companion_pid = gone_process();
    EXPECT_EQ(platform_pair_companion_alive(ph), 0) << "with a number it is looked for";
    platform_pair_close(ph);
}

TEST(PairCompanionAlive, ACompanionFindsItsParentByItsNumber) {
    const LocalPair pair;
    const ProcessCalls calls;
    EXPECT_EQ(platform_pair_companion_alive(pair.ph), 1);
    pair.ph->companion_pid = 0;
    EXPECT_EQ(platform_pair_companion_alive(pair.ph), 0);
    EXPECT_EQ(calls.waits, 0);
}

TEST(PairCompanionAlive, ACompanionMissesAParentThatIsGone) {
    const LocalPair pair;
    pair.ph->companion_pid = gone_process();
    EXPECT_EQ(platform_pair_companion_alive(pair.ph), 0);
}

TEST(PairCompanionAlive, AHybridCompanionAlwaysFindsItsParentAlive) {
    const LocalPair pair;
    pair.ph->companion_pid = gone_process();
    pair.ph->kind = 13;
    EXPECT_EQ(platform_pair_companion_alive(pair.ph), 1);
    pair.ph->kind = 10;
}

TEST(PairCompanionAlive, WithoutAFreeDescriptorNobodyIsFoundOrReaped) {
    const Outcome outcome = run_in_child([] {
        PairHandle *ph = start();
        rlimit limit = {};
        getrlimit(RLIMIT_NOFILE, &limit);
        const rlimit none = {.rlim_cur = 3, .rlim_max = limit.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
        const int without = platform_pair_companion_alive(ph);
        setrlimit(RLIMIT_NOFILE, &limit);
        printf("%d", without);
        printf("%d", platform_pair_companion_alive(ph));
        finish(ph);
    });
    EXPECT_EQ(outcome.out, "01");
}

TEST(PairKillChild, TheCompanionIsTerminatedAndReaped) {
    PairHandle *ph = start_running();
    const std::string termination = std::to_string(ph->companion_pid) + " " + std::to_string(SIGTERM);
    const ProcessCalls calls;
    EXPECT_EQ(platform_pair_kill_child(ph), 1);
    EXPECT_EQ(calls.signals, std::vector<std::string>{termination});
    EXPECT_FALSE(has_children());
    platform_pair_close(ph);
}

TEST(PairKillChild, TheOutcomeIsNotKept) {
    PairHandle *ph = start_running();
    EXPECT_EQ(platform_pair_kill_child(ph), 1);
    for (int question = 0; question < 2; ++question) {
        EXPECT_EQ(platform_pair_child_exit_status(ph), 256);
        EXPECT_EQ(platform_pair_child_term_signal(ph), 0);
        EXPECT_EQ(platform_pair_errno(ph), 0);
        EXPECT_EQ(platform_pair_companion_alive(ph), 0);
    }
    platform_pair_close(ph);
}

TEST(PairKillChild, ACompanionThatHasEndedIsReaped) {
    PairHandle *ph = start_ended(3);
    EXPECT_EQ(platform_pair_kill_child(ph), 1);
    EXPECT_FALSE(has_children());
    platform_pair_close(ph);
}

TEST(PairKillChild, ACompanionThatIsGoneCannotBeKilled) {
    PairHandle *ph = start_ended(3);
    reap(ph->companion_pid);
    const ProcessCalls calls;
    EXPECT_EQ(platform_pair_kill_child(ph), 0);
    EXPECT_EQ(calls.waits, 0);
    platform_pair_close(ph);
}

TEST(PairKillChild, ACompanionSendsNothing) {
    const LocalPair pair;
    const ProcessCalls calls;
    EXPECT_EQ(platform_pair_kill_child(pair.ph), 0);
    EXPECT_EQ(calls.signals, std::vector<std::string>{});
    EXPECT_EQ(calls.waits, 0);
}

TEST(PairKillChild, AFailedStartSignalsNobody) {
    PairHandle *ph = start_without_sockets();
    const ProcessCalls calls;
    EXPECT_EQ(platform_pair_kill_child(ph), 0);
    EXPECT_EQ(calls.signals, std::vector<std::string>{}) << "0 would be the whole process group";
    EXPECT_EQ(calls.waits, 0);
    platform_pair_close(ph);
}

TEST(PairKillChild, AnEndThatTheHandleHoldsSignalsNobody) {
    for (const int32_t how : {3, 0, -SIGKILL}) {
        PairHandle *ph = start_ended(how);
        EXPECT_EQ(platform_pair_companion_alive(ph), 0);
        const ProcessCalls calls;
        EXPECT_EQ(platform_pair_kill_child(ph), 0);
        EXPECT_EQ(calls.signals, std::vector<std::string>{}) << "the number may be somebody else's by now";
        EXPECT_EQ(calls.waits, 0);
        platform_pair_close(ph);
    }
}

TEST(PairKillChild, ASecondTimeNobodyIsSignalled) {
    PairHandle *ph = start_running();
    EXPECT_EQ(platform_pair_kill_child(ph), 1);
    const ProcessCalls calls;
    for (int again = 0; again < 3; ++again) {
        EXPECT_EQ(platform_pair_kill_child(ph), 0);
        EXPECT_EQ(platform_pair_child_exit_status(ph), 256);
        EXPECT_EQ(platform_pair_child_term_signal(ph), 0);
    }
    EXPECT_EQ(calls.signals, std::vector<std::string>{});
    EXPECT_EQ(calls.waits, 0);
    platform_pair_close(ph);
}

TEST(PairKillChild, WhichCompanionsHaveEndedIsKnownWithoutMemory) {
    PairHandle *first = start_running();
    PairHandle *second = start_running();
    {
        const Interposed failing(hook::malloc, fail_always(hook::malloc, ENOMEM, nullptr));
        EXPECT_EQ(platform_pair_kill_child(second), 1);
        EXPECT_EQ(platform_pair_kill_child(first), 1);
    }
    {
        const ProcessCalls calls;
        EXPECT_EQ(platform_pair_kill_child(second), 0);
        EXPECT_EQ(platform_pair_kill_child(first), 0);
        EXPECT_EQ(calls.signals, std::vector<std::string>{});
    }
    platform_pair_close(first);
    platform_pair_close(second);
}

TEST(PairKillChild, AParentThatIgnoresSigchldKnowsTheEndOfItsChild) {
    const Outcome outcome = run_in_child([] {
        signal(SIGCHLD, SIG_IGN);
        PairHandle *ph = start_running();
        const int first = platform_pair_kill_child(ph);
        const ProcessCalls calls;
        const int second = platform_pair_kill_child(ph);
        printf("%d %d %zu", first, second, calls.signals.size());
    });
    EXPECT_EQ(outcome.out, "1 0 0");
}

TEST(PairKillChild, AWaitThatFailedIsNoEnd) {
    PairHandle *ph = start_running();
    {
        const Interposed failing(hook::waitpid, fail_always(hook::waitpid, ECHILD, -1));
        const Interposed letting(hook::kill, [](pid_t, int) { return 0; });
        EXPECT_EQ(platform_pair_kill_child(ph), 1);
    }
    EXPECT_EQ(platform_pair_kill_child(ph), 1);
    EXPECT_FALSE(has_children());
    platform_pair_close(ph);
}

TEST(PairKillChild, AnotherCompanionOnAHandleOfTheSameAddressIsSignalled) {
    const Interposed ending(hook::waitpid, [](pid_t pid, int *, int) { return pid; });
    const Interposed letting(hook::kill, [](pid_t, int) { return 0; });
    for (int round = 0; round < 3; ++round) {
        PairHandle *ph = start_without_sockets();
        ph->companion_pid = 4711;
        EXPECT_EQ(platform_pair_kill_child(ph), 1) << round;
        EXPECT_EQ(platform_pair_kill_child(ph), 0) << round;
        ph->companion_pid = 4712;
        EXPECT_EQ(platform_pair_kill_child(ph), 1) << round;
        platform_pair_close(ph);
    }
}

TEST(PairKillChild, AsManyEndsAreKnownAsAProcessHasDescriptors) {
    const Outcome outcome = run_in_child([] {
        const Interposed ending(hook::waitpid, [](pid_t pid, int *, int) { return pid; });
        const Interposed letting(hook::kill, [](pid_t, int) { return 0; });
        constexpr size_t kKnown = zel::kKnownEnds;
        std::vector<PairHandle> handles(kKnown + 1, sample_record(1));
        for (PairHandle &ph : handles) {
            ph.self = &ph;
        }
        size_t killed = 0;
        for (size_t index = 0; index < kKnown; ++index) {
            killed += static_cast<size_t>(platform_pair_kill_child(&handles[index]));
        }
        for (size_t index = 0; index < kKnown; ++index) {
            killed += 10000 * static_cast<size_t>(platform_pair_kill_child(&handles[index]));
        }
        printf("%d ", killed == kKnown);
        // One more is known in place of the oldest.
        killed = static_cast<size_t>(platform_pair_kill_child(&handles[kKnown]));
        for (size_t index = 1; index <= kKnown; ++index) {
            killed += 10000 * static_cast<size_t>(platform_pair_kill_child(&handles[index]));
        }
        printf("%zu", killed);
    });
    EXPECT_EQ(outcome.out, "1 1");
}

TEST(PairClose, BothFieldsAreClosedThoughTheyHoldOneNumber) {
    EXPECT_EQ(closings_of(open_with_descriptors("pid-rtx_fd_l", 4711, 4711)), "close 4711;close 4711;");
    EXPECT_EQ(closings_of(open_with_descriptors("pid-rtx_fd", 4711, 4711)), "close 4711;close 4711;");
}

TEST(PairClose, TheReadDescriptorIsClosedFirst) {
    EXPECT_EQ(closings_of(open_with_descriptors("pid-rtx_fd_l", 4711, 4712)), "close 4711;close 4712;");
}

TEST(PairClose, AHybridReadDescriptorIsShutDownAndClosed) {
    EXPECT_EQ(closings_of(open_with_descriptors("pid-rtx_fd_w", 4711, 4711)), "shutdown 4711 both;close 4711;");
}

TEST(PairClose, TheHandleIsReleased) {
    PairHandle *ph = open_with_descriptors("pid-rtx_fd", -1, -1);
    std::vector<void *> released;
    released.reserve(16);
    const Interposed recorded(hook::free, [&released](void *block) {
        released.push_back(block);
        hook::free.real(block);
    });
    EXPECT_EQ(platform_pair_close(ph), 1);
    EXPECT_EQ(released, std::vector<void *>{ph});
}

TEST(PairClose, AClosedHandleIsNoLongerValid) {
    PairHandle *ph = open_with_descriptors("pid-rtx_fd", -1, -1);
    int valid = -1;
    {
        const Interposed looking(hook::free, [&valid](void *block) {
            valid = platform_pair_valid(static_cast<const PairHandle *>(block));
            hook::free.real(block);
        });
        platform_pair_close(ph);
    }
    EXPECT_EQ(valid, 0);
}

TEST(PairClose, TheCompanionIsNeitherWaitedForNorSignalled) {
    PairHandle *ph = start();
    const pid_t pid = ph->companion_pid;
    {
        const ProcessCalls calls;
        EXPECT_EQ(platform_pair_close(ph), 1);
        EXPECT_EQ(calls.waits, 0);
        EXPECT_EQ(calls.signals, std::vector<std::string>{});
    }
    EXPECT_EQ(reap(pid), kServed) << "it saw the end of the stream";
}

TEST(PairClose, AFailedStartCanBeClosed) {
    EXPECT_EQ(platform_pair_close(start_without_sockets()), 1);
}
