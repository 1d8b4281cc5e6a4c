// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The start-up hook: where the request comes from, and what becomes of the arguments and the variable.
#include "debug_hooks_support.h"

#include <msg/msg.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <string>
#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>
#include <vector>

using namespace zel::test;

namespace {

// A stack of its own. The system gives it a page when something on it is touched.
class FreshStack {
public:
    FreshStack() {
        EXPECT_NE(area_, MAP_FAILED);
        madvise(area_, kSize, MADV_NOHUGEPAGE); // or a page would be many
    }
    FreshStack(const FreshStack &) = delete;
    FreshStack &operator=(const FreshStack &) = delete;
    ~FreshStack() { munmap(area_, kSize); }

    void run(void (*function)()) {
        ucontext_t here;
        ucontext_t there;
        ASSERT_EQ(getcontext(&there), 0);
        there.uc_stack = {.ss_sp = area_, .ss_flags = 0, .ss_size = kSize};
        there.uc_link = &here;
        makecontext(&there, function, 0);
        ASSERT_EQ(swapcontext(&here, &there), 0);
    }

    size_t touched() const {
        const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        std::vector<unsigned char> pages(kSize / page);
        EXPECT_EQ(mincore(area_, kSize, pages.data()), 0);
        const auto count = std::count_if(pages.begin(), pages.end(), [](unsigned char entry) { return entry & 1; });
        return static_cast<size_t>(count) * page;
    }

private:
    static constexpr size_t kSize = 1 << 20;
    void *area_ = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
};

void start_without_request() {
    static Arguments arguments({"prog", "a", "__b"});
    platform_debug_hooks(&arguments.argc, arguments.argv.data());
}

} // namespace

TEST(DebugHooks, WithoutARequestTheArgumentsStayAsTheyAre) {
    const Outcome outcome = run_hook({"prog", "a", "b"});
    EXPECT_EQ(outcome.out, "3: prog a b; ZEL_DEBUG unset\n");
    EXPECT_EQ(outcome.err, "");
}

TEST(DebugHooks, WithoutARequestTheDiagnosticsAreOpenedAndTheArgumentsEchoed) {
    const Outcome outcome = run_in_child([] {
        unsetenv("ZEL_DEBUG");
        setenv("ZEL_DIAGNOSTICS_PATH", "stderr", 1);
        Arguments arguments({"prog", "a"});
        platform_debug_hooks(&arguments.argc, arguments.argv.data());
    });
    EXPECT_EQ(outcome.err, "argv[0] = \"prog\"\nargv[1] = \"a\"\n");
}

TEST(DebugHooks, WithoutARequestNoLargeTextOrListTouchesTheStack) {
    const Outcome outcome = run_in_child([] {
        unsetenv("ZEL_DEBUG");
        unsetenv("ZEL_DIAGNOSTICS_PATH");
        msg_set_print_prefix("as in a program whose messages are in use");
        FreshStack first; // what is linked and interposed on the first call takes more
        first.run(start_without_request);
        FreshStack second;
        second.run(start_without_request);
        printf("%zu bytes", second.touched());
    });
    EXPECT_EQ(outcome.out, "4096 bytes");
}

TEST(DebugHooks, AnExplicitNameGoesIntoTheDiagnosticsFile) {
    const ScratchFolder folder;
    const Outcome outcome = run_in_child([&folder] {
        FakeClock clock;
        setenv("ZEL_DIAGNOSTICS_PATH", folder.path.c_str(), 1);
        unsetenv("ZEL_DEBUG");
        Arguments arguments({"/opt/bin/zelprog"});
        platform_debug_hooks_named(&arguments.argc, arguments.argv.data(), "named");
        const std::string command = "ls " + folder.path;
        execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
    });
    EXPECT_TRUE(outcome.out.ends_with("named.log\n")) << outcome.out;
    EXPECT_TRUE(outcome.out.starts_with("zel")) << outcome.out;
}

TEST(DebugHooks, NoArgumentsAtAllAreNoRequest) {
    const Outcome outcome = run_in_child([] {
        unsetenv("ZEL_DEBUG");
        unsetenv("ZEL_DIAGNOSTICS_PATH");
        char *argv[] = {nullptr};
        int32_t argc = 0;
        platform_debug_hooks(&argc, argv);
        printf("%d", argc);
    });
    EXPECT_EQ(outcome.out, "0");
    EXPECT_EQ(outcome.status, 0);
}

TEST(DebugHooks, WithoutANameTheDiagnosticsFilesNameComesFromTheProgram) {
    const ScratchFolder folder;
    const Outcome outcome = run_in_child([&folder] {
        const FakeClock clock;
        setenv("ZEL_DIAGNOSTICS_PATH", folder.path.c_str(), 1);
        unsetenv("ZEL_DEBUG");
        call_hook({"/opt/bin/kyrelsolver.x"});
        const std::string command = "ls " + folder.path;
        execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
    });
    EXPECT_TRUE(outcome.out.ends_with("solver.log\n")) << outcome.out;
    EXPECT_EQ(outcome.out.size(), std::string("zelYYMMDDHHMMSSsolver.log\n").size()) << outcome.out;
}

TEST(DebugHooks, NothingIsRememberedFromOneCallToTheNext) {
    const Outcome outcome = run_in_child([] {
        const FakeClock clock;
        unsetenv("ZEL_DIAGNOSTICS_PATH");
        setenv("ZEL_DEBUG", "delay 1", 1);
        hook_and_print({"prog", "a"});
        setenv("ZEL_DEBUG", "delay 2", 1);
        hook_and_print({"prog", "b"});
        hook_and_print({"prog", "c", "__ZEL_DEBUG__", "delay", "3"});
        for (const unsigned seconds : clock.sleeps) {
            printf("slept %u\n", seconds);
        }
    });
    EXPECT_EQ(outcome.out, "2: prog a; ZEL_DEBUG ''\n2: prog b; ZEL_DEBUG ''\n2: prog c; ZEL_DEBUG ''\n"
                           "slept 1\nslept 2\nslept 3\n");
}

TEST(DebugHooksMarker, ADelayCutsMarkerAndRequestFromTheArguments) {
    for (const char *marker : {"__ZEL_DEBUG__", "__zel_debug__", "__Zel_Debug__"}) {
        const Outcome outcome = run_in_child([marker] {
            unsetenv("ZEL_DEBUG");
            FakeClock clock;
            hook_and_print({"prog", "a", "b", marker, "delay", "5"});
            for (const unsigned seconds : clock.sleeps) {
                printf("slept %u\n", seconds);
            }
        });
        EXPECT_EQ(outcome.out, "3: prog a b; ZEL_DEBUG unset\nslept 5\n") << marker;
    }
}

TEST(DebugHooksMarker, AMarkerOpensNoDiagnostics) {
    const Outcome outcome = run_in_child([] {
        setenv("ZEL_DIAGNOSTICS_PATH", "stderr", 1);
        FakeClock clock;
        hook_and_print({"prog", "__ZEL_DEBUG__", "delay", "1"});
        msg_diag("no destination\n");
    });
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
}

TEST(DebugHooksMarker, TheMarkerWinsOverTheVariableWhichIsLeftAlone) {
    const Outcome outcome = run_in_child([] {
        setenv("ZEL_DEBUG", "frob", 1);
        FakeClock clock;
        hook_and_print({"prog", "__ZEL_DEBUG__", "delay", "1"});
    });
    EXPECT_EQ(outcome.out, "1: prog; ZEL_DEBUG 'frob'\n");
    EXPECT_EQ(outcome.err, "");
}

TEST(DebugHooksMarker, TheProgramsOwnNameIsNoMarker) {
    const Outcome outcome = run_hook({"__ZEL_DEBUG__", "frob"});
    EXPECT_EQ(outcome.out, "2: __ZEL_DEBUG__ frob; ZEL_DEBUG unset\n");
    EXPECT_EQ(outcome.status, 0);
}

TEST(DebugHooksMarker, OnlyTheFirstMarkerCounts) {
    const Outcome outcome = run_hook({"prog", "__ZEL_DEBUG__", "frob", "__ZEL_DEBUG__"});
    EXPECT_EQ(outcome.err, "\"__ZEL_DEBUG__ frob\" not a recognized debug op.\n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(DebugHooksMarker, TheMarkerIsSeenAtIndex510AndNotAt511) {
    std::vector<std::string> words(510, "a");
    words.insert(words.end(), {"__ZEL_DEBUG__", "frob"});
    EXPECT_EQ(run_hook(words).status, 1);
    words.insert(words.begin() + 1, "a");
    const Outcome outcome = run_hook(words);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_TRUE(outcome.out.starts_with("513: a a")) << outcome.out.substr(0, 40);
}

TEST(DebugHooksMarker, TheRequestReachesBeyondTheScannedArguments) {
    std::vector<std::string> words = {"prog", "__ZEL_DEBUG__", "using", "echo"};
    words.insert(words.end(), 600, "x");
    words.emplace_back("end");
    const Outcome outcome = run_hook(words);
    EXPECT_TRUE(outcome.out.ends_with(" x x end\n"));
    EXPECT_EQ(outcome.out.size(), std::string("end\n").size() + 600 * 2);
}

TEST(DebugHooksMarker, AMarkerAsTheLastArgumentStartsTheUsersShell) {
    const ScratchFolder folder;
    const std::string shell = script(folder, "shell", kPrintVariables);
    const Outcome outcome = run_hook({"/opt/x/prog", "a", "b c", "__ZEL_DEBUG__"}, nullptr, shell.c_str());
    EXPECT_EQ(outcome.out, "[debug prog]\n[/opt/x/prog]\n[a b c]\n[]\n");
    EXPECT_EQ(outcome.status, 0);
}

TEST(DebugHooksMarker, EachMixtureOfSmallAndCapitalLettersIsTheMarker) {
    const Outcome outcome = run_in_child([] {
        const std::vector<size_t> letters = {2, 3, 4, 6, 7, 8, 9, 10};
        int found = 0;
        for (unsigned mixture = 0; mixture < 256; ++mixture) {
            std::string marker = "__ZEL_DEBUG__";
            for (size_t index = 0; index < letters.size(); ++index) {
                char &letter = marker[letters[index]];
                letter = static_cast<char>((mixture >> index & 1) != 0 ? tolower(letter) : letter);
            }
            Arguments arguments({"prog", marker, "delay", "0"});
            platform_debug_hooks(&arguments.argc, arguments.argv.data());
            found += arguments.argc == 1 && arguments.argv[1] == nullptr ? 1 : 0;
        }
        printf("%d", found);
    });
    EXPECT_EQ(outcome.out, "256");
}

TEST(DebugHooksMarker, WhereverTheMarkerStandsTheArgumentsEndThere) {
    const Outcome outcome = run_in_child([] {
        for (size_t position = 1; position <= 510; ++position) {
            std::vector<std::string> words(520, "a");
            words[position] = "__ZEL_DEBUG__";
            words[position + 1] = "delay";
            words[position + 2] = "0";
            Arguments arguments(words);
            const std::vector<char *> before = arguments.argv;
            platform_debug_hooks(&arguments.argc, arguments.argv.data());
            const bool kept = std::equal(before.begin(), before.begin() + arguments.argc, arguments.argv.begin());
            if (arguments.argc != static_cast<int32_t>(position) || arguments.argv[position] != nullptr || !kept) {
                printf("not at %zu\n", position);
            }
        }
    });
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.status, 0);
}

TEST(DebugHooksMarker, AWordThatContainsTheMarkerOrIsAPartOfItIsAnArgument) {
    for (const char *word :
         {"__ZEL_DEBUG__x", "x__ZEL_DEBUG__", "__ZEL_DEBUG_", "_ZEL_DEBUG__", "__ZEL_DEBUG__ frob"}) {
        const Outcome outcome = run_hook({"prog", word, "frob"});
        EXPECT_EQ(outcome.out, "3: prog " + std::string(word) + " frob; ZEL_DEBUG unset\n");
        EXPECT_EQ(outcome.err, "") << word;
    }
}

TEST(DebugHooksMarker, TheArgumentsAreCutBeforeTheRequestIsCarriedOut) {
    static Arguments arguments({"prog", "a", "__ZEL_DEBUG__", "frob"});
    const Outcome outcome = run_in_child([] {
        atexit([] { printf("%d %s", arguments.argc, arguments.argv[2] == nullptr ? "cut" : "whole"); });
        platform_debug_hooks(&arguments.argc, arguments.argv.data());
    });
    EXPECT_EQ(outcome.out, "2 cut");
    EXPECT_EQ(outcome.status, 1);
}

TEST(DebugHooksMarker, EmptyArgumentsBeforeTheMarkerKeepTheirPlace) {
    const Outcome outcome =
        run_hook({"prog", "", "a", "", "", "b", "__ZEL_DEBUG__", "using", "echo", "\"<$ZEL_EXE_PARMS>\""});
    EXPECT_EQ(outcome.out, "< a   b>\n");
}

TEST(DebugHooksMarker, EmptyArgumentsAfterTheMarkerAreAnEmptyRequest) {
    const ScratchFolder folder;
    const std::string shell = script(folder, "shell", "echo here");
    EXPECT_EQ(run_hook({"prog", "__ZEL_DEBUG__", ""}, nullptr, shell.c_str()).out, "here\n");
    EXPECT_EQ(run_hook({"prog", "__ZEL_DEBUG__", "", ""}, nullptr, shell.c_str()).out, "here\n");
}

TEST(DebugHooksMarker, AnArgumentWithBlanksIsSeveralWordsOfTheRequest) {
    EXPECT_EQ(run_hook({"prog", "__ZEL_DEBUG__", "prompt attach", "to\tit"}).err, "attach to it \n");
}

TEST(DebugHooksMarker, APromptOfTheMarkerOpensNoDiagnostics) {
    const Outcome outcome = run_in_child([] {
        setenv("ZEL_DIAGNOSTICS_PATH", "stderr", 1);
        hook_and_print({"prog", "a", "__ZEL_DEBUG__", "prompt"});
        msg_diag("no destination\n");
    });
    EXPECT_EQ(outcome.err, "ZEL_DEBUG prompt>\n");
    EXPECT_TRUE(outcome.out.starts_with("2: prog a;")) << outcome.out;
}

TEST(DebugHooksVariable, APromptWaitsForALineAndTheVariableIsEmptied) {
    const ScratchFolder folder;
    write_file(folder.path + "/input", "first\nsecond\n");
    const Outcome outcome = run_in_child([&folder] {
        setenv("ZEL_DEBUG", "prompt", 1);
        if (freopen((folder.path + "/input").c_str(), "r", stdin) == nullptr) {
            exit(2);
        }
        hook_and_print({"prog", "a"});
        char rest[32];
        printf("%s", fgets(rest, sizeof rest, stdin));
    });
    EXPECT_EQ(outcome.err, "ZEL_DEBUG prompt>\n");
    EXPECT_EQ(outcome.out, "2: prog a; ZEL_DEBUG ''\nsecond\n");
}

TEST(DebugHooksVariable, TheEndOfTheInputAnswersAPrompt) {
    const Outcome outcome = run_hook({"prog"}, "prompt");
    EXPECT_EQ(outcome.err, "ZEL_DEBUG prompt>\n");
    EXPECT_EQ(outcome.out, "1: prog; ZEL_DEBUG ''\n");
}

TEST(DebugHooksVariable, AnEmptyVariableDoesNothing) {
    const Outcome outcome = run_hook({"prog"}, "");
    EXPECT_EQ(outcome.out, "1: prog; ZEL_DEBUG ''\n");
    EXPECT_EQ(outcome.err, "");
}

TEST(DebugHooksVariable, TheDiagnosticsAreOpenedWhenTheRequestHasReturned) {
    const Outcome outcome = run_in_child([] {
        setenv("ZEL_DEBUG", "prompt now", 1);
        setenv("ZEL_DIAGNOSTICS_PATH", "2", 1);
        Arguments arguments({"prog"});
        platform_debug_hooks(&arguments.argc, arguments.argv.data());
    });
    EXPECT_EQ(outcome.err, "now \nargv[0] = \"prog\"\n");
}

TEST(DebugHooksVariable, AllArgumentsAreTheProgramsOwn) {
    const Outcome outcome = run_hook({"prog", "a", "b"}, (std::string("using ") + kPrintVariables).c_str());
    EXPECT_EQ(outcome.out, "[debug prog]\n[prog]\n[a b]\n[]\n");
}

TEST(DebugHooksVariable, TheVariableIsEmptiedBeforeTheRequestIsCarriedOut) {
    const Outcome outcome = run_hook({"prog"}, "using echo \"<$ZEL_DEBUG>\"");
    EXPECT_EQ(outcome.out, "<>\n");
}

TEST(DebugHooksVariable, AtMost510ArgumentsAreHandedOn) {
    std::vector<std::string> words(601, "a");
    const Outcome outcome = run_hook(words, "using set -- $ZEL_EXE_PARMS; echo $#");
    EXPECT_EQ(outcome.out, "510\n");
}

TEST(DebugHooksVariable, TheDiagnosticsAreOpenedAfterADelayToo) {
    const Outcome outcome = run_in_child([] {
        const FakeClock clock;
        setenv("ZEL_DEBUG", "delay 3", 1);
        setenv("ZEL_DIAGNOSTICS_PATH", "2", 1);
        call_hook({"prog", "a"});
        printf("slept %u", clock.sleeps.at(0));
    });
    EXPECT_EQ(outcome.out, "slept 3");
    EXPECT_EQ(outcome.err, "argv[0] = \"prog\"\nargv[1] = \"a\"\n");
}

TEST(DebugHooksVariable, WithoutAnyArgumentsTheProgramHasTheEmptyName) {
    const Outcome outcome = run_hook({}, (std::string("using ") + kPrintVariables).c_str());
    EXPECT_EQ(outcome.out, "[debug ]\n[]\n[]\n[]\n");
}

TEST(DebugHooksVariable, ALongRequestIsNotCut) {
    const std::string request = "using echo " + std::string(9000, 'x') + " y";
    EXPECT_EQ(run_hook({"prog"}, request.c_str()).out, std::string(9000, 'x') + " y\n");
}
