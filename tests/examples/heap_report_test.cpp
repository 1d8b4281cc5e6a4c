// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The report of the heap about each mistake.
#include "examples_support.h"

#include <support/files.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

using namespace zel::test;

namespace {

constexpr size_t kPointerLength = 2 + 2 * sizeof(void *);

// Replaces the pointers that a text shows with <A>, <B> and so on, in the order in which they first come; the letters
// of both texts are the same.
struct Pointers {
    std::string named(const std::string &text) {
        std::string result;
        size_t done = 0;
        for (size_t at = text.find("0x"); at != std::string::npos; at = text.find("0x", done)) {
            result += text.substr(done, at - done) + name_of(text.substr(at, kPointerLength));
            done = at + kPointerLength;
        }
        return result + text.substr(done);
    }

    std::string name_of(const std::string &pointer) {
        auto known = std::find(seen.begin(), seen.end(), pointer);
        if (known == seen.end()) {
            known = seen.insert(seen.end(), pointer);
        }
        return std::string("<") + static_cast<char>('A' + (known - seen.begin())) + ">";
    }

    std::vector<std::string> seen;
};

// The program without a width limit, so that its lines are the same on both targets.
Outcome run_example(const std::vector<std::string> &arguments) {
    std::vector<std::string> command = {example("heap_report")};
    command.insert(command.end(), arguments.begin(), arguments.end());
    Outcome outcome = run_with({"ZEL_MSGERR_WRAP=0"}, command);
    Pointers pointers;
    outcome.out = pointers.named(outcome.out);
    outcome.err = pointers.named(outcome.err);
    return outcome;
}

// The line of the example's source that holds that text, counted from 1.
std::string line_of(const std::string &text) {
    std::istringstream source(read_file(ZEL_SOURCE_DIR "/examples/heap_report.cpp"));
    std::string line;
    for (int number = 1; std::getline(source, line); ++number) {
        if (line.find(text) != std::string::npos) {
            return std::to_string(number);
        }
    }
    return "missing";
}

std::string padded(const std::string &text, size_t width) {
    return text + std::string(std::max(width, text.size()) - text.size(), ' ');
}

void expect_ended(const Outcome &outcome, const std::string &out, const std::string &err) {
    EXPECT_EQ(outcome.out, out);
    EXPECT_EQ(outcome.err, err);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.signal, 0);
}

const std::string kOwner = "pointer was allocated by zel_strdup with a length of 5.  The storage was allocated in the "
                           "function overrun for user name.  ";
const std::string kOverrun = "The pointer <A> referenced data that was corrupted at the end.  The " + kOwner;
const std::string kOverrunSteps = "The pointer <A> referenced valid data.  The " + kOwner +
                                  "\nNine characters are written to a block of five.\n" + kOverrun +
                                  "\nAnother block is allocated: only a verification looks at this one.\n";

} // namespace

TEST(HeapReport, AnOverrunIsFoundWhenTheBlockIsReleased) {
    expect_ended(run_example({"overrun"}), kOverrunSteps + "Both are released.\n",
                 "Error: zel_free: " + kOverrun + " \n");
}

TEST(HeapReport, AnOverrunIsFoundByTheNextCallThatVerifies) {
    expect_ended(
        run_example({"--verify", "overrun"}), kOverrunSteps,
        "Warning: " + kOverrun +
            "\nError: zel_strdup: The heap was corrupted. (Currently inside of overrun, allocating storage for "
            "another name)\n");
}

TEST(HeapReport, ASecondReleaseIsFoundWhateverTheSystemDidToTheBlock) {
    const std::string owner =
        "pointer was allocated by zel_malloc with a length of 4000.  The storage was allocated in "
        "the function release_twice for second page.  ";
    const std::string named = "The pointer <A> was referenced after it was free'd.  Before being free'd, the " + owner;
    const std::string reused = "The pointer <A> referenced data that was corrupted at the beginning.";
    for (const std::vector<std::string> &arguments : {std::vector<std::string>{"double"}, {"--verify", "double"}}) {
        const Outcome outcome = run_example(arguments);
        const bool is_named = outcome.err.find("after it was free'd") != std::string::npos;
        expect_ended(outcome,
                     "The pointer <A> referenced valid data.  The " + owner +
                         "\nThe first page is released, then the second one, then the second one again.\n",
                     "Error: zel_free: " + (is_named ? named : reused) + " \n");
    }
}

TEST(HeapReport, AStrayPointerIsFoundWhenItIsReleased) {
    for (const std::vector<std::string> &arguments : {std::vector<std::string>{"stray"}, {"--verify", "stray"}}) {
        expect_ended(run_example(arguments),
                     "The pointer <A> referenced valid data.  The pointer was allocated by zel_calloc with a length of "
                     "32.  The storage was allocated in the function release_stray for path.  \n"
                     "The pointer is moved along and released where it has come to.\n"
                     "The pointer <B> referenced data that was corrupted at the beginning.\n",
                     "Error: zel_free: The pointer <B> referenced data that was corrupted at the beginning. \n");
    }
}

TEST(HeapReport, ALeakIsInTheReport) {
    const std::string line = padded(line_of("ZEL_MALLOC_ARRAY(int32_t, 64)"), 20);
    const std::string pointer = padded("Pointer", 2 * sizeof(void *));
    const std::string expected = "One of six blocks has been released; 387 bytes are in use.\n"
                                 "Note: a `*' in the first column indicates an invalid or corrupted pointer.\n"
                                 "X  ID    " +
                                 pointer +
                                 "  Length Method               Function/Line        Purpose/File\n"
                                 "     0 <A>     256 ZEL_MALLOC_ARRAY     " +
                                 line +
                                 " examples/heap_report.cpp\n"
                                 "     1 <B>       9 zel_strdup2          leak                 path\n"
                                 "     2 <C>       7 zel_strdup2          leak                 path\n"
                                 "     3 <D>      15 zel_strdup2          leak                 path\n"
                                 "     4 <E>     100 zel_malloc_if_room   ???                  ???\n"
                                 "zel_malloc_debug_report: 387 bytes allocated, 5 pointers\n";
    for (const std::vector<std::string> &arguments : {std::vector<std::string>{"leak"}, {"--verify", "leak"}}) {
        const Outcome outcome = run_example(arguments);
        EXPECT_EQ(outcome.out, expected);
        EXPECT_EQ(outcome.err, "");
        EXPECT_EQ(outcome.status, 0);
    }
}

TEST(HeapReport, WhatARequestKeepsIsInItsReportAndUnderItsOwner) {
    const std::string pointer = padded("Pointer", 2 * sizeof(void *));
    const std::string nothing = "zel_malloc_report_since: No storage was allocated\n";
    const std::string expected = "Request 1:\n" + nothing +
                                 "Request 2:\n"
                                 "Note: a `*' in the first column indicates an invalid or corrupted pointer.\n"
                                 "X  ID    " +
                                 pointer +
                                 "  Length Method               Function/Line        Purpose/File\n"
                                 "     2 <A>     400 zel_malloc           read_page            page\n"
                                 "zel_malloc_report_since: 400 bytes allocated, 1 pointers\n"
                                 "Request 3:\n" +
                                 nothing +
                                 "  Blocks      Bytes       Peak  Function or File:Line\n"
                                 "       1        400        800  read_page\n"
                                 "       1          8          8  read_settings\n"
                                 "zel_malloc_report_owners: 408 bytes allocated, 2 pointers, 2 owners\n";
    for (const std::vector<std::string> &arguments : {std::vector<std::string>{"request"}, {"--verify", "request"}}) {
        const Outcome outcome = run_example(arguments);
        EXPECT_EQ(outcome.out, expected);
        EXPECT_EQ(outcome.err, "");
        EXPECT_EQ(outcome.status, 0);
    }
}

TEST(HeapReport, WrongArgumentsAreAnsweredWithTheUsage) {
    for (const std::vector<std::string> &arguments :
         {std::vector<std::string>{}, {"--verify"}, {"none"}, {"leak", "stray"}, {"--verify", "leak", "stray"}}) {
        const Outcome outcome = run_example(arguments);
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(outcome.err, "Error: Usage: heap_report [--verify] overrun|double|stray|leak|request\n");
        EXPECT_EQ(outcome.status, 2);
    }
}
