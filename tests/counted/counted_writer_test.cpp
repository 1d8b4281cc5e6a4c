// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// What a message costs.
#include "cost.h"

#include <msg/msg.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <unistd.h>

namespace {

using namespace zel::test;

constexpr size_t kLastMessage = 50; // what is kept of a message for its continuation

// A stream into a file of its own.
FILE *open_file() {
    FILE *stream = tmpfile();
    require(stream != nullptr, "tmpfile");
    return stream;
}

// The cost of the second of two equal messages of that type, to that many files. The
// first one settles the width, the lists and the buffers of the streams.
Cost cost_of_second(int type, int files, const std::function<void()> &message) {
    return cost_of([type, files, &message] {
        msg_clear_streams(type);
        for (int file = 0; file < files; ++file) {
            msg_add_stream(type, open_file());
        }
        message();
        const Counted counted;
        message();
    });
}

void print_line() {
    msg_print("%s: %d of %d files, now in %s", "backup", 12, 40, "/home/guest");
}
constexpr size_t kLineLength = sizeof "backup: 12 of 40 files, now in /home/guest\n" - 1;

std::string words(size_t length) {
    std::string text;
    while (text.size() < length) {
        text += "some words, short and considerably longer ";
    }
    text.resize(length);
    return text;
}

TEST(CountedWriter, AShortLineIsOneWriteWithoutMemory) {
    const Cost cost = cost_of_second(MSG_INFO, 1, print_line);
    EXPECT_EQ(cost.calls, Calls{"write"});
    EXPECT_EQ(cost.allocations, 0U);
    EXPECT_EQ(cost.releases, 0U);
    EXPECT_LE(cost.copied, kLineLength + kLastMessage);
}

TEST(CountedWriter, AWrappedTextIsOneWriteWithoutMemory) {
    const std::string text = words(400);
    const Cost cost = cost_of_second(MSG_INFO, 1, [&text] { msg_print("%s", text.c_str()); });
    EXPECT_EQ(cost.calls, Calls{"write"});
    EXPECT_EQ(cost.allocations, 0U);
    EXPECT_EQ(cost.releases, 0U);
    EXPECT_LE(cost.copied, text.size() + kLastMessage);
}

TEST(CountedWriter, ALineOnThreeStreamsIsAWriteForEach) {
    const Cost cost = cost_of_second(MSG_INFO, 3, print_line);
    EXPECT_EQ(cost.calls, (Calls{"write", "write", "write"}));
    EXPECT_EQ(cost.allocations, 0U);
    EXPECT_LE(cost.copied, 3 * kLineLength + kLastMessage);
}

TEST(CountedWriter, AContinuedLineIsOneWriteWithoutMemory) {
    const Cost cost = cost_of_second(MSG_INFO, 1, [] {
        print_line();
        MSG_CONT("%s", "and one more");
    });
    EXPECT_EQ(cost.calls, (Calls{"write", "write"}));
    EXPECT_EQ(cost.allocations, 0U);
}

TEST(CountedWriter, ADiagnosticLineStaysInItsStream) {
    const Cost cost = cost_of_second(MSG_DIAG, 1, [] { msg_diag("request %d answered\n", 4711); });
    EXPECT_EQ(cost.calls, Calls{});
    EXPECT_EQ(cost.allocations, 0U);
    EXPECT_LE(cost.copied, sizeof "request 4711 answered\n");
}

TEST(CountedWriter, ATypeWithoutStreamsIsSilentWithoutMemory) {
    const Cost cost = cost_of_second(MSG_INFO, 0, print_line);
    EXPECT_EQ(cost.calls, Calls{});
    EXPECT_EQ(cost.allocations, 0U);
}

// Standard error has no buffer: each piece that is not empty leaves by itself.
TEST(CountedWriter, AWarningOnStandardErrorIsAWriteForEachPiece) {
    const Cost cost = cost_of([] {
        dup2(fileno(open_file()), STDERR_FILENO);
        msg_warn("%s", "the disk is full");
        const Counted counted;
        msg_warn("%s", "the disk is full");
    });
    EXPECT_EQ(cost.calls, (Calls{"write", "write", "write"}));
    EXPECT_EQ(cost.allocations, 0U);
}

TEST(CountedWriter, ATextBeyondTheFixedAreaTakesOneBlock) {
    const std::string text = words(20000);
    const Cost cost = cost_of_second(MSG_INFO, 1, [&text] { msg_print("%s", text.c_str()); });
    EXPECT_EQ(cost.allocations, 1U);
    EXPECT_EQ(cost.releases, 1U);
    EXPECT_LE(cost.copied, text.size() + kLastMessage);
}

} // namespace
