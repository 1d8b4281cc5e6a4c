// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The examples of pair_control.h and message_lines.h do what they say.
#include "examples_support.h"
#include "header_examples.h"

#include <support/child.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <numeric>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace zel::test;

// What one end of a connection has sent to the other.
std::string sent_by(const std::function<void(int socket, int peer)> &body) {
    return run_in_child([&body] {
               int ends[2];
               socketpair(AF_UNIX, SOCK_STREAM, 0, ends);
               body(ends[1], ends[0]);
               char text[256] = {};
               recv(ends[0], text, sizeof text - 1, MSG_DONTWAIT);
               printf("%s", text);
           })
        .out;
}

TEST(HeaderExampleOfTransfers, ValuesMayFollowTheirMessage) {
    const Outcome outcome = run_in_child([] {
        EXPECT_EQ(chdir(ZEL_EXAMPLE_PARTS), 0);
        std::vector<int32_t> values(5000);
        std::iota(values.begin(), values.end(), 1);
        printf("%d", example_of_values(values.data(), 5000));
    });
    EXPECT_EQ(outcome.out, "12502500");
}

TEST(HeaderExampleOfMessageLines, SendsItsThreeLines) {
    EXPECT_EQ(sent_by([](int socket, int) { printf("%d ", example_of_message_lines(socket, "notes", "a\0b", 1)); }),
              "1 index\r\nnotes\r\na\r\n\r\n");
}

TEST(HeaderExampleOfMessageLines, WarnsOfALineThatCannotBeSent) {
    const Outcome outcome =
        run_in_child([] { printf("%d", example_of_message_lines(-1, "notes", "two\r\nlines", 10)); });
    EXPECT_EQ(outcome.out, "0");
    EXPECT_EQ(outcome.err, "Warning: notes: Invalid argument\n");
}

TEST(HeaderExampleOfMessageLines, ServesRequestsUntilTheClientEnds) {
    EXPECT_EQ(sent_by([](int socket, int peer) {
                  send(peer, "one\r\n\r\ntwo\r\n2\r\n\r\n", 17, 0);
                  shutdown(peer, SHUT_WR);
                  printf("%d ", example_of_message_wait(socket));
              }),
              "2 one\r\n\r\ntwo\r\n2\r\n\r\n");
}

} // namespace
