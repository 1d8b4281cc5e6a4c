// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The start-up hook: marker and variable, every request, what a started command finds in its environment.
#include <components/platform/debug_hooks.h>

#include <malloc/debug_heap.h>
#include <msg/msg.h>
#include <support/child.h>
#include <support/files.h>
#include <support/interpose.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace zel::test;

namespace {

// An argument vector that the hook may change, and the count that goes with it.
struct Arguments {
    explicit Arguments(std::vector<std::string> words) : texts(std::move(words)) {
        for (std::string &text : texts) {
            argv.push_back(text.data());
        }
        argv.push_back(nullptr);
        argc = static_cast<int32_t>(texts.size());
    }
    std::vector<std::string> texts;
    std::vector<char *> argv;
    int32_t argc = 0;
};

// A sleep that takes no time: the clock moves on by what was asked for.
struct FakeClock {
    std::vector<unsigned> sleeps;
    Interposed<unsigned(unsigned)> sleeping{hook::sleep, [this](unsigned seconds) {
                                                sleeps.push_back(seconds);
                                                now += seconds;
                                                return 0U;
                                            }};
    Interposed<int(clockid_t, timespec *)> clock{hook::clock_gettime, [this](clockid_t, timespec *time) {
                                                     *time = {.tv_sec = now, .tv_nsec = 0};
                                                     return 0;
                                                 }};
    time_t now = 1000;
};

// Calls the hook with these arguments and prints what is left of them, and the variable.
void hook_and_print(const std::vector<std::string> &words) {
    Arguments arguments(words);
    platform_debug_hooks(&arguments.argc, arguments.argv.data());
    printf("%d:", arguments.argc);
    for (char **argument = arguments.argv.data(); *argument != nullptr; ++argument) {
        printf(" %s", *argument);
    }
    const char *variable = getenv("ZEL_DEBUG");
    printf("; ZEL_DEBUG %s\n", variable == nullptr ? "unset" : (std::string("'") + variable + "'").c_str());
}

Outcome run_hook(const std::vector<std::string> &words, const char *variable = nullptr, const char *shell = nullptr) {
    return run_in_child([&] {
        unsetenv("ZEL_DIAGNOSTICS_PATH");
        unsetenv("ZEL_DEBUG");
        unsetenv("SHELL");
        if (variable != nullptr) {
            setenv("ZEL_DEBUG", variable, 1);
        }
        if (shell != nullptr) {
            setenv("SHELL", shell, 1);
        }
        hook_and_print(words);
    });
}

// A shell command that prints the three variables, one on a line, each in brackets.
constexpr const char *kPrintVariables =
    "printf '[%s]\\n' \"$ZEL_DEBUG_PROMPT\" \"$ZEL_EXE\" \"$ZEL_EXE_PARMS\" \"$ZEL_DEBUG\"";

std::string script(const ScratchFolder &folder, const std::string &name, const std::string &body) {
    const std::string path = folder.path + "/" + name;
    write_file(path, "#!/bin/sh\n" + body + "\n");
    EXPECT_EQ(chmod(path.c_str(), 0755), 0);
    return path;
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

TEST(DebugHooksMarker, NoDiagnosticsAreOpened) {
    const Outcome outcome = run_in_child([] {
        setenv("ZEL_DIAGNOSTICS_PATH", "stderr", 1);
        FakeClock clock;
        hook_and_print({"prog", "__ZEL_DEBUG__", "delay", "1"});
        msg_diag("no destination\n");
    });
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
}

TEST(DebugHooksMarker, ItWinsOverTheVariableWhichIsLeftAlone) {
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

TEST(DebugHooksMarker, OnlyTheFirstOneCounts) {
    const Outcome outcome = run_hook({"prog", "__ZEL_DEBUG__", "frob", "__ZEL_DEBUG__"});
    EXPECT_EQ(outcome.err, "\"__ZEL_DEBUG__ frob\" not a recognized debug op.\n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(DebugHooksMarker, ItIsSeenAtIndex510AndNotAt511) {
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

TEST(DebugHooksMarker, AsTheLastArgumentItStartsTheUsersShell) {
    const ScratchFolder folder;
    const std::string shell = script(folder, "shell", kPrintVariables);
    const Outcome outcome = run_hook({"/opt/x/prog", "a", "b c", "__ZEL_DEBUG__"}, nullptr, shell.c_str());
    EXPECT_EQ(outcome.out, "[debug prog]\n[/opt/x/prog]\n[a b c]\n[]\n");
    EXPECT_EQ(outcome.status, 0);
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

TEST(DebugHooksVariable, TheEndOfTheInputIsAnAnswerToo) {
    const Outcome outcome = run_hook({"prog"}, "prompt");
    EXPECT_EQ(outcome.err, "ZEL_DEBUG prompt>\n");
    EXPECT_EQ(outcome.out, "1: prog; ZEL_DEBUG ''\n");
}

TEST(DebugHooksVariable, AnEmptyOneDoesNothing) {
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

TEST(DebugHooksVariable, ItIsEmptiedBeforeTheRequestIsCarriedOut) {
    const Outcome outcome = run_hook({"prog"}, "using echo \"<$ZEL_DEBUG>\"");
    EXPECT_EQ(outcome.out, "<>\n");
}

TEST(DebugOp, OpsAreMatchedInAnyCaseOfLetters) {
    EXPECT_EQ(run_hook({"prog"}, "PROMPT").err, "ZEL_DEBUG prompt>\n");
    EXPECT_EQ(run_hook({"prog"}, "Using echo hi").out, "hi\n");
    EXPECT_EQ(run_hook({"prog"}, "eXeC /bin/echo hi").out, "hi\n");
    const Outcome outcome = run_in_child([] {
        FakeClock clock;
        platform_debug_op("prog", std::vector<char *>{nullptr}.data(), "DELAY 2");
        printf("%u", clock.sleeps.at(0));
    });
    EXPECT_EQ(outcome.out, "2");
}

TEST(DebugOp, WordsAreSeparatedByBlanksAndTabsAlike) {
    EXPECT_EQ(run_hook({"prog"}, " \t using\t echo \t a\tb  c \t").out, "a b c\n");
}

TEST(DebugOp, ADelayTakesItsSecondsFromTheFirstWord) {
    const std::vector<std::pair<const char *, std::string>> cases = {
        {"delay", "30"},  {"delay 7", "7"}, {"delay 12abc", "12"}, {"delay abc", ""},
        {"delay -5", ""}, {"delay 0", ""},  {"delay 3 4 5", "3"}};
    for (const auto &[request, slept] : cases) {
        const Outcome outcome = run_in_child([request = request] {
            FakeClock clock;
            platform_debug_op("prog", std::vector<char *>{nullptr}.data(), request);
            for (const unsigned seconds : clock.sleeps) {
                printf("%u", seconds);
            }
        });
        EXPECT_EQ(outcome.out, slept) << request;
        EXPECT_EQ(outcome.status, 0) << request;
    }
}

TEST(DebugOp, APromptWithWordsWritesEachAndABlank) {
    EXPECT_EQ(run_hook({"prog"}, "prompt attach \t now").err, "attach now \n");
}

TEST(DebugOp, APromptReadsAtMost254Characters) {
    const ScratchFolder folder;
    write_file(folder.path + "/input", std::string(300, 'x') + "\n");
    const Outcome outcome = run_in_child([&folder] {
        if (freopen((folder.path + "/input").c_str(), "r", stdin) == nullptr) {
            exit(2);
        }
        platform_debug_op("prog", std::vector<char *>{nullptr}.data(), "prompt");
        int left = 0;
        while (getchar() != EOF) {
            ++left;
        }
        printf("%d", left);
    });
    EXPECT_EQ(outcome.out, std::to_string(301 - 254));
}

TEST(DebugOp, UsingRunsAShellCommandLine) {
    EXPECT_EQ(run_hook({"prog"}, "using echo $((1 + 2)); exit 7").out, "3\n");
    EXPECT_EQ(run_hook({"prog"}, "using echo $((1 + 2)); exit 7").status, 7);
}

TEST(DebugOp, TheShellOfACommandIsCalledSh) {
    EXPECT_EQ(run_hook({"prog"}, "using echo $0").out, "sh\n");
}

TEST(DebugOp, UsingWithoutACommandRunsTheUsersShell) {
    const ScratchFolder folder;
    const std::string shell = script(folder, "shell", "echo the shell has $# arguments");
    EXPECT_EQ(run_hook({"prog"}, "using", shell.c_str()).out, "the shell has 0 arguments\n");
}

TEST(DebugOp, AnEmptyRequestRunsTheUsersShell) {
    const ScratchFolder folder;
    const std::string shell = script(folder, "shell", "echo here");
    EXPECT_EQ(run_hook({"prog"}, " \t ", shell.c_str()).out, "here\n");
}

TEST(DebugOp, WithoutAShellInTheEnvironmentItIsTcsh) {
    const ScratchFolder folder;
    script(folder, "tcsh", "echo tcsh was started");
    const Outcome outcome = run_in_child([&folder] {
        unsetenv("SHELL");
        setenv("PATH", folder.path.c_str(), 1);
        setenv("ZEL_DEBUG", "using", 1);
        hook_and_print({"prog"});
    });
    EXPECT_EQ(outcome.out, "tcsh was started\n");
}

TEST(DebugOp, ExecStartsTheProgramWithItselfAsTheFirstArgument) {
    const ScratchFolder folder;
    const std::string program = script(folder, "program", "echo \"$0 $# $1|$2\"\n" + std::string(kPrintVariables));
    const Outcome outcome = run_hook({"/opt/x/prog", "own", "__ZEL_DEBUG__", "exec", program, "a", "b"});
    EXPECT_EQ(outcome.out, program + " 2 a|b\n[debug prog]\n[/opt/x/prog]\n[own]\n[]\n");
}

TEST(DebugOp, ExecDoesNotSearchThePath) {
    const Outcome outcome = run_hook({"prog"}, "exec echo");
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "\"__ZEL_DEBUG__ exec\" w/execv() call failed.\n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(DebugOp, ExecWithoutAProgramFailsLikeOneThatCannotBeStarted) {
    const Outcome outcome = run_hook({"prog"}, "exec");
    EXPECT_EQ(outcome.err, "\"__ZEL_DEBUG__ exec\" w/execv() call failed.\n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(DebugOp, AShellThatCannotBeStartedIsSaidAndEndsTheProcess) {
    const Outcome outcome = run_in_child([] {
        // An argument vector beyond what the system takes fails any exec.
        const std::string request = "using " + std::string(200000, 'x');
        platform_debug_op("prog", std::vector<char *>{nullptr}.data(), request.c_str());
    });
    EXPECT_EQ(outcome.err, "\"__ZEL_DEBUG__ using\" w/execl() call failed.\n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(DebugOp, AnUnknownOpIsSaidAndEndsTheProcess) {
    const Outcome outcome = run_hook({"prog", "__ZEL_DEBUG__", "frob", "x"});
    EXPECT_EQ(outcome.err, "\"__ZEL_DEBUG__ frob\" not a recognized debug op.\n");
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.status, 1);
}

TEST(DebugOp, AProgramNameWithoutASlashIsTheWholePrompt) {
    EXPECT_EQ(run_hook({"prog"}, "using echo \"$ZEL_DEBUG_PROMPT\"").out, "debug prog\n");
    EXPECT_EQ(run_hook({"./bin/prog"}, "using echo \"$ZEL_DEBUG_PROMPT\"").out, "debug prog\n");
}

TEST(DebugOp, LongRequestsAndValuesAreNotCut) {
    const std::string name(3000, 'n');
    const std::string argument(9000, 'a');
    const Outcome outcome =
        run_hook({"/opt/" + name, argument, "__ZEL_DEBUG__", "using", kPrintVariables, "#" + std::string(9000, 'c')});
    EXPECT_EQ(outcome.out, "[debug " + name + "]\n[/opt/" + name + "]\n[" + argument + "]\n[]\n");
}

TEST(DebugOp, TheHookDoesNotEndThePeriodBeforeTheFirstAllocation) {
    const Outcome outcome = run_in_child([] {
        FakeClock clock;
        hook_and_print({"prog", "a", "__ZEL_DEBUG__", "delay", "1"});
        zel_enable_malloc_debug(1);
        printf("on\n");
    });
    EXPECT_EQ(outcome.out, "2: prog a; ZEL_DEBUG unset\non\n");
    EXPECT_EQ(outcome.err, "");
}

TEST(DebugHooksVariable, AtMost510ArgumentsAreHandedOn) {
    std::vector<std::string> words(601, "a");
    const Outcome outcome = run_hook(words, "using set -- $ZEL_EXE_PARMS; echo $#");
    EXPECT_EQ(outcome.out, "510\n");
}

namespace {

// The environment's own variables of the runtime, in the order in which they stand there.
void print_variables() {
    for (char **entry = environ; *entry != nullptr; ++entry) {
        if (strncmp(*entry, "ZEL_", 4) == 0) {
            printf("%s\n", *entry);
        }
    }
}

} // namespace

TEST(DebugOp, TheThreeVariablesAreSetInTheirOrder) {
    const Outcome outcome = run_in_child([] {
        clearenv();
        atexit(print_variables);
        char own[] = "a";
        platform_debug_op("/x/prog", std::vector<char *>{own, nullptr}.data(), "exec /no/such/program");
    });
    EXPECT_EQ(outcome.out, "ZEL_DEBUG_PROMPT=debug prog\nZEL_EXE=/x/prog\nZEL_EXE_PARMS=a\n");
}

TEST(DebugOp, AnUnknownOpIsRepeatedAsItWasTyped) {
    EXPECT_EQ(run_hook({"prog"}, "FrOb").err, "\"__ZEL_DEBUG__ FrOb\" not a recognized debug op.\n");
}

TEST(DebugOp, AShellThatIsSetButEmptyIsTakenAsItIs) {
    const Outcome outcome = run_hook({"prog"}, "using", "");
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.status, 0) << "an empty command line ends well";
}
