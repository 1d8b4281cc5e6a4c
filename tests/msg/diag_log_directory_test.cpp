// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The directory of the diagnostic log.
#include "diag_log_support.h"

#include <msg/diag_log.h>
#include <msg/msg.h>
#include <support/child.h>
#include <support/files.h>
#include <support/interpose.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

using namespace zel::test;

namespace {

struct DiagLogDirectory : testing::Test {
    ScratchFolder a;
    ScratchFolder b;
};

// The directory in effect in a process with these variables that has opened no log.
std::string directory_in_effect(const Value &first, const Value &second, const Value &third) {
    return run_in_child([&] {
               set_variables(first, second, third);
               printf("<%s>", msg_get_diag_dir());
           })
        .out;
}

} // namespace

TEST_F(DiagLogDirectory, TheFirstVariableThatIsSetIsInEffectEvenWhenEmpty) {
    const Value kinds[] = {{}, "", "/one", "/another"};
    for (const Value &first : kinds) {
        for (const Value &second : kinds) {
            for (const Value &third : kinds) {
                const Value &chosen = first ? first : second ? second : third;
                EXPECT_EQ(directory_in_effect(first, second, third), "<" + chosen.value_or("/tmp") + ">");
            }
        }
    }
}

TEST_F(DiagLogDirectory, AskingForTheDirectoryStoresNothing) {
    const Outcome outcome = run_in_child([] {
        set_variables("/first", {}, {});
        printf("%s ", msg_get_diag_dir());
        set_variables({}, {}, "/later");
        printf("%s", msg_get_diag_dir());
    });
    EXPECT_EQ(outcome.out, "/first /later");
}

TEST_F(DiagLogDirectory, TheVariablesDoNotReplaceAnUnusableExplicitDirectory) {
    const Outcome outcome = run_in_child([this] {
        set_variables(a.path, a.path, a.path);
        const std::string missing = b.path + "/missing";
        printf("%d ", msg_open_diag_log(missing.c_str()) == missing ? 1 : 0);
        printf("%d ", msg_get_diag_dir() == missing ? 1 : 0);
        printf("%d %d", diagnostic_streams(), exists(log_in(a.path)) ? 1 : 0);
    });
    EXPECT_EQ(outcome.out, "1 1 0 0");
}

TEST_F(DiagLogDirectory, AVariableOfAnUnusableDirectoryIsNotReplacedByTheNext) {
    const Outcome outcome = run_in_child([this] {
        const std::string missing = b.path + "/missing";
        set_variables(missing, a.path, a.path);
        printf("%d ", msg_open_diag_log(nullptr) == missing ? 1 : 0);
        printf("%d ", msg_get_diag_dir() == missing ? 1 : 0);
        printf("%d %d", diagnostic_streams(), exists(log_in(a.path)) ? 1 : 0);
    });
    EXPECT_EQ(outcome.out, "1 1 0 0");
}

TEST_F(DiagLogDirectory, TheStoredTextOutlivesTheVariableThatItCameFrom) {
    const Outcome outcome = run_in_child([this] {
        set_variables(a.path, {}, {});
        msg_open_diag_log(nullptr);
        set_variables(b.path, {}, {});
        printf("%d", msg_get_diag_dir() == a.path ? 1 : 0);
    });
    EXPECT_EQ(outcome.out, "1");
}

TEST_F(DiagLogDirectory, TheVariablesAreReadAgainAtEachCallThatNamesNone) {
    const Outcome outcome = run_in_child([this] {
        set_variables(a.path, {}, {});
        msg_open_diag_log(nullptr);
        set_variables(b.path, {}, {});
        printf("%d", msg_open_diag_log("") == b.path ? 1 : 0);
        printf("%d", exists(log_in(b.path)) ? 1 : 0);
    });
    EXPECT_EQ(outcome.out, "11");
}

TEST_F(DiagLogDirectory, AnEmptyChoiceReplacesTheStoredDirectory) {
    const Outcome outcome = run_in_child([this] {
        msg_open_diag_log(a.path.c_str());
        set_variables("", b.path, b.path);
        printf("<%s>", msg_open_diag_log(nullptr));
        printf("<%s>", msg_get_diag_dir());
        set_variables({}, {}, "/from the environment");
        printf("<%s>", msg_get_diag_dir());
    });
    EXPECT_EQ(outcome.out, "<><></from the environment>");
}

TEST_F(DiagLogDirectory, ATooLongDirectoryReplacesTheStoredOneToo) {
    const Outcome outcome = run_in_child([this] {
        set_variables({}, {}, "/from the environment");
        msg_open_diag_log(a.path.c_str());
        printf("<%s>", msg_open_diag_log(lengthened(b.path, 4096).c_str()));
        printf("<%s> %d", msg_get_diag_dir(), diagnostic_streams());
    });
    EXPECT_EQ(outcome.out, "<></from the environment> 0");
}

TEST_F(DiagLogDirectory, TheResultIsTheLibrarysOwnTextAndTheNextCallOverwritesIt) {
    const Outcome outcome = run_in_child([this] {
        char given[4096];
        snprintf(given, sizeof given, "%s", a.path.c_str());
        const char *first = msg_open_diag_log(given);
        memset(given, 'x', a.path.size());
        printf("%d", first == a.path ? 1 : 0);
        printf("%d", msg_get_diag_dir() == first ? 1 : 0);
        printf("%d", msg_open_diag_log(b.path.c_str()) == first && first == b.path ? 1 : 0);
    });
    EXPECT_EQ(outcome.out, "111");
}

TEST_F(DiagLogDirectory, APartOfTheStoredTextMayBePassedBackIn) {
    const Outcome outcome = run_in_child([this] {
        const std::string longer = "//" + lengthened(a.path, 3000);
        const char *stored = msg_open_diag_log(longer.c_str());
        printf("%d", msg_open_diag_log(stored + 1) == longer.substr(1) ? 1 : 0);
    });
    EXPECT_EQ(outcome.out, "1");
}

// The words that choose a standard stream at start-up are names of directories here. No
// such directory exists.
TEST_F(DiagLogDirectory, TheWordsOfTheStartUpDestinationAreNamesOfDirectories) {
    for (const char *word : {"0", "1", "2", "stdout", "stderr"}) {
        const Outcome outcome = run_in_child([this, word] {
            if (chdir(a.path.c_str()) != 0) {
                exit(2);
            }
            set_variables({}, word, b.path);
            const std::string tried = msg_open_diag_log(nullptr);
            msg_diag("lost\n");
            printf("%s %d", tried.c_str(), diagnostic_streams());
        });
        EXPECT_EQ(outcome.out, std::string(word) + " 0");
        EXPECT_EQ(outcome.err, "");
    }
}

TEST_F(DiagLogDirectory, ARelativeDirectoryIsLookedForInTheWorkingDirectory) {
    const Outcome outcome = run_in_child([this] {
        if (chdir(a.path.c_str()) != 0) {
            exit(2);
        }
        printf("%s ", msg_open_diag_log("."));
        printf("%d", exists(log_in(a.path)) ? 1 : 0);
    });
    EXPECT_EQ(outcome.out, ". 1");
}

TEST_F(DiagLogDirectory, EachWayToFailDetachesAllStreamsOfDiagnosticsAndNoOthers) {
    write_file(a.path + "/file", "");
    const std::string too_long = lengthened(a.path, 4096);
    for (const std::string &directory :
         {std::string(), a.path + "/missing", a.path + "/file", lengthened(a.path, 4095), too_long, a.path}) {
        const Outcome outcome = run_in_child([&directory] {
            set_variables("", {}, {});
            msg_add_stream(MSG_DIAG, stdout);
            msg_add_stream(MSG_DIAG, stderr);
            const Interposed failing(hook::open, fail_always(hook::open, EACCES, -1));
            msg_open_diag_log(directory.c_str());
            msg_diag("lost\n");
            for (const int type : {MSG_INFO, MSG_DEBUG, MSG_WARNING, MSG_ERROR, MSG_DIAG}) {
                printf("%d", _msg_get_stream_desc(type)->count);
            }
        });
        EXPECT_EQ(outcome.out, "11110") << directory;
        EXPECT_EQ(outcome.err, "") << directory;
        EXPECT_EQ(outcome.status, 0) << directory;
    }
}

TEST_F(DiagLogDirectory, TheTemporaryDirectoryComesFromNoOtherVariable) {
    const Outcome outcome = run_in_child([this] {
        set_variables(a.path, a.path, {});
        for (const char *name : {"TMPDIR", "TMP", "TEMP"}) {
            setenv(name, b.path.c_str(), 1);
        }
        msg_open_diag_log(nullptr);
        printf("%s", msg_get_tmpdir());
    });
    EXPECT_EQ(outcome.out, "/tmp");
}
