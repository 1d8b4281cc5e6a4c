// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The examples of the public headers do what their remarks say.
#include "examples_support.h"
#include "header_examples.h"

#include <components/platform/process_info.h>
#include <malloc/debug_heap.h>
#include <malloc/zel_malloc.h>
#include <msg/msg.h>
#include <support/census.h>
#include <support/child.h>
#include <support/files.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <numeric>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace zel::test;

TEST(HeaderExampleOfMsg, PrintsWhatItsRemarksSay) {
    const Outcome outcome = run_in_child(example_of_msg);
    EXPECT_EQ(outcome.out, "backup: 12 files in /home/guest\n");
    EXPECT_EQ(outcome.err, "Warning: core is not readable\n         It was left out.\n");
}

TEST(HeaderExampleOfSinks, TheRingIsSeenWhenTheProgramFails) {
    const ScratchFolder folder;
    const Outcome outcome = run_in_child([&folder] {
        EXPECT_EQ(chdir(folder.path.c_str()), 0);
        example_of_sinks();
        msg_fatal("no more memory");
    });
    EXPECT_EQ(outcome.out, "12 clients\n");
    EXPECT_EQ(outcome.err, "Error: no more memory\n12 clients\nError: no more memory\n");
    EXPECT_EQ(read_file(folder.path + "/server.log"), "Error: no more memory\n");
}

TEST(HeaderExampleOfSinks, ALogThatCannotBeOpenedIsNamed) {
    const Outcome outcome = run_in_child([] {
        EXPECT_EQ(chdir("/proc"), 0);
        example_of_sinks();
    });
    EXPECT_EQ(outcome.err.substr(0, 18), "Error: server.log\n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(HeaderExampleOfDiagLog, WritesItsLineIntoTheLog) {
    const ScratchFolder folder;
    const Outcome outcome = run_in_child([&folder] {
        setenv("ZEL_DIAG_DIR", folder.path.c_str(), 1);
        example_of_diag_log();
    });
    EXPECT_EQ(outcome.status, 0);
    const std::filesystem::directory_iterator log(folder.path);
    ASSERT_NE(log, std::filesystem::directory_iterator());
    EXPECT_EQ(read_file(log->path()), "request 12\n");
}

TEST(HeaderExampleOfZelMalloc, EndsWithoutAMessage) {
    const Outcome outcome = run_in_child(example_of_zel_malloc);
    EXPECT_EQ(outcome.out + outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
}

TEST(HeaderExampleOfDebugHeap, FindsTheWritePastTheEndTwice) {
    const Outcome outcome = run_in_child([] {
        setenv("ZEL_MSGERR_WRAP", "0", 1);
        example_of_debug_heap();
    });
    const std::string said = outcome.out + outcome.err;
    const std::string finding = "corrupted at the end";
    EXPECT_NE(said.find(finding), said.rfind(finding)) << said;
    EXPECT_NE(outcome.err.find("Error: "), std::string::npos);
    EXPECT_EQ(outcome.status, 1);
}

TEST(HeaderExampleOfHeapReport, ReportsTheBlocksThatTheRequestLeft) {
    const Outcome outcome = run_in_child([] {
        setenv("ZEL_MSGERR_WRAP", "0", 1);
        zel_enable_malloc_debug(ZEL_MALLOC_CHECK_PTR);
        zel_malloc(7, "before", nullptr);
        example_of_heap_report([] {
            zel_malloc(30, "handle_request", "answer");
            zel_free(zel_malloc(4, "handle_request", "question"));
        });
    });
    EXPECT_NE(outcome.out.find(" handle_request       answer\n"), std::string::npos) << outcome.out;
    EXPECT_TRUE(outcome.out.ends_with("\nzel_malloc_report_since: 30 bytes allocated, 1 pointers\n")) << outcome.out;
    EXPECT_EQ(outcome.err, "");
}

// A text and a copy of it, neither of which is lost.
void load(const char *path) {
    auto *text = static_cast<char *>(zel_malloc_if_room(100));
    void *copy = text == nullptr ? nullptr : zel_malloc_if_room(100);
    printf("%s: %d %d\n", path, text != nullptr, copy != nullptr);
    zel_free(copy);
    zel_free(text);
}

TEST(HeaderExampleOfHeapReport, SweepsTheFailuresOfAnOperation) {
    const Outcome outcome = run_in_child([] { example_of_failures(load, "index"); });
    EXPECT_EQ(outcome.out, "index: 0 0\nindex: 1 0\nindex: 1 1\n");
    EXPECT_EQ(outcome.status, 0);
}

TEST(HeaderExampleOfEnvironment, ReportsWhatFailed) {
    const Outcome outcome = run_in_child([] {
        setenv("ZEL_PERROR", "1", 1);
        printf("%d\n", example_of_environment("/nowhere/index"));
        printf("%d\n", example_of_environment("/dev/null"));
    });
    EXPECT_EQ(outcome.out, "open index: No such file or directory\n0\n1\n");
}

TEST(HeaderExampleOfFileControl, ReadsAgainWhatHasChanged) {
    const ScratchFolder folder;
    write_file(folder.path + "/settings", "one");
    const auto print = [](const char *path) { printf("read %s\n", path); };
    const Outcome changed = run_in_child([&] {
        EXPECT_EQ(chdir(folder.path.c_str()), 0);
        example_of_file_control(print, [] { write_file("settings", "longer"); });
    });
    EXPECT_EQ(changed.out, "read settings\nread settings\n");
    const Outcome same = run_in_child([&] {
        EXPECT_EQ(chdir(folder.path.c_str()), 0);
        example_of_file_control(print, [] {});
    });
    EXPECT_EQ(same.out, "read settings\n");
}

TEST(HeaderExampleOfFileServices, ReplacesTheSettingsOrReportsWhyNot) {
    const ScratchFolder folder;
    const Outcome outcome = run_in_child([&folder] {
        setenv("ZEL_PERROR", "1", 1);
        EXPECT_EQ(chdir(folder.path.c_str()), 0);
        example_of_file_services("new settings");
        EXPECT_EQ(chdir("/proc"), 0); // where no file can be made
        example_of_file_services("new settings");
    });
    EXPECT_EQ(read_file(folder.path + "/settings"), "new settings");
    EXPECT_TRUE(outcome.out.starts_with("settings: ")) << outcome.out;
}

TEST(HeaderExampleOfProcessIdentity, WarnsOfAServerThatHasGone) {
    static pid_t server; // the work of the example takes no argument
    const Outcome outcome = run_in_child([] {
        server = fork();
        if (server == 0) {
            for (;;) {
                pause();
            }
        }
        example_of_process_identity(server, [] {});
        example_of_process_identity(server, [] {
            kill(server, SIGKILL);
            waitpid(server, nullptr, 0);
        });
    });
    EXPECT_EQ(outcome.err, "Warning: the server header_examples has gone\n");
}

TEST(HeaderExampleOfProcessInfo, PrintsANumber) {
    const Outcome outcome = run_in_child(example_of_process_info);
    EXPECT_TRUE(outcome.out.ends_with(" KiB in use\n")) << outcome.out;
    EXPECT_GT(atol(outcome.out.c_str()), 0);
}

// The answers of the example of socket.h, up to "quit".
std::string answers_to(const std::string &requests) {
    return run_in_child([&requests] {
               int ends[2];
               socketpair(AF_UNIX, SOCK_STREAM, 0, ends);
               const std::string all = requests + "quit\r\n\r\n";
               send(ends[0], all.data(), all.size(), 0);
               example_of_socket(ends[1]);
               char answer[64] = {};
               recv(ends[0], answer, sizeof answer - 1, MSG_DONTWAIT);
               printf("%s", answer);
           })
        .out;
}

TEST(HeaderExampleOfSocket, AnswersUntilQuit) {
    EXPECT_EQ(answers_to("greet\r\nBob\r\n\r\n"), "you said\r\nBob\r\n\r\n");
}

TEST(HeaderExampleOfSocket, ALineThatIsMissingOrEmptyIsNotSentOn) {
    EXPECT_EQ(answers_to("greet\r\n\r\n"), "you said\r\nnothing\r\n\r\n");
    EXPECT_EQ(answers_to(std::string("greet\r\n\0Bob\r\n\r\n", 15)), "you said\r\nnothing\r\n\r\n");
}

TEST(HeaderExampleOfPair, ReceivesTheAnswerOfItsCompanion) {
    const Outcome outcome = run_in_child([] {
        EXPECT_EQ(chdir(ZEL_EXAMPLE_PARTS), 0);
        printf("%d\n", example_of_pair());
    });
    EXPECT_EQ(outcome.out, "41\n");
}

// A companion that runs the script, up to its first stop.
PairHandle *start_up_to_stop(const char *script) {
    PairHandle *pair = platform_pair_parent_open_lp("STUBBORN_PAIR", 1, 1, "sh", nullptr, "sh", "-c", script,
                                                    static_cast<char *>(nullptr));
    waitid(P_PID, static_cast<id_t>(platform_pair_companion_pid(pair)), nullptr, WSTOPPED);
    return pair;
}

TEST(HeaderExampleOfPair, TheEndingKillsACompanionThatIsStopped) {
    PairHandle *pair = start_up_to_stop("kill -STOP $$");
    const int32_t pid = platform_pair_companion_pid(pair);
    example_of_ending(pair, 0);
    EXPECT_EQ(platform_process_exists(static_cast<unsigned long>(pid)), 0);
}

TEST(HeaderExampleOfPair, TheEndingKillsACompanionThatIgnoresSigterm) {
    PairHandle *pair = start_up_to_stop("trap '' TERM; kill -STOP $$; while :; do :; done");
    const int32_t pid = platform_pair_companion_pid(pair);
    kill(pid, SIGCONT);
    example_of_ending(pair, 0);
    EXPECT_EQ(platform_process_exists(static_cast<unsigned long>(pid)), 0);
}

TEST(HeaderExampleOfPair, TextAndValuesGoOverOnePair) {
    const Outcome outcome = run_in_child([] {
        EXPECT_EQ(chdir(ZEL_EXAMPLE_PARTS), 0);
        std::vector<int32_t> values(200);
        std::iota(values.begin(), values.end(), 1);
        std::vector<int32_t> totals(60);
        printf("%d", example_of_text_and_values(values.data(), 200, totals.data(), 60));
        printf(" %d", static_cast<int>(std::count(totals.begin(), totals.end(), 20100)));
    });
    EXPECT_EQ(outcome.out, "60 60");
}

TEST(HeaderExampleOfPairControl, ReceivesTheSquareAndEndsItsCompanion) {
    const Outcome outcome = run_in_child([] {
        EXPECT_EQ(chdir(ZEL_EXAMPLE_PARTS), 0);
        printf("%d", example_of_pair_control());
        printf(" %d", has_children() ? 1 : 0);
    });
    EXPECT_EQ(outcome.out, "144 0");
}

TEST(HeaderExampleOfPairControl, SaysWhyItsCompanionCannotBeExecuted) {
    const Outcome outcome = run_in_child([] {
        EXPECT_EQ(chdir("/"), 0);
        example_of_pair_control();
    });
    EXPECT_EQ(outcome.err, "Error: execvp failed: No such file or directory\n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(HeaderExampleOfDebugHooks, SeesItsOwnArgumentsAlone) {
    const Outcome outcome = run_program({part("header_example_hooks"), "one", "two", "__ZEL_DEBUG__", "delay", "0"});
    EXPECT_EQ(outcome.out, "one\ntwo\n");
    EXPECT_EQ(outcome.status, 0);
}

} // namespace
