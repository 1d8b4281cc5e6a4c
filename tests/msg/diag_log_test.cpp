// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The diagnostic log: its directory, its name, its lines.
#include "diag_log_support.h"

#include <msg/diag_log.h>
#include <msg/msg.h>
#include <support/child.h>
#include <support/files.h>
#include <support/interpose.h>

#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace zel::test;

namespace {

// In a child: opens the log, prints the result, writes a line, and prints the path of the
// log.
void open_and_report(const char *dir) {
    const std::string tried = msg_open_diag_log(dir);
    printf("%s\n", tried.c_str());
    msg_diag("a line\n");
    fflush(nullptr);
    if (tried.empty()) {
        printf("%d streams\n", diagnostic_streams());
        return;
    }
    const std::string path = log_in(tried);
    printf("%s\n", exists(path) ? read_file(path).c_str() : "no file");
    unlink(path.c_str());
}

struct DiagLog : testing::Test {
    // A child with these three variables.
    static Outcome open_with(const Value &first, const Value &second, const Value &third, const char *dir = nullptr) {
        return run_in_child([&] {
            set_variables(first, second, third);
            open_and_report(dir);
        });
    }

    ScratchFolder a;
    ScratchFolder b;
    ScratchFolder c;
};

// The output of a process whose log is to stand in the chosen directory. missing: a
// directory that does not exist.
std::string report_of(const Value &chosen, const std::string &missing) {
    if (!chosen.has_value()) {
        return "/tmp\na line\n\n";
    }
    if (chosen->empty()) {
        return "\n0 streams\n";
    }
    return *chosen + (*chosen == missing ? "\nno file\n" : "\na line\n\n");
}

} // namespace

TEST_F(DiagLog, WithNoneOfTheVariablesTheFileIsInTmp) {
    EXPECT_EQ(open_with({}, {}, {}).out, "/tmp\na line\n\n");
}

TEST_F(DiagLog, TheFirstVariableThatIsSetWins) {
    EXPECT_EQ(open_with(a.path, b.path, c.path).out, a.path + "\na line\n\n");
    EXPECT_EQ(open_with({}, b.path, c.path).out, b.path + "\na line\n\n");
    EXPECT_EQ(open_with({}, {}, c.path).out, c.path + "\na line\n\n");
}

// Each of the three variables is set, empty, unset or unusable. In each combination the
// first that is not unset decides.
TEST_F(DiagLog, EveryCombinationOfTheVariablesIsDecidedByTheFirstThatIsSet) {
    const std::string missing = a.path + "/missing";
    const Value kinds[] = {{}, "", a.path, missing};
    for (const Value &first : kinds) {
        for (const Value &second : kinds) {
            for (const Value &third : kinds) {
                const Value &chosen = first ? first : second ? second : third;
                const Outcome outcome = open_with(first, second, third);
                EXPECT_EQ(outcome.out, report_of(chosen, missing));
                EXPECT_EQ(outcome.err, "");
                EXPECT_EQ(outcome.status, 0);
            }
        }
    }
}

TEST_F(DiagLog, AnEmptyDirectoryMeansTheEnvironment) {
    EXPECT_EQ(open_with(a.path, {}, {}, "").out, a.path + "\na line\n\n");
}

TEST_F(DiagLog, AnExplicitDirectoryWinsOverAllVariables) {
    EXPECT_EQ(open_with(a.path, b.path, c.path, c.path.c_str()).out, c.path + "\na line\n\n");
}

TEST_F(DiagLog, AFileInsteadOfADirectoryLeavesDiagnosticsOffWithoutAWord) {
    const std::string file = a.path + "/file";
    write_file(file, "mine");
    const Outcome outcome = open_with(file, {}, {});
    EXPECT_EQ(outcome.out, file + "\nno file\n");
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(read_file(file), "mine");
}

TEST_F(DiagLog, AnUnwritableDirectoryLeavesDiagnosticsOffWithoutAWord) {
    ASSERT_EQ(chmod(a.path.c_str(), 0555), 0);
    const Outcome outcome = run_in_child([this] {
        give_up_root();
        set_variable(kVariables[0], a.path);
        open_and_report(nullptr);
    });
    EXPECT_EQ(outcome.out, a.path + "\nno file\n");
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
}

TEST_F(DiagLog, AFileThatCannotBeOpenedLeavesDiagnosticsOffWithoutAWord) {
    const Outcome outcome = run_in_child([this] {
        const Interposed failing(hook::open, fail_always(hook::open, EMFILE, -1));
        printf("%s ", msg_open_diag_log(a.path.c_str()));
        printf("%d\n", diagnostic_streams());
    });
    EXPECT_EQ(outcome.out, a.path + " 0\n");
    EXPECT_EQ(outcome.err, "");
}

TEST_F(DiagLog, AnOlderFileOfTheSameNameIsTruncated) {
    const Outcome outcome = run_in_child([this] {
        write_file(log_in(a.path), "an older and longer text\n");
        open_and_report(a.path.c_str());
    });
    EXPECT_EQ(outcome.out, a.path + "\na line\n\n");
}

TEST_F(DiagLog, ASecondCallTruncatesTheFileAndWritesOnlyThroughTheNewHandle) {
    const Outcome outcome = run_in_child([this] {
        msg_open_diag_log(a.path.c_str());
        msg_diag("first\n");
        fflush(nullptr);
        FILE *older = _msg_get_stream_desc(MSG_DIAG)->streams[0];
        msg_open_diag_log(a.path.c_str());
        printf("%d stream, %s\n", diagnostic_streams(),
               _msg_get_stream_desc(MSG_DIAG)->streams[0] == older ? "the older" : "another");
        msg_diag("second\n");
        fflush(nullptr);
        printf("%s%s\n", read_file(log_in(a.path)).c_str(),
               fcntl(fileno(older), F_GETFD) == -1 ? "closed" : "still open");
    });
    EXPECT_EQ(outcome.out, "1 stream, another\nsecond\nstill open\n");
}

TEST_F(DiagLog, AFailedCallDetachesTheStreamsThatWereThere) {
    const Outcome outcome = run_in_child([this] {
        msg_add_stream(MSG_DIAG, stdout);
        const std::string missing = a.path + "/missing";
        printf("%s\n", msg_open_diag_log(missing.c_str()) == missing ? "tried" : "?");
        msg_diag("lost\n");
    });
    EXPECT_EQ(outcome.out, "tried\n");
}

TEST_F(DiagLog, OtherTypesKeepTheirStreams) {
    const Outcome outcome = run_in_child([this] {
        msg_open_diag_log(a.path.c_str());
        msg_print("still here");
    });
    EXPECT_EQ(outcome.out, "still here\n");
}

TEST_F(DiagLog, AForkedChildWritesIntoItsParentsFile) {
    const Outcome outcome = run_in_child([this] {
        msg_open_diag_log(a.path.c_str());
        const std::string path = log_in(a.path);
        msg_sync_mode(MSG_DIAG, 1);
        msg_diag("parent\n");
        const pid_t child = fork();
        if (child == 0) {
            msg_diag("child\n");
            _exit(0);
        }
        waitpid(child, nullptr, 0);
        msg_diag("parent again\n");
        printf("%s", read_file(path).c_str());
    });
    EXPECT_EQ(outcome.out, "parent\nchild\nparent again\n");
}

TEST_F(DiagLog, InSyncModeEachLineIsOnDiskBeforeTheNextBegins) {
    const Outcome outcome = run_in_child([this] {
        msg_open_diag_log(a.path.c_str());
        const std::string path = log_in(a.path);
        int forced = 0;
        const Interposed counting(hook::fsync, [&forced](int fd) {
            ++forced;
            return hook::fsync.real(fd);
        });
        msg_diag("buffered\n");
        printf("%zu bytes, %d\n", read_file(path).size(), forced);
        msg_sync_mode(MSG_DIAG, 1);
        printf("%zu bytes, %d\n", read_file(path).size(), forced);
        msg_diag("more\n");
        printf("%zu bytes, %d\n", read_file(path).size(), forced);
    });
    EXPECT_EQ(outcome.out, "0 bytes, 0\n9 bytes, 1\n14 bytes, 2\n");
}

TEST_F(DiagLog, ABufferedLineReachesTheFileAtExit) {
    run_in_child([this] {
        msg_open_diag_log(a.path.c_str());
        msg_diag("at the end\n");
        if (rename(log_in(a.path).c_str(), (a.path + "/kept").c_str()) != 0) {
            exit(2);
        }
    });
    EXPECT_EQ(read_file(a.path + "/kept"), "at the end\n");
}

TEST_F(DiagLog, TheLoginNameIsAskedForOnceAndKept) {
    const Outcome outcome = run_in_child([this] {
        int asked = 0;
        const Interposed guest(hook::getlogin, [&asked]() -> char * {
            static char name[] = "guest";
            ++asked;
            return name;
        });
        msg_open_diag_log(a.path.c_str());
        msg_open_diag_log(b.path.c_str());
        const std::string name = "/zel" + std::to_string(getpid()) + "guest.log";
        printf("%d %d asked %d\n", exists(a.path + name), exists(b.path + name), asked);
    });
    EXPECT_EQ(outcome.out, "1 1 asked 1\n");
}

TEST_F(DiagLog, AnUnknownLoginNameIsLeftOutAndAskedForAgain) {
    const Outcome outcome = run_in_child([this] {
        int asked = 0;
        const Interposed unknown(hook::getlogin, [&asked]() -> char * {
            ++asked;
            return nullptr;
        });
        msg_open_diag_log(a.path.c_str());
        msg_open_diag_log(b.path.c_str());
        const std::string name = "/zel" + std::to_string(getpid()) + ".log";
        printf("%d %d asked %d\n", exists(a.path + name), exists(b.path + name), asked);
    });
    EXPECT_EQ(outcome.out, "1 1 asked 2\n");
}

TEST_F(DiagLog, AVeryLongLoginNameIsCutTo256Characters) {
    const Outcome outcome = run_in_child([this] {
        static std::string name(5000, 'n');
        const Interposed endless(hook::getlogin, [] { return name.data(); });
        // Longer than a file system takes: the path is looked at, and no file is opened.
        const Interposed opening(hook::open, [this](const char *path, int, mode_t) {
            const std::string expected = a.path + "/zel" + std::to_string(getpid()) + std::string(256, 'n') + ".log";
            printf("%s\n", path == expected ? "as expected" : path);
            return -1;
        });
        msg_open_diag_log(a.path.c_str());
    });
    EXPECT_EQ(outcome.out, "as expected\n");
    EXPECT_EQ(outcome.status, 0);
}

TEST_F(DiagLog, TheLoginNameIsNotAskedForWhenTheDirectoryIsOfNoUse) {
    const Outcome outcome = run_in_child([this] {
        const Interposed asked(hook::getlogin, []() -> char * {
            printf("asked");
            return nullptr;
        });
        msg_open_diag_log((a.path + "/missing").c_str());
    });
    EXPECT_EQ(outcome.out, "");
}

TEST_F(DiagLog, ADirectoryOf4096CharactersIsOneTooLong) {
    const Outcome outcome = run_in_child([this] {
        std::string path = a.path;
        path.append(4096 - path.size(), '/');
        printf("<%s>", msg_open_diag_log(path.c_str()));
    });
    EXPECT_EQ(outcome.out, "<>");
}

TEST_F(DiagLog, ATooLongDirectoryIsRefusedWhole) {
    const Outcome outcome = run_in_child([this] {
        std::string path = a.path;
        path.append(5000, '/');
        printf("<%s> ", msg_open_diag_log(path.c_str()));
        printf("%d\n", diagnostic_streams());
    });
    EXPECT_EQ(outcome.out, "<> 0\n");
}

TEST_F(DiagLog, ADirectoryThatLeavesNoRoomForTheFileNameOpensNothing) {
    const Outcome outcome = run_in_child([this] {
        std::string path = a.path;
        path.append(4095 - path.size(), '/');
        printf("%d ", msg_open_diag_log(path.c_str()) == path);
        printf("%d\n", diagnostic_streams());
    });
    EXPECT_EQ(outcome.out, "1 0\n");
}

TEST_F(DiagLog, TheStoredDirectoryMayBePassedBackIn) {
    const Outcome outcome = run_in_child([this] {
        const char *stored = msg_open_diag_log(a.path.c_str());
        printf("%d\n", msg_open_diag_log(stored) == a.path);
    });
    EXPECT_EQ(outcome.out, "1\n");
}

TEST_F(DiagLog, TheDirectoryInEffectIsTheStoredOneElseTheEnvironments) {
    const Outcome outcome = run_in_child([this] {
        for (const char *name : kVariables) {
            unsetenv(name);
        }
        printf("%s\n", msg_get_diag_dir());
        setenv("ZEL_TMPDIR", "/c", 1);
        printf("%s\n", msg_get_diag_dir());
        setenv("ZEL_DIAGNOSTICS_PATH", "/b", 1);
        printf("%s\n", msg_get_diag_dir());
        setenv("ZEL_DIAG_DIR", "", 1);
        printf("<%s>\n", msg_get_diag_dir());
        msg_open_diag_log(a.path.c_str());
        printf("%d\n", msg_get_diag_dir() == a.path);
    });
    EXPECT_EQ(outcome.out, "/tmp\n/c\n/b\n<>\n1\n");
}

TEST_F(DiagLog, TheTemporaryDirectoryIsTheVariableEvenWhenEmptyElseTmp) {
    const Outcome outcome = run_in_child([] {
        unsetenv("ZEL_TMPDIR");
        printf("<%s>", msg_get_tmpdir());
        setenv("ZEL_TMPDIR", "/elsewhere", 1);
        printf("<%s>", msg_get_tmpdir());
        setenv("ZEL_TMPDIR", "", 1);
        printf("<%s>", msg_get_tmpdir());
    });
    EXPECT_EQ(outcome.out, "</tmp></elsewhere><>");
}

TEST_F(DiagLog, LinesNeitherMoveTheColumnNorCountAsTheLastMessage) {
    const Outcome outcome = run_in_child([this] {
        msg_open_diag_log(a.path.c_str());
        msg_print_wrap("open");
        msg_diag("a line\n");
        MSG_CONT(" and on");
    });
    EXPECT_EQ(outcome.out, "open and on");
}
