// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Why a companion could not be executed, as its parent learns it.
#include "spawn_support.h"

#include <msg/base/limits.h>

#include <csignal>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

using namespace zel::test;

namespace {

PairHandle *open_program(const std::string &file) {
    return platform_pair_parent_open_lp(kPairVariable, 0, 1, file.c_str(), nullptr, "name",
                                        static_cast<char *>(nullptr));
}

// The error of a program, once it has ended.
int32_t error_of(const std::string &file) {
    PairHandle *ph = open_program(file);
    EXPECT_EQ(platform_pair_ok(ph), 1) << "the handle stays healthy";
    EXPECT_EQ(reap(ph->companion_pid), 1);
    const int32_t error = platform_pair_exec_error(ph);
    platform_pair_close(ph);
    return error;
}

// Handles that have all the places for reports.
std::vector<PairHandle *> take_all_places() {
    std::vector<PairHandle *> handles;
    PlatformPairSpawnOptions refused = {};
    for (size_t count = 0; count < zel::kExecReports; ++count) {
        handles.push_back(spawn("none", {"none"}, &refused));
    }
    return handles;
}

void close_all(const std::vector<PairHandle *> &handles) {
    for (PairHandle *ph : handles) {
        platform_pair_close(ph);
    }
}

} // namespace

TEST(PairExecError, TheErrorOfEachProgramIsKnownOnceItHasEnded) {
    EXPECT_EQ(error_of("/nowhere/to/be/found"), ENOENT);
    EXPECT_EQ(error_of("no-such-program-anywhere"), ENOENT);
    EXPECT_EQ(error_of("/"), EACCES);
    EXPECT_EQ(error_of("/dev/null/below"), ENOTDIR);
}

TEST(PairExecError, TheErrorIsKnownWhenTheStreamHasEnded) {
    PairHandle *ph = start_missing();
    char byte;
    EXPECT_EQ(platform_pair_recv(ph, &byte, 1), 0);
    EXPECT_EQ(platform_pair_exec_error(ph), ENOENT);
    EXPECT_EQ(finish(ph), 1);
}

TEST(PairExecError, AProgramThatRunsHasNone) {
    PairHandle *ph = start();
    EXPECT_EQ(platform_pair_exec_error(ph), 0);
    EXPECT_TRUE(echoes(ph, 4));
    EXPECT_EQ(platform_pair_exec_error(ph), 0);
    EXPECT_EQ(finish(ph), kServed);
}

TEST(PairExecError, AProgramThatEndsWithOneHasNone) {
    PairHandle *ph =
        platform_pair_parent_open_lp(kPairVariable, 0, 1, "false", nullptr, "false", static_cast<char *>(nullptr));
    EXPECT_EQ(reap(ph->companion_pid), 1);
    EXPECT_EQ(platform_pair_exec_error(ph), 0);
    platform_pair_close(ph);
}

TEST(PairExecError, FailedTransfersDoNotChangeIt) {
    PairHandle *ph = start_missing();
    EXPECT_EQ(reap(ph->companion_pid), 1);
    char byte;
    EXPECT_EQ(platform_pair_recv(ph, &byte, -1), 0);
    EXPECT_EQ(ph->error_number, EINVAL);
    EXPECT_EQ(platform_pair_exec_error(ph), ENOENT);
    platform_pair_close(ph);
}

TEST(PairExecError, StandardDescriptorsWithoutRoomAreKnownToo) {
    const Interposed failing(hook::dup2, fail_always(hook::dup2, EMFILE, -1));
    PairHandle *ph = start();
    EXPECT_EQ(reap(ph->companion_pid), 1);
    EXPECT_EQ(platform_pair_exec_error(ph), EMFILE);
    platform_pair_close(ph);
}

TEST(PairExecError, AHandleWithoutACompanionHasNone) {
    PairHandle *ph = start_without_sockets();
    EXPECT_EQ(platform_pair_exec_error(ph), 0);
    platform_pair_close(ph);
    const LocalPair companions;
    EXPECT_EQ(platform_pair_exec_error(companions.ph), 0);
}

TEST(PairExecError, ADamagedHandleIsAnAssertion) {
    PairHandle record = sample_record(1);
    const Outcome outcome = run_in_child([&record] { platform_pair_exec_error(&record); });
    EXPECT_EQ(outcome.signal, SIGABRT);
    EXPECT_NE(outcome.err.find("platform_pair_exec_error: Assertion `platform_pair_valid(ph)' failed."),
              std::string::npos)
        << outcome.err;
}

TEST(PairExecError, NoDescriptorIsTakenForIt) {
    const std::set<int> before = open_descriptors();
    PairHandle *ph = start();
    EXPECT_EQ(open_descriptors().size(), before.size() + 1) << "its end of the pair";
    EXPECT_EQ(finish(ph), kServed);
}

TEST(PairExecError, WithEveryPlaceTakenItStaysUnknown) {
    std::vector<PairHandle *> handles = take_all_places();
    PairHandle *ph = start_missing();
    EXPECT_EQ(reap(ph->companion_pid), 1);
    EXPECT_EQ(platform_pair_exec_error(ph), 0);
    platform_pair_close(ph);
    platform_pair_close(handles.back());
    handles.pop_back();
    EXPECT_EQ(error_of("/nowhere"), ENOENT) << "a closed handle gives its place back";
    close_all(handles);
}

TEST(PairExecError, ASpawnLearnsOfItsProgramWithEveryPlaceTaken) {
    const std::vector<PairHandle *> handles = take_all_places();
    PairHandle *ph = spawn("/nowhere", {"nowhere"});
    EXPECT_EQ(platform_pair_exec_error(ph), 0);
    expect_failed_start(ph, ENOENT);
    close_all(handles);
}

// first    the companion of a handle that is closed already; it fails when it is told to
// second   has the place of the first
TEST(PairExecError, ALateCompanionOfAnEarlierHandleIsNotBelieved) {
    int wake[2];
    ASSERT_EQ(pipe2(wake, O_CLOEXEC), 0);
    pid_t late = 0;
    {
        const Interposed waiting(hook::execvp, [&wake](const char *file, char *const *argv) {
            char byte;
            hook::read.real(wake[0], &byte, 1);
            return hook::execvp.real(file, argv);
        });
        PairHandle *first = start_missing();
        late = first->companion_pid;
        platform_pair_close(first);
    }
    PairHandle *second = start();
    ASSERT_EQ(write(wake[1], "x", 1), 1);
    EXPECT_EQ(reap(late), 1);
    EXPECT_EQ(platform_pair_exec_error(second), 0);
    EXPECT_TRUE(echoes(second, 8));
    EXPECT_EQ(finish(second), kServed);
    close(wake[0]);
    close(wake[1]);
}

TEST(PairExecError, AReportIsNotFoundByTheNextHandle) {
    EXPECT_EQ(error_of("/nowhere"), ENOENT);
    PairHandle *ph = spawn("/nowhere", {"nowhere"});
    platform_pair_close(ph);
    ph = start_without_sockets();
    EXPECT_EQ(platform_pair_exec_error(ph), 0);
    platform_pair_close(ph);
    const Interposed failing(hook::clone, fail_always(hook::clone, ENOMEM, -1));
    ph = spawn_companion("pair_echo");
    EXPECT_EQ(platform_pair_exec_error(ph), 0);
    platform_pair_close(ph);
}

TEST(PairExecError, AForkedProcessDoesNotMisleadItsParent) {
    PairHandle *ph = start();
    const Outcome outcome = run_in_child([ph] {
        platform_pair_close(ph); // the place is free in this process
        printf("%d", error_of("/nowhere"));
    });
    EXPECT_EQ(outcome.out, std::to_string(ENOENT));
    EXPECT_EQ(platform_pair_exec_error(ph), 0);
    EXPECT_TRUE(echoes(ph, 6));
    EXPECT_EQ(finish(ph), kServed);
}
