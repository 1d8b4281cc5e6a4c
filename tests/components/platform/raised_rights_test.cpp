// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Programs with rights that their caller lacks: what the caller's environment says to the library does not count.
#include "debug_hooks_support.h"

#include <components/platform/environment.h>
#include <components/platform/file_control.h>
#include <msg/diag_log.h>
#include <msg/msg.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/auxv.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

using namespace zel::test;

namespace {

constexpr const char *kVariables[] = {
    "ZEL_DEBUG", "ZEL_DIAGNOSTICS_PATH", "ZEL_DIAG_DIR", "ZEL_TMPDIR", "TMP", "TEMP", "ZEL_DIST", "ZEL_PERROR"};

// The kernel says that the process has rights that its caller lacks. The C library's own look-up may change errno.
struct RaisedRights {
    Interposed<unsigned long(unsigned long)> saying{hook::getauxval, [](unsigned long type) {
                                                        errno = ENOENT;
                                                        return type == AT_SECURE ? 1UL : hook::getauxval.real(type);
                                                    }};
};

// Whether a set-user-ID program in this folder gets its owner's rights when this process starts it.
bool programs_get_rights_in(const std::string &folder) {
    struct statvfs status = {};
    statvfs(folder.c_str(), &status);
    return geteuid() == 0 && (status.f_flag & ST_NOSUID) == 0 && prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0) == 0;
}

// In a child: every variable says the same.
void set_all(const std::string &value) {
    for (const char *name : kVariables) {
        setenv(name, value.c_str(), 1);
    }
}

} // namespace

TEST(RaisedRights, TheHookTakesNoRequestFromTheVariable) {
    const Outcome outcome = run_in_child([] {
        const RaisedRights raised;
        setenv("ZEL_DEBUG", "exec /bin/echo obeyed", 1);
        hook_and_print({"prog", "a"});
    });
    EXPECT_EQ(outcome.out, "2: prog a; ZEL_DEBUG unset\n");
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
}

TEST(RaisedRights, TheMarkerAndWhatFollowsAreArgumentsLikeAnyOther) {
    const Outcome outcome = run_in_child([] {
        const RaisedRights raised;
        hook_and_print({"prog", "__ZEL_DEBUG__", "exec", "/bin/echo", "obeyed"});
    });
    EXPECT_EQ(outcome.out, "5: prog __ZEL_DEBUG__ exec /bin/echo obeyed; ZEL_DEBUG unset\n");
    EXPECT_EQ(outcome.status, 0);
}

TEST(RaisedRights, TheHookTakesTheVariablesOutOfTheEnvironment) {
    const Outcome outcome = run_in_child([] {
        const RaisedRights raised;
        set_all("/tmp");
        setenv("SHELL", "/bin/sh", 1);
        call_hook({"prog"});
        for (const char *name : kVariables) {
            printf("%s", getenv(name) == nullptr ? "" : name);
        }
        printf("; %s", getenv("SHELL"));
    });
    EXPECT_EQ(outcome.out, "; /bin/sh");
}

TEST(RaisedRights, WithoutRaisedRightsTheVariablesStay) {
    const Outcome outcome = run_in_child([] {
        set_all("0");
        unsetenv("ZEL_DEBUG");
        call_hook({"prog"});
        for (const char *name : kVariables) {
            printf("%s", getenv(name) == nullptr ? name : "");
        }
    });
    EXPECT_EQ(outcome.out, "ZEL_DEBUG");
}

TEST(RaisedRights, TheArgumentsAreStillEchoedToTheProgramsOwnStreams) {
    const Outcome outcome = run_in_child([] {
        const RaisedRights raised;
        msg_add_stream(MSG_DIAG, stderr);
        call_hook({"prog", "a"});
    });
    EXPECT_EQ(outcome.err, "argv[0] = \"prog\"\nargv[1] = \"a\"\n");
}

TEST(RaisedRights, NoDiagnosticsDestinationIsTakenFromTheVariables) {
    for (const char *destination : {"stdout", "stderr", "/no/such/directory", "/tmp"}) {
        const Outcome outcome = run_in_child([destination] {
            const RaisedRights raised;
            const FakeClock clock;
            set_all(destination);
            platform_open_diagnostics("x");
            printf("%d streams", _msg_get_stream_desc(MSG_DIAG)->count);
        });
        EXPECT_EQ(outcome.out, "0 streams") << destination;
    }
}

TEST(RaisedRights, NoDirectoryOfTheLogIsTakenFromTheVariables) {
    const ScratchFolder folder;
    const Outcome outcome = run_in_child([&folder] {
        const RaisedRights raised;
        set_all(folder.path);
        printf("%s %s ", msg_get_diag_dir(), msg_get_tmpdir());
        const Interposed refusing(hook::open, fail_always(hook::open, EACCES, -1));
        printf("%s", msg_open_diag_log(nullptr));
    });
    EXPECT_EQ(outcome.out, "/tmp /tmp /tmp");
}

TEST(RaisedRights, NoDistributionNameIsReadAndNoErrorIsReported) {
    const ScratchFolder folder;
    std::filesystem::create_directory(folder.path + "/dist");
    write_file(folder.path + "/dist/DISTRIBUTION", "somebody's");
    const Outcome outcome = run_in_child([&folder] {
        const RaisedRights raised;
        set_all(folder.path);
        platform_perror("not to standard output");
        printf("%s", platform_dist_name() == nullptr ? "null" : "a name");
    });
    EXPECT_EQ(outcome.out, "null");
}

TEST(RaisedRights, TheSystemsLookUpStaysAsItIs) {
    const Outcome outcome = run_in_child([] {
        const RaisedRights raised;
        setenv("ZEL_TMPDIR", "/elsewhere", 1);
        printf("%s", platform_getenv("ZEL_TMPDIR"));
    });
    EXPECT_EQ(outcome.out, "/elsewhere");
}

TEST(RaisedRights, AskingForRaisedRightsLeavesErrnoAlone) {
    const Outcome outcome = run_in_child([] {
        const RaisedRights raised;
        errno = EDOM;
        msg_get_tmpdir();
        printf("%s", errno == EDOM ? "kept" : "changed");
    });
    EXPECT_EQ(outcome.out, "kept");
}

TEST(RaisedRights, NoToolIsSearchedAlongThePath) {
    const ScratchFolder folder;
    for (const char *tool : {"rm", "cp", "mv"}) {
        script(folder, tool, "echo obeyed");
    }
    for (const bool raised : {false, true}) {
        const Outcome outcome = run_in_child([&folder, raised] {
            const Interposed saying(hook::getauxval, [raised](unsigned long) { return raised ? 1UL : 0UL; });
            const Interposed hiding(hook::access, [](const char *path, int mode) {
                const bool fixed = std::string(path).starts_with("/bin/") || std::string(path).starts_with("/usr/bin/");
                return fixed ? -1 : hook::access.real(path, mode);
            });
            setenv("PATH", (folder.path + ":/bin:/usr/bin").c_str(), 1);
            const std::string target = folder.path + "/target";
            printf("%d", platform_remove_tree(target.c_str()));
            printf("%d", platform_copy_tree(target.c_str(), target.c_str()));
            printf("%d", platform_move_tree(folder.path.c_str(), target.c_str()));
        });
        EXPECT_EQ(outcome.out, raised ? "000" : "obeyed\n1obeyed\n1obeyed\n1");
    }
}

// A program with a set-user-ID bit and another owner. Where this process or the file system cannot give it rights it is
// an ordinary program, which does what it is told.
TEST(RaisedRights, ARealProgramWithRaisedRightsDoesNotObeyItsCaller) {
    constexpr uid_t kNobody = 65534;
    const ScratchFolder folder;
    const std::string program = folder.path + "/program";
    const bool raised = programs_get_rights_in(folder.path);
    std::filesystem::copy_file(companion_path("rights_probe"), program);
    if (raised) {
        ASSERT_EQ(chown(program.c_str(), kNobody, static_cast<gid_t>(-1)), 0);
    }
    ASSERT_EQ(chmod(program.c_str(), 04755), 0);
    const auto start = [&](const std::vector<std::string> &arguments) {
        return run_in_child([&] {
            set_all("exec /bin/echo obeyed");
            std::vector<std::string> words = {program};
            words.insert(words.end(), arguments.begin(), arguments.end());
            Arguments vector(words);
            execv(program.c_str(), vector.argv.data());
            _exit(127);
        });
    };
    EXPECT_EQ(start({"a"}).out, raised ? "2 arguments, logs in /tmp\n" : "obeyed\n");
    EXPECT_EQ(start({"__ZEL_DEBUG__", "exec", "/bin/echo", "obeyed"}).out,
              raised ? "5 arguments, logs in /tmp\n" : "obeyed\n");
}
