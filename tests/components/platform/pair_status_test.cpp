// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Whether the other side still lives, stopping it, and closing the handle.
#include "pair_support.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
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

TEST(PairKillChild, TheCompanionIsTerminatedAndReaped) {
    PairHandle *ph = start();
    EXPECT_TRUE(echoes(ph, 1)) << "it runs";
    const std::string termination = std::to_string(ph->companion_pid) + " " + std::to_string(SIGTERM);
    const ProcessCalls calls;
    EXPECT_EQ(platform_pair_kill_child(ph), 1);
    EXPECT_EQ(calls.signals, std::vector<std::string>{termination});
    EXPECT_FALSE(has_children());
    platform_pair_close(ph);
}

TEST(PairKillChild, TheOutcomeIsNotKept) {
    PairHandle *ph = start();
    EXPECT_TRUE(echoes(ph, 1)) << "it runs";
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
