// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Logs of limited size.
#include "msg_support.h"
#include "sinks_support.h"

#include <components/platform/zel_pair_connection.h>
#include <support/census.h>
#include <support/interpose.h>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <random>
#include <set>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace zel::test;

namespace {

class RotatingFile : public testing::Test {
protected:
    LogFolder folder;

    // The log and its older files after these texts.
    std::string after(int64_t most_bytes, int32_t older_files, const std::vector<std::string> &texts) {
        FILE *log = folder.open(most_bytes, older_files);
        for (const std::string &text : texts) {
            fputs(text.c_str(), log);
        }
        fclose(log);
        return folder.all();
    }
};

} // namespace

TEST_F(RotatingFile, ALineThatDoesNotFitGoesIntoANewFile) {
    EXPECT_EQ(after(8, 3, {"one\n", "two\n", "six\n", "t\n"}), "six\nt\n|one\ntwo\n");
    EXPECT_EQ(folder.names(), "log log.1");
}

TEST_F(RotatingFile, TheOldestFileIsDropped) {
    EXPECT_EQ(after(4, 2, {"one\n", "two\n", "six\n", "ten\n"}), "ten\n|six\n|two\n");
    EXPECT_EQ(folder.names(), "log log.1 log.2");
}

TEST_F(RotatingFile, LinesOfOneTextAreDividedWhereAFileEnds) {
    EXPECT_EQ(after(8, 9, {"one\ntwo\nsix\nten\nlonger than a file\nx\n"}),
              "x\n|longer than a file\n|six\nten\n|one\ntwo\n");
}

TEST_F(RotatingFile, ALineLongerThanAFileStandsAlone) {
    EXPECT_EQ(after(4, 9, {"a\n", "longer\n", "b\n"}), "b\n|longer\n|a\n");
    EXPECT_EQ(after(4, 9, {"longer\n", "c\n"}), "c\n|longer\n|b\n|longer\n|a\n");
}

TEST_F(RotatingFile, WithoutOlderFilesTheFileIsEmptied) {
    EXPECT_EQ(after(8, 0, {"one\n", "two\n", "six\n"}), "six\n");
    EXPECT_EQ(folder.names(), "log");
}

TEST_F(RotatingFile, AFileThatIsThereIsContinuedWhereItEnds) {
    write_file(folder.log, "old\n");
    EXPECT_EQ(after(8, 1, {"one\n"}), "old\none\n");
    EXPECT_EQ(after(8, 1, {"two\n"}), "two\n|old\none\n");
}

TEST_F(RotatingFile, AFileThatIsLargerThanTheLimitIsRotatedByTheFirstLine) {
    write_file(folder.log, "longer than the limit\n");
    EXPECT_EQ(after(8, 1, {"one\n"}), "one\n|longer than the limit\n");
}

TEST_F(RotatingFile, AGapAmongTheOlderFilesIsFilled) {
    write_file(folder.log + ".1", "1");
    write_file(folder.log + ".3", "3");
    EXPECT_EQ(after(4, 9, {"one\n", "two\n"}), "two\n|one\n|1|3");
}

TEST_F(RotatingFile, ThousandsOfOlderFilesCostNoMoreThanThoseThatAreThere) {
    EXPECT_EQ(after(4, INT32_MAX, {"one\n", "two\n"}), "two\n|one\n");
}

TEST_F(RotatingFile, EachLineIsInTheFileAtOnce) {
    FILE *log = folder.open(100, 1);
    fputs("one\ntw", log);
    EXPECT_EQ(folder.all(), "one\n");
    fflush(log);
    EXPECT_EQ(folder.all(), "one\ntw");
    fputs("o\n", log);
    EXPECT_EQ(folder.all(), "one\ntwo\n");
    fclose(log);
}

TEST_F(RotatingFile, ALineThatWasFlushedBeforeItsEndIsNotDivided) {
    FILE *log = folder.open(6, 3);
    fputs("one ", log);
    fflush(log);
    fputs("line\nnext\n", log);
    fclose(log);
    EXPECT_EQ(folder.all(), "next\n|one line\n");
}

TEST_F(RotatingFile, AtTheEndOfTheProcessAnOpenLineIsInTheFile) {
    run_messages([this] { fputs("one\ntwo", folder.open(100, 1)); });
    EXPECT_EQ(folder.all(), "one\ntwo");
}

TEST_F(RotatingFile, MessagesRotateIt) {
    run_messages([this] {
        msg_add_stream(MSG_INFO, folder.open(20, 2));
        msg_set_print_prefix("print: ");
        for (int count = 1; count <= 3; ++count) {
            msg_print("number %d", count);
        }
    });
    EXPECT_EQ(folder.all(), "print: number 3\n|print: number 2\n|print: number 1\n");
}

// All files together hold every line, in order, and none is larger than the limit.
TEST_F(RotatingFile, ThousandsOfLinesAreAllThereInOrder) {
    constexpr int kLines = 2000;
    std::mt19937 random(5);
    std::string all;
    FILE *log = folder.open(1000, kLines);
    for (int number = 0; number < kLines; ++number) {
        const std::string line = std::to_string(number) + std::string(random() % 40, 'x') + "\n";
        fputs(line.c_str(), log);
        all += line;
    }
    fclose(log);
    std::string together = read_file(folder.log);
    for (int number = 1; access((folder.log + "." + std::to_string(number)).c_str(), F_OK) == 0; ++number) {
        const std::string older = read_file(folder.log + "." + std::to_string(number));
        EXPECT_LE(older.size(), 1000U);
        EXPECT_EQ(older.back(), '\n');
        together = older + together;
    }
    EXPECT_EQ(together, all);
}

TEST_F(RotatingFile, ARelativePathStaysInItsDirectory) {
    const Outcome outcome = run_in_child([this] {
        EXPECT_EQ(chdir(folder.path.c_str()), 0);
        FILE *log = msg_open_rotating_file("log", 4, 1);
        EXPECT_EQ(chdir("/"), 0);
        fputs("one\ntwo\n", log);
    });
    EXPECT_EQ(folder.all(), "two\n|one\n");
    EXPECT_EQ(outcome.status, 0);
}

// ---- Descriptors and children ---------------------------------------------------------------------------------------

namespace {

// For each descriptor that a log opens: whether it is above the standard ones, and
// whether it is close-on-exec.
std::string marks_of_log(const LogFolder &folder, int closed) {
    return run_in_child([&folder, closed] {
               close(closed);
               FILE *report = fdopen(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 10), "w");
               const std::set<int> before = open_descriptors();
               fputs("one\ntwo\n", folder.open(4, 1));
               for (const int fd : open_descriptors()) {
                   const bool kept = fd > STDERR_FILENO && (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
                   fputs(before.contains(fd) ? "" : kept ? "kept " : "? ", report);
               }
           })
        .out;
}

} // namespace

TEST_F(RotatingFile, ItsDescriptorsAreAboveTheStandardOnesAndNotInherited) {
    for (const int closed : {STDIN_FILENO, STDERR_FILENO}) {
        EXPECT_EQ(marks_of_log(folder, closed), "kept kept "); // a new file
        EXPECT_EQ(marks_of_log(folder, closed), "kept kept "); // one that is there
    }
}

TEST_F(RotatingFile, BesideOpenStandardDescriptorsItIsNotInheritedEither) {
    const std::set<int> before = open_descriptors();
    FILE *log = folder.open(100, 1);
    for (const int fd : open_descriptors()) {
        EXPECT_TRUE(before.contains(fd) || (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0);
    }
    fclose(log);
}

TEST_F(RotatingFile, TheCloseLeavesNothingOpen) {
    const std::set<int> before = open_descriptors();
    FILE *log = folder.open(100, 1);
    EXPECT_EQ(open_descriptors().size(), before.size() + 2);
    EXPECT_EQ(fclose(log), 0);
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(RotatingFile, TheChildOfAPairDoesNotWriteTheOpenLineTwice) {
    run_messages([this] {
        FILE *log = folder.open(100, 1);
        fputs("open", log);
        PairHandle *pair =
            platform_pair_parent_open_lp("LOG_PAIR", 1, 1, "/nowhere/x", nullptr, "x", static_cast<char *>(nullptr));
        waitpid(platform_pair_companion_pid(pair), nullptr, 0);
        fputs(" line\n", log);
    });
    EXPECT_EQ(folder.all(), "open line\n");
}

TEST_F(RotatingFile, TheSyncModePassesOverALogThatWasClosed) {
    const Outcome outcome = run_messages([this] {
        FILE *kept = folder.open(100, 1);
        FILE *closed = msg_open_rotating_file((folder.path + "/other").c_str(), 100, 1);
        fclose(closed);
        msg_add_stream(MSG_DIAG, kept);
        msg_add_stream(MSG_DIAG, msg_open_ring(100, -1));
        const Interposed watching(hook::fsync, [](int fd) {
            printf("%s ", fd == -1 ? "nothing" : "file");
            return 0;
        });
        msg_sync_mode(MSG_DIAG, 1);
    });
    EXPECT_EQ(outcome.out, "file nothing ");
}

TEST_F(RotatingFile, TheSyncModeForcesTheFileThatIsWrittenToDisk) {
    const Outcome outcome = run_messages([this] {
        FILE *log = folder.open(4, 1);
        msg_add_stream(MSG_DIAG, stdout);
        msg_add_stream(MSG_DIAG, log);
        msg_sync_mode(MSG_DIAG, 1);
        fputs("one\n", log);
        int forced = -1;
        {
            const Interposed watching(hook::fsync, [&forced](int fd) {
                forced = fd;
                return 0;
            });
            msg_diag("two\n");
        }
        struct stat on_disk = {};
        struct stat named = {};
        fstat(forced, &on_disk);
        stat(folder.log.c_str(), &named);
        msg_clear_streams(MSG_DIAG);
        printf("%s", on_disk.st_ino == named.st_ino ? "forced" : "not");
    });
    EXPECT_EQ(outcome.out, "two\nforced");
}
