// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Signals that arrive while a message waits for a full pipe.
#include "msg_support.h"

#include <csignal>
#include <fcntl.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace zel::test;

namespace {

// A pipe that is full, and an unbuffered stream to it.
struct FullPipe {
    int read_end;
    FILE *stream;
};

FullPipe open_full_pipe() {
    int ends[2];
    if (pipe(ends) != 0) {
        abort();
    }
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    fcntl(ends[1], F_SETFL, O_NONBLOCK);
    const std::string filling(4096, '.');
    while (write(ends[1], filling.data(), filling.size()) > 0) {
    }
    while (write(ends[1], ".", 1) > 0) {
    }
    fcntl(ends[1], F_SETFL, 0);
    FILE *stream = fdopen(ends[1], "w");
    setvbuf(stream, nullptr, _IONBF, 0);
    return {.read_end = ends[0], .stream = stream};
}

// Sends the parent signals until it is killed, and reads the pipe after the first of
// them.
[[noreturn]] void send_signals(pid_t parent, const FullPipe &pipe, bool read_later) {
    for (int sent = 0; getppid() == parent; ++sent) {
        kill(parent, SIGUSR1);
        sched_yield();
        char text[4096];
        if (read_later && sent > 1000) {
            [[maybe_unused]] const ssize_t length = read(pipe.read_end, text, sizeof text);
        }
    }
    _exit(0);
}

// Writes a message to the full pipe under signals; says whether the stream is still in
// the list.
Outcome print_under_signals(int handler_flags, bool read_later) {
    return run_messages([handler_flags, read_later] {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        action.sa_flags = handler_flags;
        sigaction(SIGUSR1, &action, nullptr);
        const FullPipe full = open_full_pipe();
        msg_clear_streams(MSG_INFO);
        msg_add_stream(MSG_INFO, full.stream);
        const pid_t parent = getpid();
        const pid_t sender = fork();
        if (sender == -1) {
            abort(); // to kill process -1 would kill every process
        }
        if (sender == 0) {
            send_signals(parent, full, read_later);
        }
        msg_print("text");
        kill(sender, SIGKILL);
        waitpid(sender, nullptr, 0);
        printf("%d", msg_info_has_stream());
    });
}

} // namespace

TEST(MsgInterrupted, AStreamIsDroppedWhenASignalInterruptsItsWrite) {
    const Outcome outcome = print_under_signals(0, false);
    EXPECT_EQ(outcome.out, "0");
    EXPECT_EQ(outcome.err, "Warning: Error during output of informational message.  This stream will no\n"
                           "         longer be used.\n"
                           "         Stream error was: Interrupted system call\n");
}

TEST(MsgInterrupted, AHandlerWithRestartDropsNoStream) {
    const Outcome outcome = print_under_signals(SA_RESTART, true);
    EXPECT_EQ(outcome.out, "1");
    EXPECT_EQ(outcome.err, "");
}
