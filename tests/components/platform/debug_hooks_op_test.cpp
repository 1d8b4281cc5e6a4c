// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The requests of the start-up hook, and what a started command finds in its environment.
#include "debug_hooks_support.h"

#include <malloc/debug_heap.h>

#include <cctype>
#include <cstdlib>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace zel::test;

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

TEST(DebugOp, OpsAreMatchedInAnyCaseOfLetters) {
    EXPECT_EQ(run_hook({"prog"}, "PROMPT").err, "ZEL_DEBUG prompt>\n");
    EXPECT_EQ(run_hook({"prog"}, "Using echo hi").out, "hi\n");
    EXPECT_EQ(run_hook({"prog"}, "eXeC /bin/echo hi").out, "hi\n");
    const Outcome outcome = run_in_child([] {
        FakeClock clock;
        carry_out("DELAY 2");
        printf("%u", clock.sleeps.at(0));
    });
    EXPECT_EQ(outcome.out, "2");
}

TEST(DebugOp, WordsAreSeparatedByBlanksAndTabsAlike) {
    EXPECT_EQ(run_hook({"prog"}, " \t using\t echo \t a\tb  c \t").out, "a b c\n");
}

TEST(DebugOp, ADelayTakesItsSecondsFromTheFirstWord) {
    const std::vector<std::pair<const char *, std::string>> cases = {{"delay", "30"},
                                                                     {"delay 7", "7"},
                                                                     {"delay 12abc", "12"},
                                                                     {"delay abc", ""},
                                                                     {"delay -5", ""},
                                                                     {"delay 0", ""},
                                                                     {"delay 3 4 5", "3"},
                                                                     {"delay 010", "10"},
                                                                     {"delay 0x10", ""},
                                                                     {"delay +4", "4"},
                                                                     {"delay 99999999999", "2147483647"},
                                                                     {"delay -99999999999", ""}};
    for (const auto &[request, slept] : cases) {
        const Outcome outcome = run_in_child([request = request] {
            FakeClock clock;
            carry_out(request);
            for (const unsigned seconds : clock.sleeps) {
                printf("%u", seconds);
            }
        });
        EXPECT_EQ(outcome.out, slept) << request;
        EXPECT_EQ(outcome.status, 0) << request;
    }
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

TEST(DebugOp, ExecOfAProgramWithoutArgumentsGivesItItsNameAlone) {
    const ScratchFolder folder;
    const std::string program = script(folder, "program", "echo \"$0 $#\"");
    const Outcome outcome = run_hook({"prog", "own", "__ZEL_DEBUG__", "exec", program});
    EXPECT_EQ(outcome.out, program + " 0\n");
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
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
        carry_out(request);
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

TEST(DebugOp, EachMixtureOfSmallAndCapitalLettersIsTheOp) {
    const Outcome outcome = run_in_child([] {
        const FakeClock clock;
        for (unsigned mixture = 0; mixture < 32; ++mixture) {
            std::string request = "delay 1";
            for (size_t index = 0; index < 5; ++index) {
                char &letter = request[index];
                letter = static_cast<char>((mixture >> index & 1) != 0 ? toupper(letter) : letter);
            }
            carry_out(request);
        }
        printf("%zu", clock.sleeps.size());
    });
    EXPECT_EQ(outcome.out, "32");
}

TEST(DebugOp, AWordThatContainsAnOpOrIsAPartOfItIsUnknown) {
    for (const char *op : {"delays", "dela", "prompter", "promp", "usingx", "usin", "execute", "exe", "x"}) {
        const Outcome outcome = run_hook({"prog"}, (std::string(op) + " 1").c_str());
        EXPECT_EQ(outcome.err, "\"__ZEL_DEBUG__ " + std::string(op) + "\" not a recognized debug op.\n");
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(outcome.status, 1);
    }
}

TEST(DebugOp, WordsOfOneCharacterAreWordsToo) {
    EXPECT_EQ(run_hook({"prog"}, "x y z").err, "\"__ZEL_DEBUG__ x\" not a recognized debug op.\n");
    EXPECT_EQ(run_hook({"prog"}, "prompt a b c d").err, "a b c d \n");
}

TEST(DebugOp, ALineBreakSeparatesNoWords) {
    EXPECT_EQ(run_hook({"prog"}, "using echo a\necho b").out, "a\nb\n");
    EXPECT_EQ(run_hook({"prog"}, "prompt a\nb").err, "a\nb \n");
    EXPECT_EQ(run_hook({"prog"}, "prompt\na").err, "\"__ZEL_DEBUG__ prompt\na\" not a recognized debug op.\n");
}

TEST(DebugOp, PercentSignsAreTextLikeAnyOther) {
    EXPECT_EQ(run_hook({"prog"}, "prompt %d 100% %s").err, "%d 100% %s \n");
    EXPECT_EQ(run_hook({"prog"}, "fr%sob").err, "\"__ZEL_DEBUG__ fr%sob\" not a recognized debug op.\n");
}

TEST(DebugOp, WhatEndsTheProcessIsWrittenOutBeforeItsExitHandlersRun) {
    for (const char *request : {"frob", "exec /no/such/program", "exec"}) {
        const Outcome outcome = run_in_child([request] {
            hold_back_errors();
            atexit([] { printf("%ld", errors_written()); });
            carry_out(request);
        });
        EXPECT_GT(outcome.err.size(), 0U) << request;
        EXPECT_EQ(outcome.out, std::to_string(outcome.err.size())) << request;
        EXPECT_EQ(outcome.status, 1) << request;
    }
}

TEST(DebugOp, TheUsersShellIsACommandLineToo) {
    EXPECT_EQ(run_hook({"prog"}, "using", "echo with $((1 + 1)) words").out, "with 2 words\n");
    EXPECT_EQ(run_hook({"prog", "__ZEL_DEBUG__"}, nullptr, "echo $0").out, "sh\n");
}

TEST(DebugOp, ACommandIsRunByTheSystemsShellWithoutFurtherOptions) {
    const Outcome outcome = run_hook({"prog"}, "using readlink /proc/$$/exe; false; echo on", "/no/such/shell");
    char *shell = realpath("/bin/sh", nullptr);
    EXPECT_EQ(outcome.out, std::string(shell) + "\non\n");
    free(shell);
}

TEST(DebugOp, TheVariablesOfAnotherProgramAreReplacedEvenByNothing) {
    const Outcome outcome = run_in_child([] {
        setenv("ZEL_DEBUG_PROMPT", "debug other", 1);
        setenv("ZEL_EXE", "/opt/other", 1);
        setenv("ZEL_EXE_PARMS", "those of the other", 1);
        carry_out("using echo \"<$ZEL_DEBUG_PROMPT|$ZEL_EXE|${ZEL_EXE_PARMS-unset}>\"");
    });
    EXPECT_EQ(outcome.out, "<debug prog|prog|>\n");
}

TEST(DebugOp, ThePromptTextIsTheLastComponentAndTheNameStaysWhole) {
    const char *print = "using echo \"$ZEL_DEBUG_PROMPT|$ZEL_EXE\"";
    EXPECT_EQ(run_hook({"/opt/x/prog.x.bin"}, print).out, "debug prog.x.bin|/opt/x/prog.x.bin\n");
    EXPECT_EQ(run_hook({".//../prog"}, print).out, "debug prog|.//../prog\n");
    EXPECT_EQ(run_hook({"/opt/x/"}, print).out, "debug |/opt/x/\n");
}

TEST(DebugOp, AScriptWithoutAnInterpreterCannotBeStarted) {
    const ScratchFolder folder;
    const std::string program = folder.path + "/program";
    write_file(program, "echo started\n");
    ASSERT_EQ(chmod(program.c_str(), 0755), 0);
    const Outcome outcome = run_hook({"prog"}, ("exec " + program).c_str());
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "\"__ZEL_DEBUG__ exec\" w/execv() call failed.\n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(DebugOp, WhatARequestTookIsGivenBackButForTheVariable) {
    const Outcome outcome = run_in_child([] {
        const FakeClock clock;
        unsetenv("ZEL_DIAGNOSTICS_PATH");
        setenv("ZEL_DEBUG", "delay 1", 1);
        Arguments marked({"prog", "__ZEL_DEBUG__", "delay", "1"});
        Arguments plain({"prog", "a"});
        int taken = 0;
        int given = 0;
        const Interposed taking(hook::malloc, [&taken](size_t size) {
            ++taken;
            return hook::malloc.real(size);
        });
        const Interposed giving(hook::free, [&given](void *pointer) {
            ++given;
            hook::free.real(pointer);
        });
        platform_debug_hooks(&marked.argc, marked.argv.data());
        const int taken_by_marker = taken;
        const int given_by_marker = given;
        platform_debug_hooks(&plain.argc, plain.argv.data());
        printf("%d %d %d", taken_by_marker > 0 ? 1 : 0, taken_by_marker - given_by_marker, taken - given);
    });
    EXPECT_EQ(outcome.out, "1 0 1");
}

TEST(DebugOp, WithoutMemoryForARequestTheProcessEndsWithAMessage) {
    const std::string message = "Error: platform_debug_hooks: Not enough memory to allocate ";
    int ended = 0;
    for (int nth = 0; nth < 12; ++nth) {
        const Outcome outcome = run_in_child([nth] {
            const Interposed failing(hook::malloc, fail_nth(hook::malloc, nth, ENOMEM, nullptr));
            carry_out("using echo started");
        });
        const bool refused = outcome.status == 1 && outcome.out.empty() && outcome.err.starts_with(message);
        // Without memory for a variable, and when nothing failed.
        const bool started = outcome.status == 0 && outcome.out == "started\n" && outcome.err.empty();
        EXPECT_TRUE(refused || started) << nth << ": " << outcome.err;
        ended += refused ? 1 : 0;
    }
    EXPECT_GT(ended, 0);
}
