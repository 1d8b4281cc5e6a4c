// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The core writer: types, layouts, the dollar-sign rule, and the order of its writes.
#include "msg_support.h"

#include <support/interpose.h>
#include <unistd.h>

using namespace zel::test;

namespace {

// The format as a program has it that built it: in storage that can be written.
[[gnu::format_arg(1)]] const char *as_built(const char *format) {
    static std::string storage;
    storage = format;
    return storage.c_str();
}

// The pieces that reach an unbuffered stream while the body runs, and the flushes.
std::string recorded(const std::function<void()> &body) {
    return run_messages([&body] {
               std::string events;
               msg_clear_streams(MSG_INFO);
               msg_add_stream(MSG_INFO,
                              open_own_stream([&events](const std::string &piece) { events += "{" + piece + "}"; }));
               {
                   const Interposed flush(hook::fflush, [&events](FILE *) { return events += "<flush>", 0; });
                   body();
               }
               fputs(events.c_str(), stdout);
           })
        .out;
}

} // namespace

TEST(MsgOutput, AnEmptyTextIsAnEmptyLine) {
    const Outcome outcome = run_messages([] { msg_print("%s", ""); });
    EXPECT_EQ(outcome.out, "\n");
    EXPECT_EQ(outcome.err, "");
}

TEST(MsgOutput, AnEmptyTextIsStillOpenedByItsPrefix) {
    EXPECT_EQ(run_messages([] { msg_warn("%s", ""); }).err, "Warning: \n");
}

TEST(MsgOutput, ATextThatEndsInANewlineYieldsAnEmptyLineAfterIt) {
    EXPECT_EQ(run_messages([] { msg_print("text\n"); }).out, "text\n\n");
}

TEST(MsgOutput, EachTypeGoesToItsDefaultStream) {
    const Outcome outcome = run_messages([] {
        output(MSG_INFO, MSG_FMT_LINE, 0, 0, "", "informational");
        output(MSG_DEBUG, MSG_FMT_LINE, 0, 0, "", "debug");
        output(MSG_WARNING, MSG_FMT_LINE, 0, 0, "", "warning");
        output(MSG_ERROR, MSG_FMT_LINE, 0, 0, "", "error");
        output(MSG_DIAG, MSG_FMT_LINE, 0, 0, "", "diag");
    });
    EXPECT_EQ(outcome.out, "informational\ndebug\n");
    EXPECT_EQ(outcome.err, "warning\nerror\n");
}

TEST(MsgOutput, ADiagMessageGoesToTheDiagStreams) {
    const Outcome outcome = run_messages([] {
        msg_add_stream(MSG_DIAG, stdout);
        output(MSG_DIAG, MSG_FMT_LINE, 0, 0, "> ", "50%%");
    });
    EXPECT_EQ(outcome.out, "> 50%\n");
}

TEST(MsgOutput, OnlyALineIsFlushed) {
    const auto written_before_exit = [](void (*write)()) {
        return run_messages([write] {
                   write();
                   _exit(0);
               })
            .out;
    };
    EXPECT_EQ(written_before_exit([] { msg_print("line"); }), "line\n");
    EXPECT_EQ(written_before_exit([] { msg_print_wrap("wrapped"); }), "");
    EXPECT_EQ(written_before_exit([] { msg_print_raw("raw\n"); }), "");
}

TEST(MsgOutput, EachPieceIsWrittenByItselfAndALineIsFlushedOnce) {
    const std::string text = recorded([] {
        msg_set_width_limit(20);
        msg_set_mp_prefix("#");
        msg_set_print_prefix("ab: ");
        msg_print("one two three four five");
    });
    EXPECT_EQ(text, "{#}{ab: }{one two three}{\n}{#}{    }{four five}{\n}<flush>");
}

TEST(MsgOutput, ALineLeftOpenIsEndedAndFlushedAtTheStartOfTheNextMessage) {
    const std::string text = recorded([] {
        msg_print_wrap("open");
        msg_print_wrap("next");
    });
    EXPECT_EQ(text, "{open}{\n}<flush>{next}");
}

TEST(MsgOutput, ALineLeftOpenIsEndedOnTheStreamsOfTheNextMessage) {
    const Outcome outcome = run_messages([] {
        msg_print_wrap("open");
        msg_warn("text");
        msg_print("more");
    });
    EXPECT_EQ(outcome.out, "openmore\n");
    EXPECT_EQ(outcome.err, "\nWarning: text\n");
}

TEST(MsgOutput, ALineLeftOpenByAPrefixAloneIsEndedToo) {
    const Outcome outcome = run_messages([] {
        msg_warn_raw("%s", "");
        msg_warn("text");
    });
    EXPECT_EQ(outcome.err, "Warning: \nWarning: text\n");
}

// ---- The dollar-sign rule ------------------------------------------------------------------------------------------

TEST(MsgOutput, TwoDollarSignsStandForOne) {
    const Outcome outcome = run_messages([] {
        msg_print("$$5 left");
        msg_print("$$");
        msg_print("$$$ three");
        msg_print("5$ $$");
    });
    EXPECT_EQ(outcome.out, "$5 left\n$\n$$ three\n5$ $$\n");
}

// The checked form of vsnprintf ends a process whose format is writable and holds %n.
TEST(MsgOutput, AFormatOfTheProgramsOwnMayAskForThePosition) {
    const Outcome outcome = run_messages([] {
        int position = 0;
        msg_print(as_built("four%n."), &position);
        msg_print("%d", position);
    });
    EXPECT_EQ(outcome.out, "four.\n4\n");
    EXPECT_EQ(outcome.status, 0);
}

TEST(MsgOutput, ASingleDollarSignEndsTheProcess) {
    const Outcome outcome = run_messages([] {
        msg_set_width_limit(0);
        msg_print("$5 left");
    });
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "Error: Internationalization interface not yet supported.\n"
                           "       However, the format string \"$5 left\" began with a dollar sign.  Use two dollar "
                           "signs if you really want the string to begin a dollar sign.\n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(MsgOutput, ADollarSignAloneIsASingleOne) {
    const Outcome outcome = run_messages([] { msg_print("$"); });
    EXPECT_EQ(outcome.err, "Error: Internationalization interface not yet supported.\n"
                           "       However, the format string \"$\" began with a dollar sign.  Use two\n"
                           "       dollar signs if you really want the string to begin a dollar sign.\n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(MsgOutput, TheFormatIsReportedUnformatted) {
    const Outcome outcome = run_messages([] { msg_print("$%d", 5); });
    EXPECT_NE(outcome.err.find("the format string \"$%d\" began"), std::string::npos);
}

TEST(MsgOutput, ADollarSignOfAnArgumentIsText) {
    EXPECT_EQ(run_messages([] { msg_print("%s", "$5 left"); }).out, "$5 left\n");
}

TEST(MsgOutput, APrimaryMessageIsRefusedAsAPrimaryMessage) {
    const auto refused = [](void (*write)()) {
        return run_messages([write] {
            msg_set_mp_prefix("[3] ");
            write();
        });
    };
    const Outcome primary = refused([] { msg_primary_print("$"); });
    EXPECT_EQ(primary.err.substr(0, 28), "Error: Internationalization ");
    EXPECT_EQ(primary.status, 1);
    const Outcome common = refused([] { msg_print("$"); });
    EXPECT_EQ(common.err.substr(0, 32), "[3] Error: Internationalization ");
    EXPECT_EQ(common.status, 1);
}

// ---- Unknown types and layouts -------------------------------------------------------------------------------------

TEST(MsgOutput, AnUnknownTypeEndsTheProcess) {
    for (const int type : {0, 3, 32, -1}) {
        const Outcome outcome = run_messages([type] {
            msg_set_width_limit(0);
            output(type, MSG_FMT_LINE, 0, 0, "", "text");
        });
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(outcome.err,
                  "Error: Internal error (_msg_get_stream_desc): Unknown message type: " + std::to_string(type) + "\n");
        EXPECT_EQ(outcome.status, 1);
    }
}

TEST(MsgOutput, AnUnknownTypeIsReportedAheadOfADollarSign) {
    const Outcome outcome = run_messages([] { output(64, MSG_FMT_LINE, 0, 0, "", "$"); });
    EXPECT_EQ(outcome.err, "Error: Internal error (_msg_get_stream_desc): Unknown message type: 64\n");
}

TEST(MsgOutput, EachTypeHasItsName) {
    const Outcome outcome = run_messages([] {
        for (const int type : {MSG_INFO, MSG_DEBUG, MSG_WARNING, MSG_ERROR, MSG_DIAG}) {
            printf("%s ", msg_type_name(type));
        }
    });
    EXPECT_EQ(outcome.out, "informational debug warning error diag ");
}

TEST(MsgOutput, NamingAnUnknownTypeEndsTheProcess) {
    for (const int type : {0, 3, 32, -1}) {
        const Outcome outcome = run_messages([type] { msg_type_name(type); });
        EXPECT_EQ(outcome.err, "Error: Internal error: Unknown message type: " + std::to_string(type) + "\n");
        EXPECT_EQ(outcome.status, 1);
    }
}

TEST(MsgOutput, TheCodesOfTypesAndLayoutsAreFixed) {
    EXPECT_EQ(MSG_INFO, 1);
    EXPECT_EQ(MSG_DEBUG, 2);
    EXPECT_EQ(MSG_WARNING, 4);
    EXPECT_EQ(MSG_ERROR, 8);
    EXPECT_EQ(MSG_DIAG, 16);
    EXPECT_EQ(MSG_FMT_RAW, 0);
    EXPECT_EQ(MSG_FMT_WRAP, 1);
    EXPECT_EQ(MSG_FMT_LINE, 2);
}

TEST(MsgOutput, AnUnknownLayoutEndsTheProcessWhereItWouldBeApplied) {
    for (const int fmt_type : {-1, 3, 1000}) {
        const Outcome outcome = run_messages([fmt_type] { output(MSG_INFO, fmt_type, 0, 0, "p: ", "text"); });
        EXPECT_EQ(outcome.out, "p: ");
        EXPECT_EQ(outcome.err, "\nError: Internal error: Bad MSG_FMT_TYPE: " + std::to_string(fmt_type) + "\n");
        EXPECT_EQ(outcome.status, 1);
    }
}

TEST(MsgOutput, AnUnknownLayoutOfALaterMessageEndsTheProcessToo) {
    const Outcome outcome = run_messages([] {
        msg_print("first");
        output(MSG_INFO, 3, 0, 0, "p: ", "text");
    });
    EXPECT_EQ(outcome.out, "first\np: ");
    EXPECT_EQ(outcome.status, 1);
}

TEST(MsgOutput, AnUnknownLayoutOfAPrimaryMessageIsReportedAsAPrimaryMessage) {
    const Outcome outcome = run_messages([] {
        msg_set_mp_prefix("[3] ");
        output(MSG_INFO, 3, 1, 0, "", "text");
    });
    EXPECT_EQ(outcome.err, "Error: Internal error: Bad MSG_FMT_TYPE: 3\n");
    EXPECT_EQ(outcome.status, 1);
}

TEST(MsgOutput, AnUnknownLayoutPassesAsRawWithoutAWidth) {
    const Outcome outcome = run_messages([] {
        msg_set_width_limit(0);
        output(MSG_INFO, 3, 0, 0, "p: ", "text");
    });
    EXPECT_EQ(outcome.out, "p: text");
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
}
