// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Each stream sees every line once and in order, whatever else is in the list of its type.
#include "msg_support.h"
#include "sinks_support.h"

#include <algorithm>
#include <cstdlib>
#include <random>
#include <unistd.h>
#include <vector>

using namespace zel::test;

namespace {

constexpr size_t kRingSize = 1 << 20;

// Everything that a type's list may hold. What each has seen comes back as one text.
struct Streams {
    LogFolder folder;
    std::string lines;
    std::string pieces;
    FILE *function = open_lines([this](const std::string &line) {
        lines += line;
        well_formed = well_formed && line.find('\n') == line.size() - 1;
        return true;
    });
    FILE *own = open_own_stream([this](const std::string &piece) { pieces += piece; });
    FILE *ring = msg_open_ring(kRingSize, -1);
    FILE *log = folder.open(INT64_MAX, 3);
    FILE *file = tmpfile();
    bool well_formed = true;

    std::string seen_by(FILE *stream) const {
        fflush(stream);
        if (stream == function) {
            return lines;
        }
        if (stream == own) {
            return pieces;
        }
        if (stream == log) {
            return folder.all();
        }
        if (stream == file) {
            return contents(file);
        }
        FILE *scratch = open_scratch_stream();
        msg_write_ring(ring, fileno(scratch));
        std::string text = contents(scratch);
        fclose(scratch);
        return text;
    }
};

void write_one_message(std::mt19937 &random, int number) {
    const std::string words(random() % 120, ' ');
    const std::string text =
        "message " + std::to_string(number) + words + "next\nand " + std::string(random() % 90, 'x');
    switch (random() % 4) {
    case 0:
        msg_warn("%s", text.c_str());
        break;
    case 1:
        msg_warn_wrap("%s", text.c_str());
        break;
    case 2:
        msg_warn_raw("%s", text.c_str());
        break;
    default:
        MSG_CONT("%s", text.c_str());
        break;
    }
}

void write_messages(unsigned seed) {
    std::mt19937 random(seed);
    msg_warn("first");
    for (int number = 0; number < 100; ++number) {
        write_one_message(random, number);
    }
    msg_warn("last");
}

// Whether the text behind what was seen before is the expected one. An empty expectation
// becomes the text.
bool has_grown_by(const std::string &now, const std::string &before, std::string &expected) {
    const std::string added = now.substr(std::min(before.size(), now.size()));
    expected = expected.empty() ? added : expected;
    return now == before + added && added == expected;
}

// Writes messages to the chosen streams. Says what any of the streams saw amiss.
std::string amiss_with(const Streams &streams, unsigned chosen) {
    const std::vector<FILE *> all = {streams.function, streams.own, streams.ring, streams.log, streams.file};
    std::vector<std::string> before;
    msg_clear_streams(MSG_WARNING);
    for (size_t index = 0; index < all.size(); ++index) {
        before.push_back(streams.seen_by(all[index]));
        msg_add_stream(MSG_WARNING, (chosen >> index & 1) != 0 ? all[index] : nullptr);
    }
    write_messages(chosen);
    std::string text;
    std::string amiss;
    for (size_t index = 0; index < all.size(); ++index) {
        const std::string now = streams.seen_by(all[index]);
        const bool listed = (chosen >> index & 1) != 0;
        const bool right = listed ? has_grown_by(now, before[index], text) : now == before[index];
        amiss += right ? "" : std::to_string(chosen) + ":" + std::to_string(index) + " ";
    }
    const bool whole = text.size() > 10000 && text.find("Warning: last\n") != std::string::npos;
    return amiss + (whole ? "" : std::to_string(chosen) + " is short ");
}

} // namespace

TEST(SinkLines, EachStreamSeesTheSameTextWhateverElseIsRegistered) {
    const Outcome outcome = run_messages([] {
        const Streams streams;
        std::string amiss;
        for (unsigned chosen = 1; chosen < 1U << 5; ++chosen) {
            amiss += amiss_with(streams, chosen);
        }
        printf("%s%s", amiss.c_str(), streams.well_formed ? "whole lines" : "parts");
    });
    EXPECT_EQ(outcome.out, "whole lines");
    EXPECT_EQ(outcome.err, "");
}

TEST(SinkLines, AStreamThatStandsTwiceInAListSeesEachPieceTwice) {
    const Outcome outcome = run_messages([] {
        msg_clear_streams(MSG_WARNING);
        FILE *stream = open_bracketed();
        msg_add_stream(MSG_WARNING, stream);
        msg_add_stream(MSG_WARNING, stream);
        msg_warn("one");
    });
    EXPECT_EQ(outcome.out, "[Warning: Warning: oneone\n][\n]");
}

TEST(SinkLines, NoneHasADescriptorOfItsOwn) {
    const LogFolder folder;
    for (FILE *stream : {folder.open(100, 1), msg_open_ring(10, -1), open_bracketed()}) {
        errno = 0;
        EXPECT_EQ(fileno(stream), -1);
        EXPECT_EQ(errno, EBADF);
        EXPECT_EQ(fclose(stream), 0);
    }
}
