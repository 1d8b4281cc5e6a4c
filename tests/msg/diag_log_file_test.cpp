// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The file of the diagnostic log: its name, its opening, its longest path.
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
#include <vector>

using namespace zel::test;

namespace {

// Each open is told on standard output, without the process number, and fails.
struct ToldFiles {
    Interposed<int(const char *, int, mode_t)> opening{hook::open, [](const char *path, int, mode_t) {
                                                           const std::string number = std::to_string(getpid());
                                                           std::string told = path;
                                                           const size_t position = told.rfind("/zel" + number);
                                                           told = position == std::string::npos
                                                                      ? "?"
                                                                      : told.replace(position + 4, number.size(), "N");
                                                           printf("open %s\n", told.c_str());
                                                           errno = EACCES;
                                                           return -1;
                                                       }};
};

// getlogin answers with these names, one a call, then with the last one again. null: no
// name is known.
struct Logins {
    explicit Logins(std::vector<const char *> names) : answers(std::move(names)) {}
    std::vector<const char *> answers;
    size_t asked = 0;
    Interposed<char *()> asking{hook::getlogin, [this] {
                                    const size_t last = answers.size() - 1;
                                    const char *answer = answers[asked < last ? asked : last];
                                    ++asked;
                                    return const_cast<char *>(answer);
                                }};
};

struct DiagLogFile : testing::Test {
    ScratchFolder a;
};

// Lengthens the path of a folder until the path of the log in it has this length.
std::string folder_for_path_of(const std::string &folder, size_t length) {
    return lengthened(folder, length - (log_in("").size()));
}

} // namespace

TEST_F(DiagLogFile, TheLogIsOpenedForWritingUnderDirectoryNumberAndLogin) {
    const Outcome outcome = run_in_child([this] {
        const ToldFiles told;
        const Logins logins({"guest"});
        msg_open_diag_log(a.path.c_str());
        msg_open_diag_log((a.path + "/").c_str());
        msg_open_diag_log("/");
    });
    // Root may write to "/" where it is not read-only; for others nothing is opened
    // there.
    const std::string in_root = access("/", W_OK) == 0 ? "open //zelNguest.log\n" : "";
    EXPECT_EQ(outcome.out, "open " + a.path + "/zelNguest.log\nopen " + a.path + "//zelNguest.log\n" + in_root);
}

TEST_F(DiagLogFile, PercentSignsInTheNamesAreTextLikeAnyOther) {
    const Outcome outcome = run_in_child([this] {
        const std::string folder = a.path + "/100%d%s";
        if (mkdir(folder.c_str(), 0700) != 0) {
            exit(2);
        }
        const ToldFiles told;
        const Logins logins({"gu%dst%%"});
        msg_open_diag_log(folder.c_str());
    });
    EXPECT_EQ(outcome.out, "open " + a.path + "/100%d%s/zelNgu%dst%%.log\n");
}

TEST_F(DiagLogFile, ALoginNameThatBecomesKnownIsUsedFromThenOn) {
    const Outcome outcome = run_in_child([this] {
        const ToldFiles told;
        const Logins logins({nullptr, "", "guest", "another"});
        for (int call = 0; call < 5; ++call) {
            msg_open_diag_log(a.path.c_str());
        }
        printf("asked %zu\n", logins.asked);
    });
    const std::string unknown = "open " + a.path + "/zelN.log\n";
    const std::string known = "open " + a.path + "/zelNguest.log\n";
    EXPECT_EQ(outcome.out, unknown + unknown + known + known + known + "asked 3\n");
}

TEST_F(DiagLogFile, ALoginNameOf256CharactersIsWhole) {
    const Outcome outcome = run_in_child([this] {
        static const std::string name = std::string(255, 'n') + "m";
        const ToldFiles told;
        const Logins logins({name.c_str()});
        msg_open_diag_log(a.path.c_str());
    });
    EXPECT_EQ(outcome.out, "open " + a.path + "/zelN" + std::string(255, 'n') + "m.log\n");
}

TEST_F(DiagLogFile, TheNumberInTheNameIsThatOfTheOpeningProcess) {
    const Outcome outcome = run_in_child([this] {
        const Logins logins({"guest"});
        msg_open_diag_log(a.path.c_str());
        const pid_t child = fork();
        if (child == 0) {
            msg_open_diag_log(a.path.c_str());
            printf("%d", exists(log_in(a.path)) ? 1 : 0);
            fflush(nullptr);
            _exit(0);
        }
        waitpid(child, nullptr, 0);
        printf("%d", exists(log_in(a.path)) ? 1 : 0);
    });
    EXPECT_EQ(outcome.out, "11");
}

TEST_F(DiagLogFile, APathOf4095CharactersIsOpened) {
    const Outcome outcome = run_in_child([this] {
        const std::string folder = folder_for_path_of(a.path, 4095);
        printf("%d ", msg_open_diag_log(folder.c_str()) == folder ? 1 : 0);
        printf("%d %d", diagnostic_streams(), exists(log_in(a.path)) ? 1 : 0);
    });
    EXPECT_EQ(outcome.out, "1 1 1");
}

// A path that was cut would name another file.
TEST_F(DiagLogFile, APathOfOver4095CharactersIsNotOpened) {
    for (const size_t length : {4096U, 4097U, 4098U, 4099U, 4100U}) {
        const Outcome outcome = run_in_child([this, length] {
            const std::string folder = folder_for_path_of(a.path, length);
            const Interposed opening(hook::open, [](const char *, int, mode_t) {
                printf("opened ");
                return -1;
            });
            printf("%d ", msg_open_diag_log(folder.c_str()) == folder ? 1 : 0);
            printf("%d", diagnostic_streams());
        });
        EXPECT_EQ(outcome.out, "1 0") << length;
    }
}

TEST_F(DiagLogFile, TheStreamOfTheLogIsAddedToDiagnosticsAlone) {
    const Outcome outcome = run_in_child([this] {
        msg_open_diag_log(a.path.c_str());
        for (const int type : {MSG_INFO, MSG_DEBUG, MSG_WARNING, MSG_ERROR, MSG_DIAG}) {
            printf("%d", _msg_get_stream_desc(type)->count);
        }
        const int fd = fileno(_msg_get_stream_desc(MSG_DIAG)->streams[0]);
        printf(" %s", (fcntl(fd, F_GETFL) & O_ACCMODE) == O_WRONLY ? "write only" : "?");
        printf(" %s", (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0 ? "close-on-exec" : "?");
    });
    EXPECT_EQ(outcome.out, "11111 write only close-on-exec");
}
