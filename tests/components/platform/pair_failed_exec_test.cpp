// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A companion that cannot be executed leaves by exit, in a process that shares its open files with the parent.
#include "pair_support.h"

#include <cstdlib>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

using namespace zel::test;

namespace {

constexpr int kAsTheyAre[] = {0, 1, 2};
constexpr int kLines = 3000;

// A file of numbered lines, longer than what a stream reads at once.
struct LongFile {
    LongFile() {
        std::string text;
        for (int line = 0; line < kLines; ++line) {
            text += "line " + std::to_string(line) + "\n";
        }
        write_file(path, text);
    }

    ScratchFolder folder;
    std::string path = folder.path + "/lines";
};

int read_lines(FILE *stream, int limit) {
    char line[64];
    int count = 0;
    while (count < limit && fgets(line, sizeof line, stream) != nullptr) {
        ++count;
    }
    return count;
}

// The lines that a reader gets in all when a companion fails to start after some of them.
int lines_around_failed_start(FILE *stream, int before) {
    int count = read_lines(stream, before);
    EXPECT_EQ(finish(start_missing(kAsTheyAre)), 1);
    count += read_lines(stream, 2 * kLines);
    fclose(stream);
    return count;
}

// Where a missing companion leaves the position of a new description on the file.
off_t position_after_failed_start(const LongFile &file, const char *mode) {
    FILE *stream = fopen(file.path.c_str(), mode);
    fseek(stream, 0, SEEK_SET);
    read_lines(stream, 10);
    const off_t before = lseek(fileno(stream), 0, SEEK_CUR);
    EXPECT_EQ(finish(start_missing(kAsTheyAre)), 1);
    const off_t moved = lseek(fileno(stream), 0, SEEK_CUR) - before;
    fclose(stream);
    return moved;
}

// The output of the exit handler of a missing companion, in a process that the body prepares.
std::string said_by_handler(const std::function<void()> &prepare, void (*handler)()) {
    int out[2];
    EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
    const Outcome outcome = run_in_child([&] {
        dup2(out[1], STDOUT_FILENO);
        prepare();
        atexit(handler);
        finish(start_missing(kAsTheyAre));
        _exit(0);
    });
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    close(out[1]);
    char text[4096];
    const ssize_t length = read(out[0], text, sizeof text);
    close(out[0]);
    return {text, length < 0 ? 0 : static_cast<size_t>(length)};
}

void say_descriptors_from_30_to_38() {
    for (int fd = 30; fd <= 38; ++fd) {
        const std::string target = target_of(fd);
        dprintf(STDOUT_FILENO, "%d %s;", fd, target.substr(0, target.find(':')).c_str());
    }
}

// The number of the next file that is opened here.
void say_next_number() {
    dprintf(STDOUT_FILENO, "%d", open("/", O_RDONLY | O_CLOEXEC));
}

// Takes every free descriptor but so many.
void take_descriptors_but(int free) {
    const rlimit limit = {.rlim_cur = 64, .rlim_max = 64};
    setrlimit(RLIMIT_NOFILE, &limit);
    int last = open("/", O_PATH | O_CLOEXEC);
    for (int fd = last; fd != -1; fd = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3)) {
        last = fd;
    }
    for (; free > 0; --free) {
        close(last--);
    }
}

// How a reporter ends that is started with so many free descriptors, two of them for the pair.
int end_with_free_descriptors(int free, const int *stdio_fds) {
    const Outcome outcome = run_in_child([free, stdio_fds] {
        take_descriptors_but(free);
        PairHandle *ph = start({.companion = "pair_reporter", .stdio_fds = stdio_fds});
        char byte;
        const bool sent = platform_pair_recv(ph, &byte, 1) != 0;
        const int status = finish(ph);
        _exit(sent ? 100 + status : status);
    });
    EXPECT_EQ(outcome.out + outcome.err, "");
    return outcome.status;
}

// An open that finds no such file.
std::function<int(const char *, int, mode_t)> hide(const std::string &hidden) {
    return [hidden](const char *path, int flags, mode_t mode) {
        if (path == hidden) {
            errno = ENOENT;
            return -1;
        }
        return hook::open.real(path, flags, mode);
    };
}

} // namespace

TEST(PairFailedExec, AParentReadsItsFileOnWhereItWas) {
    const LongFile file;
    EXPECT_EQ(lines_around_failed_start(fopen(file.path.c_str(), "r"), 10), kLines);
}

TEST(PairFailedExec, AParentReadsItsStandardInputOnWhereItWas) {
    const LongFile file;
    const Outcome outcome = run_in_child([&file] {
        dup2(open(file.path.c_str(), O_RDONLY | O_CLOEXEC), STDIN_FILENO);
        dprintf(STDERR_FILENO, "%d", lines_around_failed_start(stdin, 10));
    });
    EXPECT_EQ(outcome.err, std::to_string(kLines));
}

TEST(PairFailedExec, WithTheNullDeviceForTheCompanionTheParentReadsOn) {
    const LongFile file;
    const Outcome outcome = run_in_child([&file] {
        dup2(open(file.path.c_str(), O_RDONLY | O_CLOEXEC), STDIN_FILENO);
        FILE *stream = fopen(file.path.c_str(), "r");
        int count = read_lines(stdin, 10) + read_lines(stream, 20);
        finish(start_missing());
        count += read_lines(stdin, 2 * kLines) + read_lines(stream, 2 * kLines);
        dprintf(STDERR_FILENO, "%d", count);
        fclose(stream);
    });
    EXPECT_EQ(outcome.err, std::to_string(2 * kLines));
}

TEST(PairFailedExec, ManyStreamsAreReadOnEach) {
    const LongFile file;
    std::vector<FILE *> streams;
    for (int count = 0; count < 200; ++count) {
        streams.push_back(fopen(file.path.c_str(), "r"));
        read_lines(streams.back(), count + 1);
    }
    EXPECT_EQ(finish(start_missing()), 1);
    for (int count = 0; count < 200; ++count) {
        FILE *stream = streams[static_cast<size_t>(count)];
        EXPECT_EQ(read_lines(stream, 2 * kLines), kLines - count - 1);
        fclose(stream);
    }
}

TEST(PairFailedExec, AStreamThatWasReadWholeOrNotAtAllStaysThere) {
    const LongFile file;
    EXPECT_EQ(lines_around_failed_start(fopen(file.path.c_str(), "r"), 0), kLines);
    EXPECT_EQ(lines_around_failed_start(fopen(file.path.c_str(), "r"), 2 * kLines), kLines);
}

TEST(PairFailedExec, TheSharedPositionMovesInNoModeThatReads) {
    const LongFile file;
    EXPECT_EQ(position_after_failed_start(file, "r"), 0);
    EXPECT_EQ(position_after_failed_start(file, "r+"), 0);
    EXPECT_EQ(position_after_failed_start(file, "a+"), 0);
}

TEST(PairFailedExec, OnlyWhatIsReadAndHasAPositionBecomesTheNullDevice) {
    const LongFile file;
    const std::string said = said_by_handler(
        [&file] {
            int pipes[2];
            int sockets[2];
            dup2(open(file.path.c_str(), O_RDONLY), 30);
            dup2(open(file.path.c_str(), O_RDWR), 31);
            dup2(open(file.path.c_str(), O_RDWR | O_APPEND), 32);
            dup2(open(file.path.c_str(), O_WRONLY), 33);
            dup2(open(file.path.c_str(), O_WRONLY | O_APPEND), 34);
            dup2(open(file.path.c_str(), O_PATH), 35);
            if (pipe(pipes) != 0 || socketpair(AF_UNIX, SOCK_STREAM, 0, sockets) != 0) {
                _exit(2);
            }
            dup2(pipes[0], 36);
            dup2(pipes[1], 37);
            dup2(sockets[0], 38);
        },
        say_descriptors_from_30_to_38);
    const std::string lines = file.path;
    EXPECT_EQ(said, "30 /dev/null;31 /dev/null;32 /dev/null;33 " + lines + ";34 " + lines + ";35 " + lines +
                        ";36 pipe;37 pipe;38 socket;");
}

TEST(PairFailedExec, ExitHandlersStillPrint) {
    const ScratchFolder folder;
    const std::string path = folder.path + "/out";
    run_in_child([&path] {
        dup2(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644), STDOUT_FILENO);
        atexit([] { printf("handled\n"); });
        finish(start_missing(kAsTheyAre));
        _exit(0);
    });
    EXPECT_EQ(read_file(path), "handled\n");
}

TEST(PairFailedExec, NoFileOfAHandlerTakesAStandardNumber) {
    const LongFile file;
    const std::string said = said_by_handler(
        [&file] {
            dup2(open(file.path.c_str(), O_RDWR | O_CLOEXEC), STDIN_FILENO);
            dup2(STDIN_FILENO, STDERR_FILENO);
        },
        say_next_number);
    EXPECT_GE(std::stoi(said), 3);
}

TEST(PairFailedExec, TheLimitOfDescriptorsIsNotCountedUpTo) {
    const LongFile file;
    rlimit before = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit limit = {.rlim_cur = before.rlim_max, .rlim_max = before.rlim_max};
    const Outcome outcome = run_in_child([&] {
        setrlimit(RLIMIT_NOFILE, &limit);
        StepLog calls; // the child and its own one
        const Interposed counted(hook::fcntl, [&calls](int fd, int command, long argument) {
            calls.add("call");
            return hook::fcntl.real(fd, command, argument);
        });
        finish(start_missing(kAsTheyAre));
        dprintf(STDERR_FILENO, "%d", calls.of_child().size() < 100);
    });
    EXPECT_EQ(outcome.err, "1");
}

TEST(PairFailedExec, WithEveryDescriptorTakenNothingIsLost) {
    const LongFile file;
    for (int free = 2; free < 5; ++free) {
        SCOPED_TRACE(free);
        const std::string said = said_by_handler(
            [&file, free] {
                dup2(open(file.path.c_str(), O_RDONLY | O_CLOEXEC), STDIN_FILENO);
                take_descriptors_but(free);
                read_lines(stdin, 10);
            },
            say_next_number);
        EXPECT_GE(std::stoi(said), 3);
    }
}

TEST(PairFailedExec, WithoutProcReadableDescriptorsBecomeTheNullDevice) {
    const LongFile file;
    const std::string said = said_by_handler(
        [&file] {
            dup2(open(file.path.c_str(), O_RDONLY | O_CLOEXEC), STDIN_FILENO);
            dup2(STDIN_FILENO, 3000);
            static const Interposed hidden(hook::open, hide("/proc/self/fd"));
        },
        [] { dprintf(STDOUT_FILENO, "%s %s", target_of(0).c_str(), target_of(3000).c_str()); });
    EXPECT_EQ(said, "/dev/null /dev/null");
}

TEST(PairFailedExec, WithoutTheNullDeviceWhatQualifiesIsClosed) {
    const LongFile file;
    const std::string said = said_by_handler(
        [&file] {
            dup2(open(file.path.c_str(), O_RDONLY | O_CLOEXEC), STDIN_FILENO);
            dup2(open(file.path.c_str(), O_WRONLY | O_CLOEXEC), STDERR_FILENO);
            static const Interposed hidden(hook::open, hide("/dev/null"));
        },
        [] { dprintf(STDOUT_FILENO, "%d %d", fcntl(0, F_GETFD), fcntl(2, F_GETFD)); });
    EXPECT_EQ(said, "-1 0");
}

TEST(PairFailedStart, WithoutADescriptorForTheNullDeviceTheCompanionLeavesWithOne) {
    EXPECT_EQ(end_with_free_descriptors(2, nullptr), 1) << "none for its input";
    EXPECT_EQ(end_with_free_descriptors(3, nullptr), 1) << "none for its output";
    EXPECT_EQ(end_with_free_descriptors(5, nullptr), 100 + kServed) << "one more to list the others";
}

TEST(PairFailedStart, WhereTheNullDeviceCannotStandTheCompanionLeavesWithOne) {
    for (int nth = 0; nth < 3; ++nth) {
        const Interposed failing(hook::dup2, fail_nth(hook::dup2, nth, EBADF, -1));
        EXPECT_EQ(finish(start()), 1) << nth;
    }
    for (int nth = 0; nth < 2; ++nth) {
        const Interposed failing(hook::fopen, fail_nth(hook::fopen, nth, EMFILE, nullptr));
        EXPECT_EQ(finish(start()), 1) << nth;
    }
}

TEST(PairFailedStart, AnEntryThatFindsNoRoomForItsCopyEndsTheCompanion) {
    const int swapped[] = {0, 2, 1};
    EXPECT_EQ(end_with_free_descriptors(2, swapped), 1);
    EXPECT_EQ(end_with_free_descriptors(3, swapped), 1);
    EXPECT_EQ(end_with_free_descriptors(4, swapped), 100 + kServed);
}

TEST(PairFailedStart, ACompanionWithoutStandardsLeavesAsAfterAFailedExec) {
    const LongFile file;
    const Outcome outcome = run_in_child([&file] {
        dup2(open("/proc/self/fd/2", O_WRONLY | O_APPEND), STDERR_FILENO);
        FILE *stream = fopen(file.path.c_str(), "r");
        const int before = read_lines(stream, 10);
        const Interposed failing(hook::fopen, fail_always(hook::fopen, EMFILE, nullptr));
        atexit([] { write(STDERR_FILENO, "handled ", 8); });
        finish(start());
        dprintf(STDERR_FILENO, "%d", before + read_lines(stream, 2 * kLines));
        _exit(0);
    });
    EXPECT_EQ(outcome.err, "handled " + std::to_string(kLines));
}
