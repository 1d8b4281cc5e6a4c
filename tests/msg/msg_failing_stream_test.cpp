// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Streams that fail: dropped for good, reported once, the message goes on.
#include "msg_support.h"

#include <cerrno>
#include <support/interpose.h>
#include <unistd.h>

using namespace zel::test;

namespace {

std::string report(const std::string &operation, const std::string &type, const std::string &error) {
    const std::string first = " during " + operation + " of " + type + " message.  This stream will no longer be used.";
    // The width limit of 78 columns breaks the line once.
    const std::string line = "Warning: Error" + first;
    const size_t blank = line.rfind(' ', 78);
    return line.substr(0, blank) + "\n         " + line.substr(blank + 1) + "\n         Stream error was: " + error +
           "\n";
}

const std::string kDevice = "No space left on device";

void use_streams(int type, std::initializer_list<FILE *> streams) {
    msg_clear_streams(type);
    for (FILE *stream : streams) {
        msg_add_stream(type, stream);
    }
}

} // namespace

TEST(MsgFailingStream, TheStreamBehindAFailedOneMissesThatOnePiece) {
    FILE *b = open_scratch_stream();
    FILE *c = open_scratch_stream();
    const Outcome outcome = run_messages([&] {
        use_streams(MSG_INFO, {open_full_stream(_IONBF), b, c});
        msg_print_with_prefix("P: ", "one");
        msg_print_with_prefix("P: ", "two");
    });
    EXPECT_EQ(contents(b), "one\nP: two\n");
    EXPECT_EQ(contents(c), "P: one\nP: two\n");
    EXPECT_EQ(outcome.err, report("output", "informational", kDevice));
    EXPECT_EQ(outcome.status, 0);
    fclose(b);
    fclose(c);
}

TEST(MsgFailingStream, StreamsAheadAndTwoBehindAFailedOneMissNothing) {
    FILE *a = open_scratch_stream();
    FILE *d = open_scratch_stream();
    run_messages([&] {
        use_streams(MSG_INFO, {a, open_full_stream(_IONBF), stdout, d});
        msg_print_with_prefix("P: ", "one");
    });
    EXPECT_EQ(contents(a), "P: one\n");
    EXPECT_EQ(contents(d), "P: one\n");
    fclose(a);
    fclose(d);
}

TEST(MsgFailingStream, TwoFailingStreamsSideBySideFailOnePieceAfterTheOther) {
    const Outcome outcome = run_messages([] {
        use_streams(MSG_INFO, {open_full_stream(_IONBF), open_full_stream(_IONBF), stdout});
        msg_print_with_prefix("P: ", "one");
    });
    // The first stream fails on the prefix. The second misses the prefix and fails on the
    // text. Standard output misses the text.
    EXPECT_EQ(outcome.out, "P: \n");
    const std::string once = report("output", "informational", kDevice);
    EXPECT_EQ(outcome.err, once + "\n" + once);
}

TEST(MsgFailingStream, AFailedFlushNamesTheFlush) {
    const Outcome outcome = run_messages([] {
        use_streams(MSG_INFO, {open_full_stream(_IOFBF), stdout});
        msg_print("one");
        msg_print("two");
        printf("%d", _msg_get_stream_desc(MSG_INFO)->count);
    });
    EXPECT_EQ(outcome.out, "one\ntwo\n1");
    EXPECT_EQ(outcome.err, report("flush", "informational", kDevice));
}

TEST(MsgFailingStream, TheFlushAtTheStartOfAMessageNamesTheFlush) {
    const Outcome outcome = run_messages([] {
        use_streams(MSG_INFO, {open_full_stream(_IOFBF), stdout});
        msg_print_wrap("open");
        msg_print_wrap("next");
    });
    EXPECT_EQ(outcome.out, "open\nnext");
    EXPECT_EQ(outcome.err, report("flush", "informational", kDevice));
}

TEST(MsgFailingStream, TheStreamBehindAFailedOneMissesThatOneFlush) {
    FILE *a = open_full_stream(_IOFBF);
    FILE *b = open_scratch_stream();
    FILE *c = open_scratch_stream();
    const Outcome outcome = run_messages([&] {
        std::string flushed;
        use_streams(MSG_INFO, {a, b, c});
        {
            const Interposed flush(hook::fflush, [&](FILE *stream) {
                flushed += stream == a ? "a" : stream == b ? "b" : stream == c ? "c" : "e";
                return hook::fflush.real(stream);
            });
            msg_print("text");
        }
        fputs(flushed.c_str(), stdout);
    });
    // The first stream is flushed for the message and when it is dropped. Standard error
    // is flushed with each line of the report.
    EXPECT_EQ(outcome.out, "aaeec");
    fclose(b);
    fclose(c);
    fclose(a);
}

TEST(MsgFailingStream, OtherTypesKeepTheStream) {
    const Outcome outcome = run_messages([] {
        FILE *full = open_full_stream(_IONBF);
        msg_add_stream(MSG_INFO | MSG_DEBUG | MSG_DIAG, full);
        msg_print("text");
        for (const int type : {MSG_INFO, MSG_DEBUG, MSG_DIAG}) {
            printf("%d", _msg_get_stream_desc(type)->count);
        }
    });
    EXPECT_EQ(outcome.out, "text\n121");
}

TEST(MsgFailingStream, AStreamThatStandsTwiceIsDroppedTwice) {
    const Outcome outcome = run_messages([] {
        FILE *full = open_full_stream(_IONBF);
        use_streams(MSG_INFO, {full, full});
        msg_print("text");
        printf("%d", msg_info_has_stream());
    });
    const std::string once = report("output", "informational", kDevice);
    // The failures: on the text, and on the newline that ends the open line.
    EXPECT_EQ(outcome.err, once + "\n" + once);
    EXPECT_EQ(outcome.out, "0");
}

TEST(MsgFailingStream, EachTypeIsNamedInItsReport) {
    const auto reported = [](int type) {
        return run_messages([type] {
                   use_streams(type, {open_full_stream(_IONBF)});
                   output(type, MSG_FMT_LINE, 0, 0, "", "text");
               })
            .err;
    };
    EXPECT_EQ(reported(MSG_INFO), report("output", "informational", kDevice));
    EXPECT_EQ(reported(MSG_DEBUG), report("output", "debug", kDevice));
    EXPECT_EQ(reported(MSG_ERROR), report("output", "error", kDevice));
    EXPECT_EQ(reported(MSG_DIAG), report("output", "diag", kDevice));
}

TEST(MsgFailingStream, AFailureWithoutAnErrorIsAnEndOfFile) {
    const auto reported = [](bool fail_write) {
        return run_messages([fail_write] {
                   FILE *stream = open_failing_stream(fail_write ? 0 : INT32_MAX, 0);
                   use_streams(MSG_INFO, {stream});
                   const Interposed flush(hook::fflush, [fail_write, stream](FILE *flushed) {
                       return !fail_write && flushed == stream ? EOF : hook::fflush.real(flushed);
                   });
                   msg_print("text");
               })
            .err;
    };
    EXPECT_EQ(reported(true), "Warning: EOF error during output of informational message.  This stream will\n"
                              "         no longer be used.\n");
    EXPECT_EQ(reported(false), "Warning: EOF error during flush of informational message.  This stream will no\n"
                               "         longer be used.\n");
}

TEST(MsgFailingStream, TheErrorIsLookedAtAfterTheDroppedStreamWasFlushed) {
    const Outcome outcome = run_messages([] {
        FILE *failing = open_failing_stream(0, ENXIO);
        use_streams(MSG_INFO, {failing});
        const Interposed flush(hook::fflush, [failing](FILE *stream) {
            if (stream != failing) {
                return hook::fflush.real(stream);
            }
            errno = msg_info_has_stream() == 0 ? EIO : ENXIO;
            return EOF;
        });
        msg_print("text");
    });
    EXPECT_EQ(outcome.err, report("output", "informational", "Input/output error"));
}

TEST(MsgFailingStream, AnErrorFromBeforeTheMessageIsNotReported) {
    const Outcome outcome = run_messages([] {
        use_streams(MSG_INFO, {open_failing_stream(0, 0)});
        errno = EPERM;
        msg_print("text");
    });
    EXPECT_EQ(outcome.err.substr(0, 27), "Warning: EOF error during o");
}

TEST(MsgFailingStream, APrimaryMessageIsReportedAsAPrimaryMessage) {
    const auto reported = [](void (*write)()) {
        return run_messages([write] {
                   msg_set_width_limit(0);
                   msg_set_mp_prefix("[3] ");
                   use_streams(MSG_INFO, {open_full_stream(_IONBF)});
                   write();
               })
            .err;
    };
    EXPECT_EQ(reported([] { msg_primary_print("text"); }),
              "Warning: Error during output of informational message.  This stream will no longer be used.\n"
              "         Stream error was: No space left on device\n");
    EXPECT_EQ(reported([] { msg_print("text"); }),
              "[3] Warning: Error during output of informational message.  This stream will no longer be used.\n"
              "[3]          Stream error was: No space left on device\n");
}

TEST(MsgFailingStream, TheReportBreaksTheLineInTheMiddleOfTheMessage) {
    const Outcome outcome = run_messages([] {
        use_streams(MSG_INFO, {stdout, open_full_stream(_IOLBF), stdout});
        // The line-buffered stream fails on the newline within the text.
        output(MSG_INFO, MSG_FMT_LINE, 0, 0, "P: ", "one\ntwo");
    });
    // The column was 6 when the report began, so that the report starts with a newline.
    // After the report the message goes on.
    EXPECT_EQ(outcome.err, "\n" + report("output", "informational", kDevice));
    EXPECT_EQ(outcome.out, "P: P: oneone\n      twotwo\n\n");
}

TEST(MsgFailingStream, AfterTheReportTheMessageItselfIsContinued) {
    const Outcome outcome = run_messages([] {
        use_streams(MSG_INFO, {open_full_stream(_IONBF), stdout});
        msg_set_print_prefix("P: ");
        msg_print("one");
        MSG_CONT("two");
    });
    EXPECT_EQ(outcome.out, "one\n   two\n");
}

TEST(MsgFailingStream, AWarningThatCannotBeWrittenIsDroppedQuietly) {
    const Outcome outcome = run_messages([] {
        use_streams(MSG_WARNING, {open_full_stream(_IONBF)});
        msg_warn("text");
        printf("%d", msg_warn_has_stream());
    });
    EXPECT_EQ(outcome.out, "0");
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
}

TEST(MsgFailingStream, AFatalMessageWithoutAnyStreamLeftStillEndsWithStatusOne) {
    const Outcome outcome = run_messages([] {
        FILE *full = open_full_stream(_IONBF);
        use_streams(MSG_WARNING, {full});
        use_streams(MSG_ERROR, {full});
        errno = ENOENT;
        msg_fatal_syserr("text");
    });
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 1);
}

// ---- Closed descriptors --------------------------------------------------------------------------------------------

TEST(MsgFailingStream, AClosedStandardOutputIsReportedOnceAndNotTriedAgain) {
    const Outcome outcome = run_messages([] {
        setvbuf(stdout, nullptr, _IONBF, 0);
        close(STDOUT_FILENO);
        msg_print("one");
        msg_print("two");
        fprintf(stderr, "%d", msg_info_has_stream());
    });
    EXPECT_EQ(outcome.err, report("output", "informational", "Bad file descriptor") + "0");
    EXPECT_EQ(outcome.status, 0);
}

TEST(MsgFailingStream, AClosedStandardOutputWithABufferFailsWhereItIsFlushed) {
    const Outcome outcome = run_messages([] {
        close(STDOUT_FILENO);
        msg_print("one");
        msg_print("two");
    });
    EXPECT_EQ(outcome.err, report("flush", "informational", "Bad file descriptor"));
    EXPECT_EQ(outcome.status, 0);
}

TEST(MsgFailingStream, AFatalCallWithBothStandardStreamsClosedExitsWithOne) {
    const Outcome outcome = run_messages([] {
        close(STDOUT_FILENO);
        close(STDERR_FILENO);
        msg_print("one");
        msg_fatal("two");
    });
    EXPECT_EQ(outcome.out + outcome.err, "");
    EXPECT_EQ(outcome.status, 1);
}

// ---- Sweeps: the n-th call fails -----------------------------------------------------------------------------------

namespace {

void write_some_messages() {
    msg_print_with_prefix("P: ", "%s", (std::string(70, 'x') + " yyyyyyyy").c_str());
    msg_print_wrap("open");
    MSG_CONT(" on\nnext");
    msg_print_raw("raw\ntext");
    msg_print("last");
}

const std::string kSomeMessages = "P: " + std::string(70, 'x') + "\n   yyyyyyyy\nopen on\nnext\nraw\ntext\nlast\n";

std::string without_newline_ahead(const std::string &text) {
    return text.substr(0, 1) == "\n" ? text.substr(1) : text;
}

} // namespace

TEST(MsgFailingStream, WhicheverWriteFailsTheTextBeforeItStandsAndOneReportFollows) {
    std::string out;
    int nth = 0;
    for (; out != kSomeMessages; ++nth) {
        ASSERT_LT(nth, 100);
        const Outcome outcome = run_messages([nth] {
            use_streams(MSG_INFO, {open_failing_stream(nth, EIO)});
            write_some_messages();
            fprintf(stderr, "%d", msg_info_has_stream());
        });
        out = outcome.out;
        EXPECT_EQ(kSomeMessages.substr(0, out.size()), out) << nth;
        const std::string once = report("output", "informational", "Input/output error") + "0";
        EXPECT_EQ(without_newline_ahead(outcome.err), out == kSomeMessages ? "1" : once) << nth;
        EXPECT_EQ(outcome.status, 0) << nth;
    }
    EXPECT_GT(nth, 15);
}

TEST(MsgFailingStream, WhicheverFlushFailsTheTextBeforeItStandsAndOneReportFollows) {
    const std::string whole = "one\nopen\ntwo\n";
    int flushes = 0;
    for (std::string err = "?"; !err.empty(); ++flushes) {
        ASSERT_LT(flushes, 100);
        const Outcome outcome = run_messages([flushes] {
            const Interposed failing(hook::fflush, fail_nth(hook::fflush, flushes, EIO, EOF));
            msg_print("one");
            msg_print_wrap("open");
            msg_print("two");
        });
        err = outcome.err;
        EXPECT_EQ(whole.substr(0, outcome.out.size()), outcome.out) << flushes;
        EXPECT_TRUE(err.empty() || err == report("flush", "informational", "Input/output error")) << err;
        EXPECT_EQ(outcome.status, 0) << flushes;
    }
    // Three rounds with a flush that failed, and one without.
    EXPECT_EQ(flushes, 4);
}
