// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The stream lists of the types, and the sync flag.
#include "msg_support.h"

#include <algorithm>
#include <array>
#include <support/interpose.h>
#include <unistd.h>
#include <vector>

using namespace zel::test;

namespace {

constexpr std::array kTypes = {MSG_INFO, MSG_DEBUG, MSG_WARNING, MSG_ERROR, MSG_DIAG};

// The lists as text: "info[out] ...", each stream by its letter.
void print_lists(const std::string &letters, const std::vector<FILE *> &streams) {
    for (const MsgType type : kTypes) {
        const MsgStreamDesc *desc = _msg_get_stream_desc(type);
        std::string list;
        for (int index = 0; index < desc->count; ++index) {
            const auto found = std::find(streams.begin(), streams.end(), desc->streams[index]);
            list += found == streams.end() ? '?' : letters[static_cast<size_t>(found - streams.begin())];
        }
        printf("%d[%s] ", type, list.c_str());
    }
}

void print_standard_lists() {
    print_lists("oe", {stdout, stderr});
}

// Three streams in place of those of the informational type.
struct Three {
    FILE *a = open_scratch_stream();
    FILE *b = open_scratch_stream();
    FILE *c = open_scratch_stream();
    Three() {
        msg_clear_streams(MSG_INFO);
        for (FILE *stream : {a, b, c}) {
            msg_add_stream(MSG_INFO, stream);
        }
    }
    void print() const { print_lists("abcoe", {a, b, c, stdout, stderr}); }
};

} // namespace

TEST(MsgStreams, TheTableStartsWithTheStandardStreams) {
    EXPECT_EQ(run_messages(print_standard_lists).out, "1[o] 2[o] 4[e] 8[e] 16[] ");
}

TEST(MsgStreams, OnlyTheInformationalTypeStartsInSyncMode) {
    const Outcome outcome = run_messages([] {
        for (const MsgType type : kTypes) {
            printf("%d%d ", _msg_get_stream_desc(type)->sync, msg_sync_mode(type, -1));
        }
    });
    EXPECT_EQ(outcome.out, "11 00 00 00 00 ");
}

TEST(MsgStreams, EachStreamCallBuildsTheTableFirst) {
    const std::vector<std::function<void()>> calls = {
        [] { msg_add_stream(MSG_DIAG, stdout); },
        [] { msg_remove_stream(MSG_DIAG, stdout); },
        [] { msg_clear_streams(MSG_DIAG); },
        [] { msg_sync_mode(MSG_DEBUG, 1); },
        [] { msg_info_has_stream(); },
        [] { msg_warn_has_stream(); },
        [] { _msg_get_stream_desc(MSG_WARNING); },
    };
    for (const auto &call : calls) {
        const Outcome outcome = run_messages([&call] {
            call();
            print_standard_lists();
        });
        EXPECT_EQ(outcome.out.substr(0, 20), "1[o] 2[o] 4[e] 8[e] ");
    }
}

TEST(MsgStreams, AMaskAddsToEachTypeItNames) {
    const Outcome outcome = run_messages([] {
        msg_add_stream(MSG_INFO | MSG_ERROR | MSG_DIAG, stderr);
        print_standard_lists();
    });
    EXPECT_EQ(outcome.out, "1[oe] 2[o] 4[e] 8[ee] 16[e] ");
}

TEST(MsgStreams, BitsAboveTheFiveAreIgnored) {
    const Outcome outcome = run_messages([] {
        msg_add_stream(~31, stderr);
        msg_add_stream(~31 | MSG_DEBUG, stderr);
        msg_remove_stream(~31, stderr);
        msg_clear_streams(32);
        print_standard_lists();
    });
    EXPECT_EQ(outcome.out, "1[o] 2[oe] 4[e] 8[e] 16[] ");
    EXPECT_EQ(outcome.err, "");
}

TEST(MsgStreams, ANullStreamIsNotAdded) {
    const Outcome outcome = run_messages([] {
        msg_add_stream(31, nullptr);
        print_standard_lists();
    });
    EXPECT_EQ(outcome.out, "1[o] 2[o] 4[e] 8[e] 16[] ");
}

TEST(MsgStreams, AMessageGoesToEveryStreamOfItsTypeAsOftenAsItStandsThere) {
    const Outcome outcome = run_messages([] {
        msg_add_stream(MSG_WARNING, stdout);
        msg_add_stream(MSG_WARNING, stdout);
        msg_set_warn_prefix("");
        msg_warn("text");
        msg_error("other");
    });
    EXPECT_EQ(outcome.out, "texttext\n\n");
    EXPECT_EQ(outcome.err, "text\nError: other\n");
}

TEST(MsgStreams, RemovingTakesTheFirstOccurrenceAndKeepsTheOrder) {
    const Outcome outcome = run_messages([] {
        const Three three;
        msg_add_stream(MSG_INFO, three.b);
        msg_add_stream(MSG_INFO, three.a);
        msg_remove_stream(MSG_INFO, three.b);
        three.print();
        msg_remove_stream(MSG_INFO, three.b);
        msg_remove_stream(MSG_INFO, three.b);
        three.print();
    });
    EXPECT_EQ(outcome.out, "1[acba] 2[o] 4[e] 8[e] 16[] 1[aca] 2[o] 4[e] 8[e] 16[] ");
}

TEST(MsgStreams, AMaskRemovesFromEachTypeItNames) {
    const Outcome outcome = run_messages([] {
        msg_remove_stream(MSG_INFO | MSG_WARNING | MSG_DIAG, stdout);
        print_standard_lists();
    });
    EXPECT_EQ(outcome.out, "1[] 2[o] 4[e] 8[e] 16[] ");
}

TEST(MsgStreams, ClearingEmptiesTheListsAndKeepsTheSlots) {
    const Outcome outcome = run_messages([] {
        const MsgStreamDesc *desc = _msg_get_stream_desc(MSG_INFO);
        const int32_t capacity = desc->capacity;
        FILE **const slots = desc->streams;
        msg_clear_streams(MSG_INFO | MSG_ERROR);
        print_standard_lists();
        printf("%d %d", desc->capacity == capacity, desc->streams == slots);
    });
    EXPECT_EQ(outcome.out, "1[] 2[o] 4[e] 8[] 16[] 1 1");
}

TEST(MsgStreams, RemovedAndClearedStreamsStayOpen) {
    const Outcome outcome = run_messages([] {
        msg_remove_stream(31, stdout);
        msg_clear_streams(31);
        fputs("out", stdout);
        fputs("err", stderr);
    });
    EXPECT_EQ(outcome.out, "out");
    EXPECT_EQ(outcome.err, "err");
}

TEST(MsgStreams, AListGrowsAsFarAsNeeded) {
    const Outcome outcome = run_messages([] {
        for (int count = 0; count < 12; ++count) {
            msg_add_stream(MSG_DIAG, stdout);
        }
        const MsgStreamDesc *desc = _msg_get_stream_desc(MSG_DIAG);
        msg_diag("x");
        printf(" %d", desc->count);
    });
    EXPECT_EQ(outcome.out, "xxxxxxxxxxxx 12");
}

#ifndef ZEL_SMALL_CONSTANTS
// Holds the step of 5 slots.
TEST(MsgStreamsSize, AListGrowsByFiveSlots) {
    const Outcome outcome = run_messages([] {
        const MsgStreamDesc *desc = _msg_get_stream_desc(MSG_DIAG);
        for (int count = 0; count < 12; ++count) {
            printf("%d/%d ", desc->count, desc->capacity);
            msg_add_stream(MSG_DIAG, stdout);
        }
    });
    EXPECT_EQ(outcome.out, "0/0 1/5 2/5 3/5 4/5 5/5 6/10 7/10 8/10 9/10 10/10 11/15 ");
}
#endif

TEST(MsgStreams, HasStreamTellsWhetherAListHoldsAny) {
    const Outcome outcome = run_messages([] {
        printf("%d%d ", msg_info_has_stream(), msg_warn_has_stream());
        msg_clear_streams(MSG_INFO);
        printf("%d%d ", msg_info_has_stream(), msg_warn_has_stream());
        msg_clear_streams(MSG_WARNING);
        msg_add_stream(MSG_INFO, stdout);
        msg_add_stream(MSG_INFO, stdout);
        printf("%d%d ", msg_info_has_stream(), msg_warn_has_stream());
    });
    EXPECT_EQ(outcome.out, "11 01 10 ");
}

TEST(MsgStreams, AnUnknownTypeHasNoDescriptor) {
    for (const int type : {0, 3, 32, -16}) {
        const Outcome outcome = run_messages([type] { _msg_get_stream_desc(type); });
        EXPECT_EQ(outcome.err,
                  "Error: Internal error (_msg_get_stream_desc): Unknown message type: " + std::to_string(type) + "\n");
        EXPECT_EQ(outcome.status, 1);
    }
}

TEST(MsgStreams, AForkedChildHasTheListsTheColumnAndThePrefixes) {
    const Outcome outcome = run_messages([] {
        msg_set_mp_prefix("[3] ");
        msg_add_stream(MSG_ERROR, stdout);
        msg_print_wrap("open");
        const Outcome child = run_in_child([] { msg_error("text"); });
        fputs((child.out + child.err).c_str(), stderr);
    });
    EXPECT_EQ(outcome.out, "[3] open");
    EXPECT_EQ(outcome.err, "\n[3] Error: text\n\n[3] Error: text\n");
}

// ---- The sync flag -------------------------------------------------------------------------------------------------

TEST(MsgStreams, SettingSyncModeFlushesAndForcesEachStreamOnce) {
    const Outcome outcome = run_messages([] {
        std::string events;
        FILE *other = open_scratch_stream();
        {
            const Interposed flush(hook::fflush, [&](FILE *stream) {
                events += stream == stdout ? "flush out " : "flush other ";
                return 0;
            });
            const Interposed sync(hook::fsync, [&](int fd) {
                events += fd == fileno(stdout) ? "sync out " : "sync other ";
                return 0;
            });
            msg_add_stream(MSG_DEBUG, other);
            const int first = msg_sync_mode(MSG_DEBUG, 1);
            const int second = msg_sync_mode(MSG_DEBUG, 1);
            events += std::to_string(first) + std::to_string(second);
        }
        fputs(events.c_str(), stdout);
    });
    EXPECT_EQ(outcome.out, "flush out sync out flush other sync other 11");
}

TEST(MsgStreams, SettingSyncModeBringsBufferedTextToTheFile) {
    const Outcome outcome = run_messages([] {
        fputs("buffered", stdout);
        msg_sync_mode(MSG_DEBUG, 1);
        _exit(0);
    });
    EXPECT_EQ(outcome.out, "buffered");
}

TEST(MsgStreams, SyncModeIsSetInEachTypeOfTheMask) {
    const Outcome outcome = run_messages([] {
        printf("%d ", msg_sync_mode(MSG_WARNING | MSG_DIAG, 1));
        for (const MsgType type : kTypes) {
            printf("%d", msg_sync_mode(type, -1));
        }
    });
    EXPECT_EQ(outcome.out, "1 10101");
}

TEST(MsgStreams, SyncModeZeroDoesNotClearTheFlag) {
    const Outcome outcome = run_messages([] {
        msg_sync_mode(MSG_DIAG, 1);
        printf("%d", msg_sync_mode(MSG_DIAG | MSG_INFO, 0));
        printf("%d%d", msg_sync_mode(MSG_DIAG, -1), msg_sync_mode(MSG_INFO, -1));
    });
    EXPECT_EQ(outcome.out, "011");
}

TEST(MsgStreams, AModeAboveOneIsReturnedAndSetsNothing) {
    const Outcome outcome = run_messages([] {
        printf("%d ", msg_sync_mode(MSG_DIAG, 2));
        printf("%d", msg_sync_mode(MSG_DIAG, -1));
    });
    EXPECT_EQ(outcome.out, "2 0");
}

TEST(MsgStreams, ASyncQueryOfTwoTypesGivesMinusOne) {
    const Outcome outcome = run_messages([] {
        printf("%d ", msg_sync_mode(MSG_INFO | MSG_WARNING, -1));
        printf("%d ", msg_sync_mode(MSG_WARNING | MSG_DIAG, -1));
        printf("%d ", msg_sync_mode(31, -5));
    });
    EXPECT_EQ(outcome.out, "-1 -1 -1 ");
}

TEST(MsgStreams, SyncModeOfNoTypeGivesMinusTwo) {
    const Outcome outcome = run_messages([] {
        for (const int mode : {1, 0, -1}) {
            printf("%d ", msg_sync_mode(32, mode));
            printf("%d ", msg_sync_mode(0, mode));
        }
    });
    EXPECT_EQ(outcome.out, "-2 -2 -2 -2 -2 -2 ");
}

TEST(MsgStreams, SyncModeLeavesTheMessagesThemselvesAlone) {
    const Outcome outcome = run_messages([] {
        int forced = 0;
        const Interposed sync(hook::fsync, [&](int) { return ++forced, 0; });
        msg_print("text");
        printf("%d", forced);
    });
    EXPECT_EQ(outcome.out, "text\n0");
}
