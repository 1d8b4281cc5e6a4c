// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The parent's open: the handle, the companion, what it is started with.
#include "pair_support.h"

#include <cstddef>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

using namespace zel::test;
using Lines = std::vector<std::string>;

namespace {

constexpr const char *kUnitText = "components/platform/zel_pair_connection";

std::string expected_variable(int end) {
    return std::to_string(getpid()) + " " + std::to_string(end) + " pid-rtx_fd_l";
}

// Opens with as many arguments as the sequence has numbers.
template <size_t... Number>
PairHandle *open_with_list(std::index_sequence<Number...> /*numbers*/) {
    static const std::vector<std::string> arguments = {std::to_string(Number)...};
    return platform_pair_parent_open_lp(kPairVariable, 0, 1, companion_path("pair_reporter").c_str(), nullptr,
                                        arguments[Number].c_str()..., static_cast<char *>(nullptr));
}

int option_of(int fd, int name) {
    int value = -1;
    socklen_t length = sizeof value;
    getsockopt(fd, SOL_SOCKET, name, &value, &length);
    return value;
}

// The steps of an open with these descriptors, in the parent and in the child.
struct Steps {
    Lines parent;
    Lines child;
};

Steps steps_of_open(const Start &how) {
    Steps steps;
    PairHandle *ph = nullptr;
    {
        const RecordedOpen recorded;
        ph = start(how);
        wait_until_ended(ph->companion_pid);
        steps = {.parent = recorded.parent_steps(), .child = recorded.child_steps()};
    }
    EXPECT_EQ(finish(ph), kServed);
    return steps;
}

} // namespace

TEST(PairHandleRecord, IsTwelveWordsInTheirOrder) {
    EXPECT_EQ(sizeof(PairHandle), 10 * 4 + 2 * sizeof(void *));
    EXPECT_EQ(offsetof(PairHandle, companion_pid), 0u);
    EXPECT_EQ(offsetof(PairHandle, parent), 4u);
    EXPECT_EQ(offsetof(PairHandle, kind), 8u);
    EXPECT_EQ(offsetof(PairHandle, hybrid_environment), 12u);
    EXPECT_EQ(offsetof(PairHandle, blocking), 16u);
    EXPECT_EQ(offsetof(PairHandle, rx_fd), 20u);
    EXPECT_EQ(offsetof(PairHandle, tx_fd), 24u);
    EXPECT_EQ(offsetof(PairHandle, child_exit_status), 28u);
    EXPECT_EQ(offsetof(PairHandle, child_term_signal), 32u);
    EXPECT_EQ(offsetof(PairHandle, error_number), 36u);
    EXPECT_EQ(offsetof(PairHandle, error_text), 40u);
    EXPECT_EQ(offsetof(PairHandle, self), 40u + sizeof(void *));
}

TEST(PairParentOpen, AnOpenHandleHoldsTheCompanionAndTheParentsEnd) {
    pid_t forked = 0;
    PairHandle *ph = nullptr;
    {
        const Interposed recorded(hook::fork, [&forked] { return forked = hook::fork.real(); });
        ph = start({.blocking = 5});
    }
    EXPECT_EQ(ph->companion_pid, forked);
    EXPECT_EQ(ph->parent, 1);
    EXPECT_EQ(ph->kind, 12);
    EXPECT_EQ(ph->hybrid_environment, 0);
    EXPECT_EQ(ph->blocking, 5);
    EXPECT_GT(ph->rx_fd, 2);
    EXPECT_EQ(ph->tx_fd, ph->rx_fd);
    EXPECT_EQ(ph->child_exit_status, 256);
    EXPECT_EQ(ph->child_term_signal, 0);
    EXPECT_EQ(ph->error_number, 0);
    EXPECT_EQ(ph->error_text, nullptr);
    EXPECT_EQ(ph->self, ph);
    EXPECT_EQ(finish(ph), kServed);
}

TEST(PairParentOpen, ThePairIsAUnixStreamPair) {
    PairHandle *ph = start();
    EXPECT_EQ(option_of(ph->rx_fd, SO_DOMAIN), AF_UNIX);
    EXPECT_EQ(option_of(ph->rx_fd, SO_TYPE), SOCK_STREAM);
    EXPECT_EQ(finish(ph), kServed);
}

TEST(PairParentOpen, ValuesGoThereAndBack) {
    PairHandle *ph = start();
    EXPECT_TRUE(echoes(ph, 42));
    EXPECT_TRUE(echoes(ph, INT32_MIN));
    EXPECT_EQ(finish(ph), kServed);
}

TEST(PairParentOpen, TheProgramIsSearchedAlongThePath) {
    const std::string folder = companion_path("");
    const ScopedVariable path("PATH", "/nowhere:" + folder);
    PairHandle *ph = platform_pair_parent_open_lp(kPairVariable, 0, 1, "pair_echo", nullptr, "any name",
                                                  static_cast<char *>(nullptr));
    EXPECT_TRUE(echoes(ph, 1));
    EXPECT_EQ(finish(ph), kServed);
}

TEST(PairParentOpen, AListOfTextsIsTheArgumentVector) {
    PairHandle *ph = platform_pair_parent_open_lp(kPairVariable, 0, 1, companion_path("pair_reporter").c_str(), nullptr,
                                                  "its name", "", "two words", static_cast<char *>(nullptr));
    EXPECT_EQ(read_report(ph).arguments, (Lines{"its name", "", "two words"}));
    EXPECT_EQ(finish(ph), kServed);
}

TEST(PairParentOpen, AReadyVectorIsTheArgumentVector) {
    PairHandle *ph = start({.companion = "pair_reporter", .arguments = {"one", "", "three"}});
    EXPECT_EQ(read_report(ph).arguments, (Lines{"pair_reporter", "one", "", "three"}));
    EXPECT_EQ(finish(ph), kServed);
}

TEST(PairParentOpen, TwoHundredAndFiftySixTextsFit) {
    PairHandle *ph = open_with_list(std::make_index_sequence<256>());
    const Lines arguments = read_report(ph).arguments;
    ASSERT_EQ(arguments.size(), 256u);
    EXPECT_EQ(arguments.front(), "0");
    EXPECT_EQ(arguments.back(), "255");
    EXPECT_EQ(finish(ph), kServed);
}

TEST(PairParentOpen, TheTwoHundredAndFiftySeventhTextIsAnAssertion) {
    const Outcome outcome = run_in_child([] { open_with_list(std::make_index_sequence<257>()); });
    EXPECT_EQ(outcome.signal, SIGABRT);
    EXPECT_EQ(outcome.err, std::string(kUnitText) + ": platform_pair_parent_open_lp: Assertion `idx < 256' failed.\n");
}

TEST(PairParentOpen, AVectorMayBeLongerThanAList) {
    PairHandle *ph = start({.companion = "pair_reporter", .arguments = Lines(300, "more")});
    EXPECT_EQ(read_report(ph).arguments.size(), 301u);
    EXPECT_EQ(finish(ph), kServed);
}

TEST(PairParentOpen, TheVariableIsTheParentsNumberTheDescriptorAndTheTag) {
    PairHandle *ph = start({.companion = "pair_reporter"});
    const Report report = read_report(ph);
    EXPECT_GT(report.end, 2);
    EXPECT_EQ(report.variable, expected_variable(report.end));
    EXPECT_EQ(finish(ph), kServed);
}

TEST(PairParentOpen, TheCompanionHoldsTheSecondEndOfThePair) {
    int ends[2] = {-1, -1};
    const Interposed recorded(hook::socketpair, [&ends](int family, int type, int protocol, int *fds) {
        const int result = hook::socketpair.real(family, type, protocol, fds);
        ends[0] = fds[0];
        ends[1] = fds[1];
        return result;
    });
    PairHandle *ph = start({.companion = "pair_reporter"});
    EXPECT_EQ(ph->rx_fd, ends[0]);
    EXPECT_EQ(read_report(ph).end, ends[1]);
    EXPECT_EQ(finish(ph), kServed);
}

TEST(PairParentOpen, TheVariableIsSetInTheCompanionAlone) {
    const ScopedVariable variable(kPairVariable, "as it was");
    PairHandle *ph = start({.companion = "pair_reporter"});
    const Report report = read_report(ph);
    EXPECT_EQ(report.variable, expected_variable(report.end));
    EXPECT_STREQ(getenv(kPairVariable), "as it was");
    EXPECT_EQ(finish(ph), kServed);
}

TEST(PairParentOpen, ABlockingPairBlocksAtBothEnds) {
    PairHandle *ph = start({.companion = "pair_reporter", .blocking = 1});
    EXPECT_FALSE(is_nonblocking(ph->rx_fd));
    const Report report = read_report(ph);
    EXPECT_EQ(report.descriptors.at(report.end).substr(0, 10), "rw socket:");
    EXPECT_EQ(finish(ph), kServed);
}

TEST(PairParentOpen, ANonBlockingPairBlocksAtNeitherEnd) {
    PairHandle *ph = start({.companion = "pair_reporter", .blocking = 0});
    EXPECT_TRUE(is_nonblocking(ph->rx_fd));
    wait_until_ended(ph->companion_pid); // the whole report is there
    const Report report = read_report(ph);
    EXPECT_EQ(report.descriptors.at(report.end).substr(0, 11), "rwn socket:");
    EXPECT_EQ(finish(ph), kServed);
}

TEST(PairParentOpen, AModeThatCannotBeReadIsNotSet) {
    int set = 0;
    PairHandle *ph = nullptr;
    {
        const Interposed failing(hook::fcntl, [&set](int fd, int command, long argument) {
            if (command == F_GETFL) {
                errno = EIO;
                return -1;
            }
            set += command == F_SETFL ? 1 : 0;
            return hook::fcntl.real(fd, command, argument);
        });
        ph = start({.blocking = 0});
    }
    EXPECT_EQ(set, 0);
    EXPECT_EQ(platform_pair_errno(ph), 0);
    EXPECT_FALSE(is_nonblocking(ph->rx_fd));
    EXPECT_EQ(finish(ph), kServed);
}

TEST(PairParentOpen, TheParentsEndIsCloseOnExec) {
    PairHandle *ph = start();
    EXPECT_EQ(fcntl(ph->rx_fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(finish(ph), kServed);
}

TEST(PairParentOpen, TheCompanionInheritsItsEndAndNothingElseOfThePair) {
    std::set<int> expected = {0, 1, 2};
    for (const int fd : open_descriptors()) {
        if ((fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0) {
            expected.insert(fd);
        }
    }
    PairHandle *ph = start({.companion = "pair_reporter"});
    const Report report = read_report(ph);
    expected.insert(report.end);
    std::set<int> inherited;
    for (const auto &[fd, description] : report.descriptors) {
        inherited.insert(fd);
    }
    EXPECT_EQ(inherited, expected);
    EXPECT_EQ(finish(ph), kServed);
}

TEST(PairParentOpen, TheParentKeepsItsEndAlone) {
    const std::set<int> before = open_descriptors();
    PairHandle *ph = start();
    std::set<int> expected = before;
    expected.insert(ph->rx_fd);
    EXPECT_EQ(open_descriptors(), expected);
    EXPECT_EQ(finish(ph), kServed);
}

TEST(PairParentOpen, SigpipeIsIgnoredInTheParentWhenThatIsAsked) {
    const Outcome outcome = run_in_child([] {
        PairHandle *ph = start({.ignore_sigpipe = 1});
        raise(SIGPIPE);
        printf("companion: %d\n", finish(ph));
    });
    EXPECT_EQ(outcome.signal, 0);
    EXPECT_EQ(outcome.out, "companion: 0\n");
}

TEST(PairParentOpen, SigpipeStaysAsItWasOtherwise) {
    const Outcome outcome = run_in_child([] {
        const PairHandle *ph = start({.ignore_sigpipe = 0});
        kill(ph->companion_pid, SIGKILL);
        raise(SIGPIPE);
    });
    EXPECT_EQ(outcome.signal, SIGPIPE);
}

TEST(PairParentOpen, TheFirstCompanionDoesNotInheritTheIgnoredSignal) {
    const Outcome outcome = run_in_child([] {
        PairHandle *ph = start({.companion = "pair_ender", .ignore_sigpipe = 1});
        const int32_t by_sigpipe = -SIGPIPE;
        send_value(ph, by_sigpipe);
        exit(finish(ph) == by_sigpipe ? 0 : 1);
    });
    EXPECT_EQ(outcome.status, 0);
}

TEST(PairParentOpen, UntilTheProgramRunsASignalFindsTheParentsHandler) {
    const Outcome outcome = run_in_child([] {
        signal(SIGTERM, [](int) { dprintf(STDERR_FILENO, "handled "); });
        const int as_they_are[] = {0, 1, 2};
        const Interposed signalled(hook::execvp, [](const char *file, char *const *argv) {
            raise(SIGTERM);
            return hook::execvp.real(file, argv);
        });
        PairHandle *ph = start({.stdio_fds = as_they_are});
        dprintf(STDERR_FILENO, echoes(ph, 1) ? "and served" : "and ended");
        finish(ph);
    });
    EXPECT_EQ(outcome.err, "handled and served");
}

TEST(PairParentOpen, TheParentsStepsComeInTheirOrder) {
    const Outcome outcome = run_in_child([] {
        const int as_they_are[] = {0, 1, 2};
        const Steps steps =
            steps_of_open({.companion = "pair_reporter", .ignore_sigpipe = 1, .blocking = 0, .stdio_fds = as_they_are});
        for (const std::string &step : steps.parent) {
            printf("%s\n", step.c_str());
        }
    });
    EXPECT_EQ(outcome.out, "socketpair\nclose on exec end0\nflush all\nfork\nignore 13\nclose end1\nget mode of end0\n"
                           "do not block end0\n");
}

TEST(PairParentOpen, TheChildsStepsComeInTheirOrder) {
    const int as_they_are[] = {0, 1, 2};
    const Lines steps = steps_of_open({.companion = "pair_reporter", .blocking = 0, .stdio_fds = as_they_are}).child;
    ASSERT_EQ(steps.size(), 4u);
    EXPECT_EQ(steps[0], "close end0");
    EXPECT_EQ(steps[1], "get mode of end1");
    EXPECT_EQ(steps[2], "do not block end1");
    EXPECT_EQ(steps[3].substr(0, steps[3].rfind(" with ")), "execute " + companion_path("pair_reporter"));
    EXPECT_NE(steps[3].find("pid-rtx_fd_l"), std::string::npos) << "the variable is there before the program";
}

TEST(PairParentOpen, TheParentsNumberIsTakenBeforeTheFork) {
    // The child, asked in between, would answer with its own number.
    const std::string parent = std::to_string(getpid());
    const Lines steps = steps_of_open({.companion = "pair_reporter"}).child;
    const std::string last = steps.back();
    EXPECT_EQ(last.substr(last.rfind(" with ") + 6, parent.size() + 1), parent + " ");
}

TEST(PairParentOpen, AProgramThatCannotBeExecutedIsAChildThatExitsWithOne) {
    PairHandle *ph = start_missing();
    EXPECT_EQ(platform_pair_ok(ph), 1);
    EXPECT_EQ(ph->error_text, nullptr);
    wait_until_ended(ph->companion_pid);
    EXPECT_EQ(platform_pair_companion_alive(ph), 0);
    EXPECT_EQ(platform_pair_child_exit_status(ph), 1);
    EXPECT_EQ(platform_pair_child_term_signal(ph), 0);
    platform_pair_close(ph);
}

TEST(PairParentOpen, BufferedOutputIsPrintedOnceThoughTheChildExits) {
    const Outcome outcome = run_in_child([] {
        const int as_they_are[] = {0, 1, 2};
        printf("once, ");
        finish(start_missing(as_they_are));
        printf("and then on\n");
    });
    EXPECT_EQ(outcome.out, "once, and then on\n");
}

TEST(PairParentOpen, ABufferedFileIsWrittenOnceThoughTheChildExits) {
    const ScopedVariable none(kPairVariable, std::nullopt);
    const ScratchFolder folder;
    const std::string path = folder.path + "/file";
    FILE *file = fopen(path.c_str(), "w");
    fputs("once", file);
    EXPECT_EQ(finish(start_missing()), 1);
    fclose(file);
    EXPECT_EQ(read_file(path), "once");
}

TEST(PairParentOpen, FlushingLeavesErrnoAsItWas) {
    int seen = 0;
    const Interposed disturbing(hook::fflush, [](FILE *stream) {
        const int result = hook::fflush.real(stream);
        errno = EIO;
        return result;
    });
    const Interposed looking(hook::fork, [&seen] {
        seen = errno;
        return hook::fork.real();
    });
    errno = E2BIG;
    PairHandle *ph = start();
    EXPECT_EQ(seen, E2BIG);
    EXPECT_EQ(finish(ph), kServed);
}
