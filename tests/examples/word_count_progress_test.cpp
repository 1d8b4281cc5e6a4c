// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The line of progress of the word count, on a real terminal: standard error is a pseudo-terminal.
#include "examples_support.h"
#include "word_count_support.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace zel::test;
using Clock = std::chrono::steady_clock;

constexpr auto kTooLong = std::chrono::milliseconds(20000); // without a sign of life

// Each line fills 40 columns, so that it covers the one before, and ends at the beginning of the row.
const std::string kWiped = std::string(40, ' ') + "\r";

// A word count whose standard input is a socket that the test feeds, and whose standard error is a terminal or a pipe.
struct WordCountProgress : testing::Test {
    void SetUp() override { ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, input), 0); }

    void TearDown() override {
        close_feed();
        for (const int fd : {input[0], screen}) {
            close(fd);
        }
        if (pid > 0) {
            kill(pid, SIGKILL);
        }
        while (waitpid(-1, nullptr, 0) > 0) { // the program, and its companion that lost its parent
        }
    }

    void start_on_terminal(const std::vector<std::string> &arguments) {
        screen = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        ASSERT_EQ(grantpt(screen), 0);
        ASSERT_EQ(unlockpt(screen), 0);
        const int terminal = open(ptsname(screen), O_RDWR | O_NOCTTY | O_CLOEXEC);
        ASSERT_NE(terminal, -1);
        start(arguments, terminal);
    }

    void start_on_pipe(const std::vector<std::string> &arguments) {
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
        screen = ends[0];
        start(arguments, ends[1]);
    }

    // Closes the terminal: the program alone has it.
    void start(const std::vector<std::string> &arguments, int standard_error) {
        pid = fork();
        if (pid == 0) {
            run(arguments, standard_error);
        }
        close(standard_error);
        fcntl(screen, F_SETFL, O_NONBLOCK);
    }

    [[noreturn]] void run(const std::vector<std::string> &arguments, int standard_error) const {
        dup2(input[0], STDIN_FILENO);
        dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
        dup2(standard_error, STDERR_FILENO);
        std::vector<char *> argv = {const_cast<char *>(kWordCount)};
        for (const std::string &argument : arguments) {
            argv.push_back(const_cast<char *>(argument.c_str()));
        }
        argv.push_back(nullptr);
        execv(kWordCount, argv.data());
        _exit(127);
    }

    // Takes what is on the screen. False when nobody can write there any more.
    bool look() {
        char bytes[4096];
        ssize_t length;
        while ((length = read(screen, bytes, sizeof bytes)) > 0) {
            seen.append(bytes, static_cast<size_t>(length));
        }
        return length == -1 && errno == EAGAIN;
    }

    void feed() const {
        const std::string words = "some words and more\n";
        ASSERT_EQ(send(input[1], words.data(), words.size(), MSG_NOSIGNAL), static_cast<ssize_t>(words.size()));
    }

    // Feeds until lines of progress are on the screen.
    void feed_until_shown(int lines = 1) {
        const Clock::time_point end = Clock::now() + kTooLong;
        while (std::count(seen.begin(), seen.end(), '\r') < lines && look()) {
            ASSERT_LT(Clock::now(), end) << "nothing came to the screen";
            ASSERT_NO_FATAL_FAILURE(feed());
        }
    }

    void close_feed() {
        if (input[1] != -1) {
            close(input[1]);
        }
        input[1] = -1;
    }

    // Waits for something on the screen. False when nothing more can come.
    bool wait_for_more() {
        pollfd event = {.fd = screen, .events = POLLIN, .revents = 0};
        EXPECT_EQ(poll(&event, 1, static_cast<int>(kTooLong.count())), 1) << "nothing came to the screen";
        return !testing::Test::HasFailure() && look();
    }

    int exit_status() {
        while (wait_for_more()) {
        }
        int status = -1;
        waitpid(pid, &status, 0);
        pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    int input[2] = {-1, -1}; // the program's end and the test's
    int screen = -1;
    pid_t pid = -1;
    std::string seen;
};

TEST_F(WordCountProgress, ALongTextShowsHowFarItHasCome) {
    start_on_terminal({"-"});
    feed_until_shown();
    const std::string line = seen.substr(0, seen.find('\r'));
    EXPECT_EQ(line.size(), 40U);
    double megabytes = -1;
    char rest[64] = "";
    EXPECT_EQ(sscanf(line.c_str(), "%lf %63[^\n]", &megabytes, rest), 2);
    EXPECT_GE(megabytes, 0);
    EXPECT_EQ(std::string(rest).substr(0, 3), "MB ");
    EXPECT_EQ(line.find('%'), std::string::npos);
}

TEST_F(WordCountProgress, TheLineIsWipedOutAtTheEnd) {
    start_on_terminal({"-"});
    feed_until_shown();
    close_feed();
    EXPECT_EQ(exit_status(), 0);
    EXPECT_TRUE(seen.ends_with("\r" + kWiped)) << seen;
}

TEST_F(WordCountProgress, AnErrorStandsOnAWipedLine) {
    start_on_terminal({"-"});
    feed_until_shown();
    // A byte that nobody takes: closing this end then breaks the program's reading off.
    ASSERT_EQ(send(input[0], "x", 1, MSG_NOSIGNAL), 1);
    close_feed();
    EXPECT_EQ(exit_status(), 1);
    EXPECT_TRUE(seen.ends_with("\r" + kWiped + "Error: standard input cannot be read: Connection reset by peer.\r\n"))
        << seen;
}

TEST_F(WordCountProgress, TheLineChangesAtMostFiveTimesASecond) {
    const Clock::time_point start = Clock::now();
    start_on_terminal({"-"});
    feed_until_shown(4);
    const auto lines = std::count(seen.begin(), seen.end(), '\r');
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(500 + (lines - 1) * 200));
}

// A file without blocks: large, and there at once.
TEST_F(WordCountProgress, OfAFileThePercentageIsShown) {
    const ScratchFolder folder;
    const std::string path = folder.path + "/large";
    write_file(path, "");
    ASSERT_EQ(truncate(path.c_str(), 1000000000000), 0);
    start_on_terminal({path});
    while (seen.find('\r') == std::string::npos && wait_for_more()) {
    }
    EXPECT_NE(seen.find(" of 1000000.0 MB, 0 %"), std::string::npos) << seen;
}

TEST_F(WordCountProgress, AShortTextShowsNothing) {
    start_on_terminal({ZEL_SOURCE_DIR "/LICENSE"});
    EXPECT_EQ(exit_status(), 0);
    EXPECT_EQ(seen, "");
}

// Twice the time after which a terminal would show something.
TEST_F(WordCountProgress, WithoutATerminalNothingIsShown) {
    start_on_pipe({"-"});
    for (const Clock::time_point end = Clock::now() + std::chrono::seconds(1); Clock::now() < end;) {
        ASSERT_NO_FATAL_FAILURE(feed());
    }
    close_feed();
    EXPECT_EQ(exit_status(), 0);
    EXPECT_EQ(seen, "");
}

} // namespace
