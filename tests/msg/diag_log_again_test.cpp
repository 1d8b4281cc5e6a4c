// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The diagnostic log opened more than once.
#include "diag_log_support.h"

#include <components/platform/environment.h>
#include <msg/diag_log.h>
#include <msg/msg.h>
#include <support/child.h>
#include <support/files.h>
#include <support/interpose.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace zel::test;

namespace {

struct DiagLogAgain : testing::Test {
    ScratchFolder a;
    ScratchFolder b;
    ScratchFolder c;
};

// In a child: gives the log a name that the parent knows. Buffered text reaches it at
// exit.
void keep_log(const std::string &folder) {
    if (rename(log_in(folder).c_str(), (folder + "/kept").c_str()) != 0) {
        exit(2);
    }
}

std::string kept_log(const std::string &folder) {
    return read_file(folder + "/kept");
}

// Opens the start-up diagnostics file in the folder, without its pause: the clock gains a
// minute at each call.
void open_start_up_file(const std::string &folder) {
    const Interposed hurrying(hook::clock_gettime, [minutes = 0](clockid_t, timespec *now) mutable {
        *now = {.tv_sec = 60 * ++minutes, .tv_nsec = 0};
        return 0;
    });
    setenv("ZEL_DIAGNOSTICS_PATH", folder.c_str(), 1);
    platform_open_diagnostics(nullptr);
}

// The contents of the only file of a folder.
std::string only_file_in(const std::string &folder) {
    const std::filesystem::directory_iterator entry(folder);
    return entry == std::filesystem::directory_iterator() ? "no file" : read_file(entry->path());
}

} // namespace

TEST_F(DiagLogAgain, OlderLinesAreNotWrittenOverNewOnes) {
    run_in_child([this] {
        msg_open_diag_log(a.path.c_str());
        msg_diag("an older and longer line\n");
        msg_open_diag_log(a.path.c_str());
        msg_diag("new\n");
        keep_log(a.path);
    });
    EXPECT_EQ(kept_log(a.path), "new\n");
}

TEST_F(DiagLogAgain, OlderLinesAreWrittenOutBeforeTheFileIsEmptied) {
    const Outcome outcome = run_in_child([this] {
        msg_open_diag_log(a.path.c_str());
        msg_diag("older\n");
        const Interposed emptying(hook::ftruncate, [](int fd, off_t length) {
            struct stat status = {};
            fstat(fd, &status);
            printf("%d bytes", static_cast<int>(status.st_size));
            return hook::ftruncate.real(fd, length);
        });
        msg_open_diag_log(a.path.c_str());
    });
    EXPECT_EQ(outcome.out, "6 bytes");
}

TEST_F(DiagLogAgain, LogsInDirectoriesInTurnKeepTheirOwnLines) {
    run_in_child([this] {
        msg_open_diag_log(a.path.c_str());
        msg_diag("an older and longer line\n");
        for (const std::string &folder : {b.path, c.path}) {
            msg_open_diag_log(folder.c_str());
            msg_diag("elsewhere\n");
        }
        msg_open_diag_log(a.path.c_str());
        msg_diag("new\n");
        for (const std::string &folder : {a.path, b.path, c.path}) {
            keep_log(folder);
        }
    });
    EXPECT_EQ(kept_log(a.path), "new\n");
    EXPECT_EQ(kept_log(b.path), "elsewhere\n");
    EXPECT_EQ(kept_log(c.path), "elsewhere\n");
}

// Both logs are written until the log is opened again.
TEST_F(DiagLogAgain, ALogOpenedBeforeTheStartUpFileKeepsToItself) {
    run_in_child([this] {
        msg_open_diag_log(a.path.c_str());
        open_start_up_file(b.path);
        msg_diag("an older and longer line\n");
        msg_open_diag_log(a.path.c_str());
        msg_diag("new\n");
        keep_log(a.path);
    });
    EXPECT_EQ(kept_log(a.path), "new\n");
    EXPECT_EQ(only_file_in(b.path), "an older and longer line\n");
}

TEST_F(DiagLogAgain, ALogOpenedAfterTheStartUpFileKeepsToItself) {
    run_in_child([this] {
        open_start_up_file(b.path);
        msg_diag("at the start\n");
        msg_open_diag_log(a.path.c_str());
        msg_diag("an older and longer line\n");
        msg_open_diag_log(a.path.c_str());
        msg_diag("new\n");
        keep_log(a.path);
    });
    EXPECT_EQ(kept_log(a.path), "new\n");
    EXPECT_EQ(only_file_in(b.path), "at the start\n");
}

TEST_F(DiagLogAgain, AnOpenThatFailsLosesNoLine) {
    run_in_child([this] {
        msg_open_diag_log(a.path.c_str());
        msg_diag("a line\n");
        keep_log(a.path);
        if (symlink((a.path + "/kept").c_str(), log_in(a.path).c_str()) != 0) {
            exit(2);
        }
        msg_open_diag_log(a.path.c_str());
        msg_diag("nowhere\n");
    });
    EXPECT_EQ(kept_log(a.path), "a line\n");
}

TEST_F(DiagLogAgain, LinesThatCannotBeWrittenOutAreDiscarded) {
    run_in_child([this] {
        msg_open_diag_log(a.path.c_str());
        msg_diag("an older and longer line\n");
        {
            const Interposed failing(hook::fflush, fail_always(hook::fflush, EIO, EOF));
            msg_open_diag_log(a.path.c_str());
        }
        msg_diag("new\n");
        keep_log(a.path);
    });
    EXPECT_EQ(kept_log(a.path), "new\n");
}

TEST_F(DiagLogAgain, AForkedChildDoesNotWriteItsParentsLines) {
    const Outcome outcome = run_in_child([this] {
        msg_open_diag_log(a.path.c_str());
        msg_diag("parent\n");
        const pid_t child = fork();
        if (child == 0) {
            msg_open_diag_log(a.path.c_str());
            _exit(0);
        }
        waitpid(child, nullptr, 0);
        printf("%zu bytes", read_file(log_in(a.path)).size());
        keep_log(a.path);
    });
    EXPECT_EQ(outcome.out, "0 bytes");
    EXPECT_EQ(kept_log(a.path), "parent\n");
}

// Parent and child hold the same text. The child alone writes it here.
TEST_F(DiagLogAgain, AForkedChildDoesNotDiscardItsParentsLines) {
    run_in_child([this] {
        msg_open_diag_log(a.path.c_str());
        msg_diag("parent\n");
        FILE *inherited = _msg_get_stream_desc(MSG_DIAG)->streams[0];
        const pid_t child = fork();
        if (child == 0) {
            {
                const Interposed failing(hook::fflush, fail_always(hook::fflush, EIO, EOF));
                msg_open_diag_log(a.path.c_str());
            }
            fflush(inherited);
            _exit(0);
        }
        waitpid(child, nullptr, 0);
        keep_log(a.path);
        _exit(0);
    });
    EXPECT_EQ(kept_log(a.path), "parent\n");
}
