// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The start-up hook as a developer meets it: a prompt on a terminal, a companion under a debugger while its parent
// starts it as always, a program started again by what the hook left in the environment.
#include <support/child.h>
#include <support/files.h>

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <regex>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace zel::test;

namespace {

// A program on a terminal of its own.
struct Session {
    pid_t pid;
    int terminal;
    std::string seen;
};

[[noreturn]] void become(const std::vector<std::string> &arguments) {
    std::vector<char *> argv;
    for (const std::string &argument : arguments) {
        argv.push_back(const_cast<char *>(argument.c_str()));
    }
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
}

Session start_on_terminal(const std::vector<std::string> &arguments, const char *request) {
    Session session = {};
    session.pid = forkpty(&session.terminal, nullptr, nullptr, nullptr);
    if (session.pid == 0) {
        setenv("ZEL_DEBUG", request, 1);
        become(arguments);
    }
    return session;
}

// Reads one piece of what the program writes; false when it has ended or says nothing for ten seconds.
bool read_more(Session &session) {
    pollfd entry = {.fd = session.terminal, .events = POLLIN, .revents = 0};
    char piece[512];
    const ssize_t count = poll(&entry, 1, 10000) == 1 ? read(session.terminal, piece, sizeof piece) : 0;
    if (count > 0) {
        session.seen.append(piece, static_cast<size_t>(count));
    }
    return count > 0;
}

void read_until(Session &session, const std::string &text) {
    while (session.seen.find(text) == std::string::npos && read_more(session)) {
    }
}

int end(Session &session) {
    while (read_more(session)) {
    }
    int status = 0;
    waitpid(session.pid, &status, 0);
    close(session.terminal);
    return status;
}

Outcome run_with(const char *request, const std::vector<std::string> &arguments) {
    return run_in_child([&] {
        setenv("ZEL_DEBUG", request, 1);
        setenv("ASAN_OPTIONS", "detect_leaks=0", 1); // a traced process cannot look for leaks
        become(arguments);
    });
}

bool contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

} // namespace

TEST(DebugHooksSession, APromptOnATerminalWaitsForTheLineThatIsTyped) {
    Session session = start_on_terminal({companion_path("hook_probe"), "a"}, "prompt");
    read_until(session, "ZEL_DEBUG prompt>\r\n");
    EXPECT_EQ(session.seen, "ZEL_DEBUG prompt>\r\n");
    EXPECT_EQ(waitpid(session.pid, nullptr, WNOHANG), 0) << "it did not wait";
    ASSERT_EQ(write(session.terminal, "go\n", 3), 3);
    EXPECT_EQ(end(session), 0);
    EXPECT_EQ(session.seen, "ZEL_DEBUG prompt>\r\ngo\r\nrunning with 2 a\r\n");
}

TEST(DebugHooksSession, TheEndOfTheInputOnATerminalGoesOnToo) {
    Session session = start_on_terminal({companion_path("hook_probe"), "a"}, "prompt attach now");
    read_until(session, "attach now \r\n");
    ASSERT_EQ(write(session.terminal, "\004", 1), 1);
    EXPECT_EQ(end(session), 0);
    EXPECT_TRUE(contains(session.seen, "running with 2 a\r\n")) << session.seen;
}

TEST(DebugHooksSession, APromptOfTheCommandLineGoesOnAfterOneLineHoweverLongItIs) {
    Session session =
        start_on_terminal({companion_path("hook_probe"), "a", "b", "__Zel_Debug__", "Prompt", "attach"}, "");
    read_until(session, "\r\n");
    EXPECT_EQ(session.seen, "attach \r\n");
    EXPECT_EQ(waitpid(session.pid, nullptr, WNOHANG), 0) << "it did not wait";
    const std::string line = std::string(300, 'x') + "\n";
    ASSERT_EQ(write(session.terminal, line.data(), line.size()), static_cast<ssize_t>(line.size()));
    EXPECT_EQ(end(session), 0);
    EXPECT_TRUE(session.seen.ends_with("x\r\nrunning with 3 a b\r\n")) << session.seen;
}

TEST(DebugHooksSession, EachRequestOfTheCommandLineMeetsARealProgram) {
    const std::string probe = companion_path("hook_probe");
    EXPECT_EQ(run_with("", {probe, "a", "__ZEL_DEBUG__", "delay", "none"}).out, "running with 2 a\n");
    EXPECT_EQ(run_with("", {probe, "a", "__ZEL_DEBUG__", "exec", "/bin/echo", "b", "c"}).out, "b c\n");
    const Outcome again = run_with("", {probe, "a", "b", "__ZEL_DEBUG__", "using", "$ZEL_EXE $ZEL_EXE_PARMS; exit 5"});
    EXPECT_EQ(again.out, "running with 3 a b\n");
    EXPECT_EQ(again.status, 5);
    const Outcome unknown = run_with("", {probe, "__ZEL_DEBUG__", "frob"});
    EXPECT_EQ(unknown.out, "");
    EXPECT_EQ(unknown.err, "\"__ZEL_DEBUG__ frob\" not a recognized debug op.\n");
    EXPECT_EQ(unknown.status, 1);
}

// Without the emptied variable the program would start itself without end.
TEST(DebugHooksSession, AProgramThatIsStartedInItsOwnPlaceRunsNormally) {
    const std::string probe = companion_path("hook_probe");
    const Outcome outcome = run_with(("exec " + probe + " other").c_str(), {probe, "a"});
    EXPECT_EQ(outcome.out, "running with 2 other\n");
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
}

TEST(DebugHooksSession, TheProgramIsStartedAgainByWhatTheHookLeftInTheEnvironment) {
    const Outcome outcome =
        run_with("using echo again; exec \"$ZEL_EXE\" $ZEL_EXE_PARMS", {companion_path("hook_probe"), "a", "b"});
    EXPECT_EQ(outcome.out, "again\nrunning with 3 a b\n");
    EXPECT_EQ(outcome.status, 0);
}

// Each request of a recipe in the document that starts the program again: what stands between the quotes.
std::vector<std::string> recipes_in(const std::string &document) {
    std::vector<std::string> recipes;
    const std::regex quoted("'(using [^']*ZEL_EXE[^']*)'");
    for (std::sregex_iterator match(document.begin(), document.end(), quoted), end; match != end; ++match) {
        recipes.push_back((*match)[1]);
    }
    return recipes;
}

// The debugger of the recipes is a script here that starts what it is given.
TEST(DebugHooksSession, TheRecipesStartAProgramInAFolderWithABlankAgain) {
    const ScratchFolder folder;
    const std::string program = folder.path + "/hook probe";
    std::filesystem::copy_file(companion_path("hook_probe"), program);
    write_file(folder.path + "/gdb", "#!/bin/sh\nwhile [ \"$1\" != --args ]; do shift; done\nshift\nexec \"$@\"\n");
    std::filesystem::permissions(folder.path + "/gdb", std::filesystem::perms::all);
    for (const auto &[document, count] : {std::pair("README.md", 2), {"components/platform/debug_hooks.h", 1}}) {
        const std::vector<std::string> recipes = recipes_in(read_file(std::string(ZEL_SOURCE_DIR "/") + document));
        EXPECT_EQ(recipes.size(), static_cast<size_t>(count)) << document;
        for (const std::string &recipe : recipes) {
            const Outcome outcome = run_in_child([&] {
                setenv("PATH", (folder.path + ":/usr/bin:/bin").c_str(), 1);
                setenv("ZEL_DEBUG", recipe.c_str(), 1);
                become({program, "a", "b"});
            });
            EXPECT_EQ(outcome.out, "running with 3 a b\n") << recipe << outcome.err;
        }
    }
}

// The pair's descriptor goes through the shell and the debugger to the companion, so parent and companion talk as
// always while the debugger watches.
TEST(DebugHooksSession, ACompanionRunsUnderTheDebuggerWhileItsParentStartsItAsAlways) {
    const ScratchFolder folder;
    write_file(folder.path + "/text", "one two two\n");
    const char *request = "using gdb -nx -batch -iex 'set debuginfod enabled off' -ex 'break main' -ex run "
                          "-ex 'info inferiors' -ex continue --args \"$ZEL_EXE\" $ZEL_EXE_PARMS";
    const Outcome outcome =
        run_with("", {ZEL_BINARY_DIR "/examples/word_count", "--debug", request, folder.path + "/text"});
    // A program without debugging information has an address between the two.
    EXPECT_TRUE(contains(outcome.out, "Breakpoint 1, ")) << outcome.out << outcome.err;
    EXPECT_TRUE(contains(outcome.out, "main (")) << outcome.out;
    EXPECT_TRUE(contains(outcome.out, "word_count_companion")) << outcome.out;
    EXPECT_TRUE(contains(outcome.out, "    words            3\n")) << outcome.out;
    EXPECT_TRUE(contains(outcome.out, "             2  two\n")) << outcome.out;
    EXPECT_TRUE(contains(outcome.out, "exited normally")) << outcome.out;
    EXPECT_EQ(outcome.status, 0) << outcome.err;
}
