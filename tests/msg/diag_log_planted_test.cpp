// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The diagnostic log when something else has its name, and when a step of its opening
// fails.
#include "diag_log_support.h"

#include <msg/diag_log.h>
#include <msg/msg.h>
#include <support/census.h>
#include <support/child.h>
#include <support/files.h>
#include <support/interpose.h>

#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

using namespace zel::test;

namespace {

void check(bool done) {
    if (!done) {
        exit(2);
    }
}

int first_descriptor() {
    return fileno(_msg_get_stream_desc(MSG_DIAG)->streams[0]);
}

constexpr const char *kRefused = "0 streams, nothing open";

struct DiagLogPlanted : testing::Test {
    // The report of a process whose log finds something under its name: the number of its
    // diagnostic streams, and whether a new descriptor is open.
    Outcome open_behind(const std::function<void(const std::string &)> &plant) const {
        return run_in_child([&] {
            plant(log_in(a.path));
            const std::set<int> before = open_descriptors();
            msg_open_diag_log(a.path.c_str());
            msg_diag("a line\n");
            printf("%d streams, %s", diagnostic_streams(), open_descriptors() == before ? "nothing open" : "open");
        });
    }

    // The same where an older log stands, then the contents of that log. The replacement
    // is in place while the log is opened.
    template <typename Function, typename Replacement>
    std::string open_older_with(Hook<Function> &hook, Replacement replacement) const {
        return run_in_child([&] {
                   write_file(log_in(a.path), "older");
                   const std::set<int> before = open_descriptors();
                   {
                       const Interposed replaced(hook, replacement);
                       msg_open_diag_log(a.path.c_str());
                   }
                   printf("%d streams, %s, ", diagnostic_streams(),
                          open_descriptors() == before ? "nothing open" : "open");
                   printf("%s", read_file(log_in(a.path)).c_str());
               })
            .out;
    }

    ScratchFolder a;
    std::string other = a.path + "/other";
};

} // namespace

TEST_F(DiagLogPlanted, ALinkIsNotFollowed) {
    write_file(other, "somebody's");
    const Outcome outcome =
        open_behind([this](const std::string &log) { check(symlink(other.c_str(), log.c_str()) == 0); });
    EXPECT_EQ(outcome.out, kRefused);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(read_file(other), "somebody's");
}

TEST_F(DiagLogPlanted, ALinkThatPointsNowhereCreatesNothing) {
    const Outcome outcome =
        open_behind([this](const std::string &log) { check(symlink(other.c_str(), log.c_str()) == 0); });
    EXPECT_EQ(outcome.out, kRefused);
    EXPECT_FALSE(exists(other));
}

TEST_F(DiagLogPlanted, AFifoDoesNotHoldTheProgramUp) {
    const Outcome outcome = open_behind([](const std::string &log) {
        alarm(10);
        check(mkfifo(log.c_str(), 0666) == 0);
    });
    EXPECT_EQ(outcome.out, kRefused);
    EXPECT_EQ(outcome.status, 0);
}

TEST_F(DiagLogPlanted, AFifoThatSomebodyReadsIsNotWrittenTo) {
    const Outcome outcome = open_behind([](const std::string &log) {
        check(mkfifo(log.c_str(), 0666) == 0 && open(log.c_str(), O_RDONLY | O_NONBLOCK) != -1);
    });
    EXPECT_EQ(outcome.out, kRefused);
}

TEST_F(DiagLogPlanted, AFileWithASecondLinkIsLeftAlone) {
    write_file(other, "somebody's");
    const Outcome outcome =
        open_behind([this](const std::string &log) { check(link(other.c_str(), log.c_str()) == 0); });
    EXPECT_EQ(outcome.out, kRefused);
    EXPECT_EQ(read_file(other), "somebody's");
}

TEST_F(DiagLogPlanted, ADirectoryIsLeftAlone) {
    EXPECT_EQ(open_behind([](const std::string &log) { check(mkdir(log.c_str(), 0755) == 0); }).out, kRefused);
}

TEST_F(DiagLogPlanted, AFileOfAnotherUserIsLeftAlone) {
    const auto of_another_user = [](int fd, struct stat *status) {
        const int result = hook::fstat.real(fd, status);
        ++status->st_uid;
        return result;
    };
    EXPECT_EQ(open_older_with(hook::fstat, of_another_user), "0 streams, nothing open, older");
}

TEST_F(DiagLogPlanted, OnlyAFreeNameOrAFileThatWasLookedAtIsTaken) {
    const Outcome outcome = run_in_child([this] {
        const Interposed opening(hook::open, [](const char *path, int flags, mode_t mode) {
            constexpr int kCreate = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
            constexpr int kExisting = O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
            const bool create = flags == kCreate && mode == 0666;
            printf("%s ", create ? "create" : flags == kExisting ? "existing" : "?");
            return hook::open.real(path, flags, mode);
        });
        const Interposed looking(hook::fstat, [](int fd, struct stat *status) {
            printf("look ");
            return hook::fstat.real(fd, status);
        });
        const Interposed emptying(hook::ftruncate, [](int fd, off_t length) {
            printf("empty ");
            return hook::ftruncate.real(fd, length);
        });
        const Interposed setting(hook::fcntl, [](int fd, int command, long argument) {
            printf("%s", command == F_SETFL ? "wait " : "");
            return hook::fcntl.real(fd, command, argument);
        });
        const Interposed making(hook::fdopen, [](int fd, const char *mode) {
            printf("make %s ", mode);
            return hook::fdopen.real(fd, mode);
        });
        msg_open_diag_log(a.path.c_str());
        printf("| ");
        msg_open_diag_log(a.path.c_str());
        printf("%s", (fcntl(first_descriptor(), F_GETFL) & O_NONBLOCK) == 0 ? "blocking" : "?");
    });
    EXPECT_EQ(outcome.out, "create make w | create existing look empty wait make w blocking");
}

TEST_F(DiagLogPlanted, AStepThatFailsBeforeTheFileIsEmptiedLosesNothing) {
    const std::string refused = "0 streams, nothing open, older";
    EXPECT_EQ(open_older_with(hook::open, fail_nth(hook::open, 0, EACCES, -1)), refused);
    EXPECT_EQ(open_older_with(hook::open, fail_nth(hook::open, 1, ENOENT, -1)), refused);
    EXPECT_EQ(open_older_with(hook::fstat, fail_always(hook::fstat, EIO, -1)), refused);
    EXPECT_EQ(open_older_with(hook::ftruncate, fail_always(hook::ftruncate, EIO, -1)), refused);
}

TEST_F(DiagLogPlanted, AStepThatFailsAfterTheOpeningLeavesNothingOpen) {
    const std::string refused = "0 streams, nothing open, ";
    EXPECT_EQ(open_older_with(hook::fcntl, fail_always(hook::fcntl, EINVAL, -1)), refused);
    EXPECT_EQ(open_older_with(hook::fdopen, fail_always(hook::fdopen, ENOMEM, nullptr)), refused);
}

TEST_F(DiagLogPlanted, TheLogStandsAboveTheStandardDescriptors) {
    for (const bool older : {false, true}) {
        const Outcome outcome = run_in_child([this, older] {
            if (older) {
                write_file(log_in(a.path), "older");
            }
            close(STDIN_FILENO);
            close(STDOUT_FILENO);
            msg_open_diag_log(a.path.c_str());
            const int fd = first_descriptor();
            const bool inherited = (fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0;
            const bool closed = fcntl(STDIN_FILENO, F_GETFD) == -1 && fcntl(STDOUT_FILENO, F_GETFD) == -1;
            dprintf(STDERR_FILENO, "%d%d%d", fd > STDERR_FILENO ? 1 : 0, inherited ? 1 : 0, closed ? 1 : 0);
        });
        EXPECT_EQ(outcome.err, "101");
    }
}

TEST_F(DiagLogPlanted, ProgramsInheritNeitherANewLogNorAnOlderOne) {
    for (const bool older : {false, true}) {
        const Outcome outcome = run_in_child([this, older] {
            if (older) {
                write_file(log_in(a.path), "older");
            }
            msg_open_diag_log(a.path.c_str());
            printf("%s", (fcntl(first_descriptor(), F_GETFD) & FD_CLOEXEC) != 0 ? "close-on-exec" : "inherited");
        });
        EXPECT_EQ(outcome.out, "close-on-exec");
    }
}

TEST_F(DiagLogPlanted, WithoutADescriptorAboveTheStandardOnesThereIsNoLog) {
    const Outcome outcome = run_in_child([this] {
        close(STDIN_FILENO);
        const Interposed failing(hook::fcntl, fail_always(hook::fcntl, EMFILE, -1));
        msg_open_diag_log(a.path.c_str());
        printf("%d streams, %s", diagnostic_streams(), dup(STDOUT_FILENO) == STDIN_FILENO ? "closed" : "open");
    });
    EXPECT_EQ(outcome.out, "0 streams, closed");
}

TEST_F(DiagLogPlanted, ANewFileHasTheRightsThatTheMaskLeaves) {
    const Outcome outcome = run_in_child([this] {
        umask(0027);
        msg_open_diag_log(a.path.c_str());
        struct stat status = {};
        fstat(first_descriptor(), &status);
        printf("%o", status.st_mode & 0777);
    });
    EXPECT_EQ(outcome.out, "640");
}
