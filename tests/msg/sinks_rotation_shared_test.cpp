// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Logs of limited size that others write, rename or remove meanwhile.
#include "msg_support.h"
#include "sinks_support.h"

#include <support/interpose.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <set>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

using namespace zel::test;

namespace {

class RotationShared : public testing::Test {
protected:
    LogFolder folder;
};

} // namespace

TEST_F(RotationShared, AFileThatAnotherStreamRenamedIsFollowed) {
    FILE *one = folder.open(8, 3);
    FILE *two = folder.open(8, 3);
    fputs("a1\n", one);
    fputs("b1\n", two);
    fputs("a2\n", one); // does not fit: renames
    fputs("b2\n", two); // does not fit in the renamed one: follows
    fputs("a3\n", one); // does not fit: renames again
    fclose(one);
    fclose(two);
    EXPECT_EQ(folder.all(), "a3\n|a2\nb2\n|a1\nb1\n");
}

TEST_F(RotationShared, AFileThatWasRemovedIsMadeAnew) {
    FILE *log = folder.open(4, 3);
    fputs("one\n", log);
    EXPECT_EQ(unlink(folder.log.c_str()), 0);
    fputs("two\n", log);
    fclose(log);
    EXPECT_EQ(folder.all(), "two\n");
}

TEST_F(RotationShared, AFileThatWasEmptiedIsFilledFromItsStart) {
    FILE *log = folder.open(8, 3);
    fputs("one\ntwo\n", log);
    EXPECT_EQ(truncate(folder.log.c_str(), 0), 0);
    fputs("six\n", log);
    fclose(log);
    EXPECT_EQ(folder.all(), "six\n");
}

TEST_F(RotationShared, AnotherFileUnderTheNameThatIsFullIsRotated) {
    FILE *log = folder.open(4, 3);
    fputs("one\n", log);
    EXPECT_EQ(rename(folder.log.c_str(), (folder.log + ".9").c_str()), 0);
    write_file(folder.log, "full\n");
    fputs("two\n", log);
    fclose(log);
    EXPECT_EQ(folder.all(), "two\n|full\n");
    EXPECT_EQ(read_file(folder.log + ".9"), "one\n");
}

TEST_F(RotationShared, AFileThatAnotherProcessLocksGoesOnGrowing) {
    FILE *log = folder.open(4, 3);
    fputs("one\n", log);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t holder = fork();
    if (holder == 0) {
        const int fd = open(folder.log.c_str(), O_RDWR | O_CLOEXEC);
        struct flock lock = {};
        lock.l_type = F_WRLCK;
        fcntl(fd, F_SETLK, &lock);
        [[maybe_unused]] const ssize_t told = write(ends[1], "x", 1);
        pause();
    }
    char ready;
    EXPECT_EQ(read(ends[0], &ready, 1), 1);
    fputs("two\n", log);
    EXPECT_EQ(folder.all(), "one\ntwo\n");
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
    fputs("six\n", log);
    EXPECT_EQ(folder.all(), "six\n|one\ntwo\n");
    fclose(log);
    close(ends[0]);
    close(ends[1]);
}

TEST_F(RotationShared, AfterARotationNoLockIsLeft) {
    for (const int32_t older_files : {0, 1}) {
        FILE *log = folder.open(4, older_files);
        fputs("one\ntwo\n", log);
        const pid_t other = fork();
        if (other == 0) {
            const int fd = open(folder.log.c_str(), O_RDWR | O_CLOEXEC);
            struct flock lock = {};
            lock.l_type = F_WRLCK;
            _exit(fcntl(fd, F_SETLK, &lock) == 0 ? 0 : 1);
        }
        int status = -1;
        waitpid(other, &status, 0);
        EXPECT_EQ(status, 0);
        fclose(log);
    }
}

TEST_F(RotationShared, AFileThatAnotherProcessEmptiedFirstIsNotEmptiedAgain) {
    FILE *log = folder.open(8, 0);
    fputs("one\ntwo\n", log);
    {
        const Interposed other(hook::fcntl, [this, first = true](int fd, int command, long argument) mutable {
            if (std::exchange(first, false)) {
                write_file(folder.log, "new\n");
            }
            return hook::fcntl.real(fd, command, argument);
        });
        fputs("six\n", log);
    }
    EXPECT_EQ(folder.all(), "new\nsix\n");
    fclose(log);
}

namespace {

void write_lines(FILE *log, int writer, int lines) {
    for (int line = 0; line < lines; ++line) {
        fprintf(log, "writer %d line %d\n", writer, line);
    }
}

} // namespace

// Two of the writers have opened the log by themselves, and two inherit it.
TEST_F(RotationShared, ProcessesThatWriteToOneFileDivideNoLineAndLoseNone) {
    constexpr int kWriters = 4;
    constexpr int kLines = 300;
    FILE *inherited = folder.open(1000, 100000);
    for (int writer = 0; writer < kWriters; ++writer) {
        if (fork() == 0) {
            write_lines(writer < 2 ? inherited : folder.open(1000, 100000), writer, kLines);
            _exit(0);
        }
    }
    for (int writer = 0; writer < kWriters; ++writer) {
        wait(nullptr);
    }
    fclose(inherited);
    std::string files = folder.all();
    std::replace(files.begin(), files.end(), '|', '\n');
    std::istringstream stream(files);
    std::multiset<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        lines.insert(line);
    }
    lines.erase("");
    std::multiset<std::string> expected;
    for (int number = 0; number < kWriters * kLines; ++number) {
        expected.insert("writer " + std::to_string(number / kLines) + " line " + std::to_string(number % kLines));
    }
    EXPECT_EQ(lines, expected);
}
