// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The message server, asked by clients over TCP.
#include "examples_support.h"

#include <components/platform/socket.h>

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace zel::test;

// The server, running; its output comes through a pipe.
struct MessageServer : testing::Test {
    void start(const char *quiet_milliseconds = "60000") {
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
        const pid_t test = getpid();
        pid = fork();
        if (pid == 0) {
            // It serves without end: whatever ends this program, a time-out included, ends the server.
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != test) {
                _exit(126);
            }
            dup2(ends[1], STDOUT_FILENO);
            execl(example("message_server").c_str(), "message_server", quiet_milliseconds, nullptr);
            _exit(127);
        }
        close(ends[1]);
        output = fdopen(ends[0], "r");
        ASSERT_EQ(sscanf(line().c_str(), "Listening on localhost, port %d.\n", &port), 1);
        client = connect_client();
    }

    void TearDown() override {
        platform_socket_close(client);
        if (pid != -1) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        if (output != nullptr) {
            fclose(output);
        }
    }

    std::string line() const {
        char text[256];
        return fgets(text, sizeof text, output) == nullptr ? "" : text;
    }

    int connect_client() const {
        const int fd = platform_connect_host("localhost", port);
        EXPECT_NE(fd, -1);
        give_up_in_time(fd);
        return fd;
    }

    void next_client() {
        platform_socket_close(client);
        client = connect_client();
    }

    void say(const std::string &bytes) const {
        ASSERT_EQ(platform_send_all(client, bytes.data(), static_cast<int32_t>(bytes.size())),
                  static_cast<int>(bytes.size()));
    }

    void expect_heard(const std::string &bytes) const {
        std::string heard(bytes.size(), '\0');
        const ssize_t count = recv(client, heard.data(), heard.size(), MSG_WAITALL);
        heard.resize(count < 0 ? 0 : static_cast<size_t>(count));
        EXPECT_EQ(heard, bytes);
    }

    void expect_hung_up() const {
        char byte;
        EXPECT_EQ(recv(client, &byte, 1, 0), 0);
    }

    int exit_status() {
        int status = 0;
        waitpid(pid, &status, 0);
        pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    pid_t pid = -1;
    int port = 0;
    int client = -1;
    FILE *output = nullptr;
};

TEST_F(MessageServer, ASumIsAnsweredByTheTotal) {
    start();
    say("sum\r\n2\r\n-30\r\n4000000000\r\n\r\n");
    expect_heard("sum\r\n3999999972\r\n\r\n");
    say("sum\r\n\r\n");
    expect_heard("sum\r\n0\r\n\r\n");
}

TEST_F(MessageServer, ASumThatOverflowsWrapsRound) {
    start();
    say("sum\r\n9223372036854775807\r\n1\r\n\r\n");
    expect_heard("sum\r\n-9223372036854775808\r\n\r\n");
}

TEST_F(MessageServer, AnUnknownRequestIsNamed) {
    start();
    say("fly\r\naway\r\n\r\n");
    expect_heard("unknown\r\nfly\r\n\r\n");
}

// An empty line after "unknown" would end its message, and what follows would be taken for the next.
TEST_F(MessageServer, AnEmptyRequestIsAnsweredByOneLine) {
    start();
    say("\r\n\r\n\r\nwith more\r\n\r\nserved\r\n\r\n");
    expect_heard("unknown\r\n\r\nunknown\r\n\r\nserved\r\n2\r\n\r\n");
}

TEST_F(MessageServer, ARequestThatBeginsWithNulIsAnEmptyOne) {
    start();
    say(std::string("\0fly\r\n\r\nserved\r\n\r\n", 18));
    expect_heard("unknown\r\n\r\nserved\r\n1\r\n\r\n");
}

TEST_F(MessageServer, MessagesThatArriveTogetherAreAnsweredOneByOne) {
    start();
    say("served\r\n\r\nserved\r\n\r\nsum\r\n1\r\n\r\n");
    expect_heard("served\r\n0\r\n\r\nserved\r\n1\r\n\r\nsum\r\n1\r\n\r\n");
}

TEST_F(MessageServer, AMessageMayArriveInPieces) {
    start();
    for (const char byte : std::string("sum\r\n20\r\n22\r\n\r\n")) {
        say({byte});
    }
    expect_heard("sum\r\n42\r\n\r\n");
}

TEST_F(MessageServer, AfterByeItServesTheNextClient) {
    start();
    say("bye\r\n\r\n");
    expect_hung_up();
    EXPECT_EQ(line(), "A client has gone.\n");
    next_client();
    say("served\r\n\r\n");
    expect_heard("served\r\n1\r\n\r\n");
}

TEST_F(MessageServer, WhatAClientLeavesHalfSaidIsForgotten) {
    start();
    say("sum\r\n1\r\n");
    next_client();
    say("\r\n2\r\n\r\n");
    expect_heard("unknown\r\n\r\n");
    say("served\r\n\r\n");
    expect_heard("served\r\n1\r\n\r\n");
}

TEST_F(MessageServer, AClientThatStaysQuietIsDropped) {
    start("200");
    expect_hung_up();
}

// It asks and asks, until its answers fill the way back and the server waits to send the next.
TEST_F(MessageServer, AClientThatDoesNotReadIsDropped) {
    start("200");
    const std::string request = std::string(8000, 'x') + "\r\n\r\n";
    const auto size = static_cast<int32_t>(request.size());
    while (platform_send_all(client, request.data(), size) == size) {
    }
    EXPECT_TRUE(errno == ECONNRESET || errno == EPIPE) << errno;
    next_client();
    say("sum\r\n\r\n");
    expect_heard("sum\r\n0\r\n\r\n");
}

// Talks for longer than a client may be quiet: each message counts anew.
TEST_F(MessageServer, AClientThatTalksIsNotDropped) {
    start("2000");
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(3000);
    while (std::chrono::steady_clock::now() < end && !HasFailure()) {
        say("sum\r\n7\r\n\r\n");
        expect_heard("sum\r\n7\r\n\r\n");
    }
}

// A message in more pieces than there are waits in the time that is allowed.
TEST_F(MessageServer, AClientThatSendsInManyPiecesIsNotDropped) {
    start("10000");
    for (int piece = 0; piece < 2000; ++piece) {
        say(piece == 0 ? "sum\r\n" : "1\r\n");
    }
    say("\r\n");
    expect_heard("sum\r\n1999\r\n\r\n");
}

TEST_F(MessageServer, StopEndsIt) {
    start();
    say("stop\r\n\r\n");
    expect_hung_up();
    EXPECT_EQ(line(), "A client has gone.\n");
    EXPECT_EQ(line(), "");
    EXPECT_EQ(exit_status(), 0);
}

} // namespace
