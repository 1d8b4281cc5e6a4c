// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The supervisor, with companions that fail in every way, and with companions that are killed while they work.
#include "examples_support.h"

#include <support/files.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <numeric>
#include <poll.h>
#include <random>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace zel::test;
using Clock = std::chrono::steady_clock;

const std::string kSupervisor = example("supervisor");
const std::string kWorker = example("supervisor_worker");
const std::string kSupervised = part("supervised");

// The builds that are as they are shipped are killed for a minute.
#if defined(__SANITIZE_ADDRESS__) || defined(ZEL_SMALL_CONSTANTS)
constexpr auto kKilling = std::chrono::seconds(5);
#else
constexpr auto kKilling = std::chrono::seconds(60);
#endif

struct Supervisor : testing::Test {
    ScratchFolder folder;

    // Runs the supervisor over these requests.
    Outcome supervise(std::vector<std::string> arguments, const std::string &requests) const {
        const std::string input = folder.path + "/requests";
        write_file(input, requests);
        arguments.insert(arguments.begin(), {"sh", "-c", "exec \"$@\" <" + input, "sh", kSupervisor});
        return run_program(arguments);
    }

    // Runs it over three requests, of which the second meets a companion with this fault. A companion that ends is not
    // to be found late before its end is seen, which takes a sanitized one a while.
    Outcome supervise_fault(const std::string &fault) const {
        write_file(file(), "");
        const bool stays = fault == "stop" || fault == "stubborn";
        return supervise({"--companions", "2", "--time-out", stays ? "3000" : "30000", "--grace", "200", "--log",
                          log_path(), kSupervised},
                         "one\n" + fault + " " + file() + "\nthree\n");
    }

    std::string file() const { return folder.path + "/fault"; }
    std::string log_path() const { return folder.path + "/log"; }
    std::string log() const { return read_file(log_path()); }
};

std::vector<std::string> sorted_lines(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

const std::vector<std::string> kThreeDone = {"1 done", "2 done", "3 done"};

// ---- Requests and answers -------------------------------------------------------------------------------------------

TEST_F(Supervisor, EachRequestHasOneAnswerWithItsNumber) {
    const Outcome outcome = supervise({kWorker}, "1 2\n\n-5 3 4\n7");
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(sorted_lines(outcome.out), (std::vector<std::string>{"1 3", "2 0", "3 2", "4 7"}));
    EXPECT_EQ(outcome.err, "");
}

TEST_F(Supervisor, WithoutARequestItEndsWithStatus0) {
    const Outcome outcome = supervise({kWorker}, "");
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(outcome.out, "");
}

TEST_F(Supervisor, ARequestThatIsTooLongIsAnError) {
    const Outcome outcome = supervise({kWorker}, std::string(16385, '1') + "\n");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "Error: A request is longer than 16384 bytes.\n");
}

TEST_F(Supervisor, TheLongestRequestIsAnswered) {
    const Outcome outcome = supervise({kWorker}, std::string(16383, ' ') + "8\n");
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(outcome.out, "1 8\n");
}

// ---- Companions that fail -------------------------------------------------------------------------------------------

struct SupervisorFault : Supervisor, testing::WithParamInterface<std::pair<const char *, const char *>> {};

TEST_P(SupervisorFault, TheSuccessorAnswersTheRequest) {
    const auto [fault, text] = GetParam();
    const Outcome outcome = supervise_fault(fault);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(sorted_lines(outcome.out), kThreeDone);
    EXPECT_NE(log().find(text), std::string::npos) << log();
    EXPECT_NE(log().find("3 requests answered, 1 companions replaced."), std::string::npos) << log();
}

INSTANTIATE_TEST_SUITE_P(All, SupervisorFault,
                         testing::Values(std::pair("exit", " ended: exit status 3."),
                                         std::pair("kill", " ended: signal 9."),
                                         std::pair("half", " ended: exit status 0."),
                                         std::pair("wrong", " gave a wrong answer: signal "),
                                         std::pair("long", " gave an answer that is too long: signal "),
                                         std::pair("stop", " did not answer in time: signal "),
                                         std::pair("stubborn", " did not answer in time: signal 9.")),
                         [](const auto &parameter) { return std::string(parameter.param.first); });

TEST_F(Supervisor, ASecondAnswerToOneRequestIsNotPrinted) {
    const Outcome outcome = supervise_fault("twice");
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(sorted_lines(outcome.out), kThreeDone);
}

TEST_F(Supervisor, AnAnswerToNoRequestIsNotPrinted) {
    const Outcome outcome = supervise_fault("unasked");
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(sorted_lines(outcome.out), kThreeDone);
}

TEST_F(Supervisor, TooManyReplacementsEndTheJob) {
    const Outcome outcome = supervise({"--restarts", "3", "false"}, "one\n");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "Error: More than 3 companions failed within 10 seconds.\n");
}

TEST_F(Supervisor, AProgramThatCannotBeStartedIsSaid) {
    const Outcome outcome = supervise({"/nowhere/program"}, "one\n");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "Error: /nowhere/program cannot be started: No such file or directory.\n");
}

TEST_F(Supervisor, AnUnknownOptionShowsTheUsage) {
    const Outcome outcome = supervise({"--what", "1", kWorker}, "");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err.find("Error: usage: supervisor [--companions N]"), 0U) << outcome.err;
}

TEST_F(Supervisor, ANumberOutOfRangeIsSaid) {
    const Outcome outcome = supervise({"--companions", "0", kWorker}, "");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "Error: --companions wants a number from 1 to 1000.\n");
}

// ---- A supervisor that runs -----------------------------------------------------------------------------------------

std::vector<std::string> fields_of(const std::string &text) {
    std::istringstream stream(text);
    return {std::istream_iterator<std::string>(stream), {}};
}

// The children of a process.
std::vector<pid_t> children_of(pid_t parent) {
    std::vector<pid_t> children;
    for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
        const std::string name = entry.path().filename();
        if (std::isdigit(static_cast<unsigned char>(name[0])) == 0) {
            continue;
        }
        const std::string status = read_file(entry.path() / "stat");
        const size_t after_name = status.rfind(')');
        const std::vector<std::string> fields =
            fields_of(after_name == std::string::npos ? "" : status.substr(after_name + 1));
        if (fields.size() > 1 && fields[1] == std::to_string(parent)) {
            children.push_back(std::stoi(name));
        }
    }
    return children;
}

// A supervisor that reads from one pipe and writes to another.
struct RunningSupervisor : Supervisor {
    void start(std::vector<std::string> arguments) {
        int to[2];
        int from[2];
        ASSERT_EQ(pipe2(to, O_CLOEXEC), 0);
        ASSERT_EQ(pipe2(from, O_CLOEXEC), 0);
        arguments.insert(arguments.begin(), kSupervisor);
        pid = fork();
        if (pid == 0) {
            run(arguments, to[0], from[1]);
        }
        close(to[0]);
        close(from[1]);
        requests = to[1];
        answers = from[0];
        fcntl(requests, F_SETFL, O_NONBLOCK);
        fcntl(answers, F_SETFL, O_NONBLOCK);
    }

    [[noreturn]] static void run(const std::vector<std::string> &arguments, int input, int output) {
        std::vector<char *> argv;
        for (const std::string &argument : arguments) {
            argv.push_back(const_cast<char *>(argument.c_str()));
        }
        argv.push_back(nullptr);
        dup2(input, STDIN_FILENO);
        dup2(output, STDOUT_FILENO);
        execv(argv[0], argv.data());
        _exit(127);
    }

    // Writes requests for as long as the pipe takes them at once.
    void feed() {
        while (write(requests, "work\n", 5) == 5) {
            ++fed;
        }
    }

    void look() {
        char bytes[65536];
        for (ssize_t length; (length = read(answers, bytes, sizeof bytes)) > 0;) {
            seen.append(bytes, static_cast<size_t>(length));
        }
    }

    void end_requests() {
        close(requests);
        requests = -1;
    }

    // Waits for the end, reading what comes; -1 after a minute.
    int exit_status() {
        const Clock::time_point end = Clock::now() + std::chrono::seconds(60);
        int status = -1;
        while (waitpid(pid, &status, WNOHANG) == 0 && Clock::now() < end) {
            pollfd entry = {.fd = answers, .events = POLLIN, .revents = 0};
            poll(&entry, 1, 10);
            look();
        }
        look();
        pid = WIFEXITED(status) ? -1 : pid;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    void TearDown() override {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        close(requests);
        close(answers);
    }

    pid_t pid = -1;
    int requests = -1;
    int answers = -1;
    size_t fed = 0;
    std::string seen;
};

// The numbers of the answers, in ascending order.
std::vector<size_t> numbers_of(const std::string &answers) {
    std::vector<size_t> numbers;
    for (const std::string &line : sorted_lines(answers)) {
        numbers.push_back(std::stoul(line));
    }
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

std::vector<size_t> one_to(size_t last) {
    std::vector<size_t> numbers(last);
    std::iota(numbers.begin(), numbers.end(), 1);
    return numbers;
}

// The companions are killed, stopped, and asked to end, at random times.
TEST_F(RunningSupervisor, KilledCompanionsCostNoAnswerAndDoubleNone) {
    start({"--companions", "4", "--time-out", "300", "--restarts", "1000000", kSupervised});
    constexpr int kSignals[] = {SIGKILL, SIGTERM, SIGSTOP, SIGABRT, SIGSEGV, SIGINT, SIGHUP};
    std::minstd_rand random(1);
    size_t kills = 0;
    for (const Clock::time_point end = Clock::now() + kKilling; Clock::now() < end;) {
        feed();
        look();
        const std::vector<pid_t> companions = children_of(pid);
        if (!companions.empty()) {
            kills += kill(companions[random() % companions.size()], kSignals[random() % std::size(kSignals)]) == 0;
        }
        pollfd entry = {.fd = answers, .events = POLLIN, .revents = 0};
        poll(&entry, 1, static_cast<int>(random() % 20));
    }
    end_requests();
    EXPECT_EQ(exit_status(), 0);
    EXPECT_EQ(numbers_of(seen), one_to(fed));
    EXPECT_GT(kills, 100U);
    RecordProperty("answers", std::to_string(fed));
}

TEST_F(RunningSupervisor, SigtermEndsItAndAllCompanionsInTime) {
    write_file(file(), "");
    start({"--companions", "3", "--grace", "300", kSupervised});
    const std::string request = "stubborn " + file() + "\n"; // ignores SIGTERM from then on
    ASSERT_EQ(write(requests, request.data(), request.size()), static_cast<ssize_t>(request.size()));
    while (std::filesystem::exists(file())) {
        poll(nullptr, 0, 1);
    }
    const std::vector<pid_t> companions = children_of(pid);
    EXPECT_EQ(companions.size(), 3U);
    const Clock::time_point begin = Clock::now();
    kill(pid, SIGTERM);
    EXPECT_EQ(exit_status(), 1);
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(10));
    for (const pid_t companion : companions) {
        EXPECT_EQ(kill(companion, 0), -1);
    }
    EXPECT_EQ(seen, "");
}

} // namespace
