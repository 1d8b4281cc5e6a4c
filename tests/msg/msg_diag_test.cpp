// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Diagnostic texts.
#include "msg_support.h"

#include <cerrno>
#include <cstring>
#include <support/interpose.h>
#include <unistd.h>

using namespace zel::test;

namespace {

// A diagnostic text as it reaches standard output.
std::string diagnosed(const std::string &text) {
    return run_messages([&text] {
               msg_add_stream(MSG_DIAG, stdout);
               errno = ENOENT;
               msg_diag("%s", text.c_str());
           })
        .out;
}

std::string repeated(const std::string &piece, size_t count) {
    std::string text;
    for (size_t n = 0; n < count; ++n) {
        text += piece;
    }
    return text;
}

} // namespace

TEST(MsgDiag, WithoutAStreamNothingIsFormattedOrWritten) {
    const Outcome outcome = run_messages([] {
        int formatted = 0;
        {
            const Interposed counting(hook::vsnprintf,
                                      [&](char *buffer, size_t size, const char *format, va_list args) {
                                          ++formatted;
                                          return hook::vsnprintf.real(buffer, size, format, args);
                                      });
            msg_diag("%s", "text");
            msg_add_stream(MSG_DIAG, stdout);
            msg_clear_streams(MSG_DIAG);
            msg_diag("%s", "text");
        }
        printf("%d", formatted);
    });
    EXPECT_EQ(outcome.out, "0");
    EXPECT_EQ(outcome.err, "");
}

TEST(MsgDiag, ADiagnosticAsTheFirstCallAllocatesNothingAndKeepsErrno) {
    const Outcome outcome = run_messages([] {
        int requests = 0;
        bool kept = false;
        {
            const Interposed counting(hook::malloc, [&requests](size_t size) {
                ++requests;
                return hook::malloc.real(size);
            });
            errno = ENOENT;
            msg_diag("%s", "text");
            kept = errno == ENOENT;
        }
        printf("%d %d;", requests, kept);
        msg_print("The streams are there afterwards.");
    });
    EXPECT_EQ(outcome.out, "0 1;The streams are there afterwards.\n");
    EXPECT_EQ(outcome.err, "");
}

TEST(MsgDiag, TheTextIsWrittenAsItStandsToEachStreamInOrder) {
    const Outcome outcome = run_messages([] {
        msg_add_stream(MSG_DIAG, stdout);
        msg_add_stream(MSG_DIAG, stderr);
        msg_add_stream(MSG_DIAG, stdout);
        msg_diag("%s %d;", "text", 7);
        msg_diag("line\n");
    });
    EXPECT_EQ(outcome.out, "text 7;text 7;line\nline\n");
    EXPECT_EQ(outcome.err, "text 7;line\n");
}

TEST(MsgDiag, ADiagnosticHasNoPrefixAndNoWidth) {
    const std::string text = repeated("word ", 40) + "\n";
    const Outcome outcome = run_messages([&text] {
        msg_set_mp_prefix("[3] ");
        msg_set_print_prefix("p: ");
        msg_set_width_limit(10);
        msg_add_stream(MSG_DIAG, stdout);
        msg_diag("%s", text.c_str());
    });
    EXPECT_EQ(outcome.out, text);
}

TEST(MsgDiag, ADiagnosticLeavesTheColumnAndTheLastMessageAlone) {
    const Outcome outcome = run_messages([] {
        msg_add_stream(MSG_DIAG, stderr);
        msg_print_wrap("open");
        msg_diag("one\ntwo");
        MSG_CONT(" on");
        msg_diag("$3");
    });
    EXPECT_EQ(outcome.out, "open on");
    EXPECT_EQ(outcome.err, "one\ntwo$3");
}

// ---- The second pass -----------------------------------------------------------------------------------------------

TEST(MsgDiag, FourPercentSignsInTheFormatMakeOne) {
    const Outcome outcome = run_messages([] {
        msg_add_stream(MSG_DIAG, stdout);
        msg_diag("50%%%% done\n");
    });
    EXPECT_EQ(outcome.out, "50% done\n");
}

TEST(MsgDiag, TheSecondPassHappensOnceForEachStream) {
    const Outcome outcome = run_messages([] {
        msg_add_stream(MSG_DIAG, stdout);
        msg_add_stream(MSG_DIAG, stdout);
        msg_diag("%s", "%%%% ");
    });
    EXPECT_EQ(outcome.out, "%% %% ");
}

TEST(MsgDiag, TheSecondPassHasNothingToConvert) {
    const std::string conversions = "%d %s %n %5.2f %*d %hhn %p %c %lu %1$s % %! %";
    EXPECT_EQ(diagnosed(conversions), conversions);
    EXPECT_EQ(diagnosed("100%"), "100%");
    EXPECT_EQ(diagnosed("%"), "%");
    EXPECT_EQ(diagnosed("%%d %%%s"), "%d %%s");
}

TEST(MsgDiag, TheSystemErrorIsTheOneConversionThatNeedsNoArgument) {
    EXPECT_EQ(diagnosed("a: %m.\n"), "a: No such file or directory.\n");
    EXPECT_EQ(diagnosed("%m%%m%m"), "No such file or directory%mNo such file or directory");
}

TEST(MsgDiag, TheSystemErrorIsTheOneOnEntryForEveryStream) {
    const Outcome outcome = run_messages([] {
        msg_add_stream(MSG_DIAG, open_full_stream(_IONBF));
        msg_add_stream(MSG_DIAG, stdout);
        msg_sync_mode(MSG_DIAG, 1);
        errno = EACCES;
        msg_diag("%s", "%m");
    });
    EXPECT_EQ(outcome.out, "Permission denied");
}

// ---- The buffer ----------------------------------------------------------------------------------------------------

TEST(MsgDiag, ATextThatFillsTheBufferIsWhole) {
    const std::string text = std::string(16382, 'x') + "\n";
    EXPECT_EQ(diagnosed(text), text);
}

TEST(MsgDiag, ATextLongerThanTheBufferIsCutToIt) {
    EXPECT_EQ(diagnosed(std::string(16383, 'x') + "yz"), std::string(16383, 'x'));
    EXPECT_EQ(diagnosed(std::string(1000000, 'x')), std::string(16383, 'x'));
}

TEST(MsgDiag, ATextIsCutAheadOfTheSecondPass) {
    // The buffer ends between the two signs of a pair.
    EXPECT_EQ(diagnosed(repeated("%%", 10000)), std::string(8192, '%'));
}

TEST(MsgDiag, ATextThatTheSecondPassMakesLongerIsWhole) {
    EXPECT_EQ(diagnosed(repeated("%m", 8000)), repeated("No such file or directory", 8000));
    EXPECT_EQ(diagnosed(std::string(16370, 'x') + "%m\n"), std::string(16370, 'x') + "No such file or directory\n");
}

TEST(MsgDiag, TheTextBeforeAFailedConversionIsWritten) {
    const Outcome outcome = run_messages([] {
        msg_add_stream(MSG_DIAG, stdout);
        // A character that the C locale cannot encode.
        msg_diag("socket %d: %ls and the rest\n", 7, L"\u20ac");
        msg_diag("%s%ls", std::string(20000, 'x').c_str(), L"\u20ac");
    });
    EXPECT_EQ(outcome.out, "socket 7: " + std::string(16383, 'x'));
}

TEST(MsgDiag, ATextWhoseFirstConversionFailsIsEmpty) {
    const Outcome outcome = run_messages([] {
        msg_add_stream(MSG_DIAG, stdout);
        const Interposed failing(hook::vsnprintf, fail_nth(hook::vsnprintf, 0, EILSEQ, -1));
        msg_diag("text");
        msg_diag("more");
    });
    EXPECT_EQ(outcome.out, "more");
}

TEST(MsgDiag, ADiagnosticNeedsNoMemory) {
    const Outcome outcome = run_messages([] {
        setvbuf(stdout, nullptr, _IONBF, 0);
        msg_add_stream(MSG_DIAG, stdout);
        const Interposed failing(hook::malloc, fail_always(hook::malloc, ENOMEM, nullptr));
        msg_diag("text %d", 7);
    });
    EXPECT_EQ(outcome.out, "text 7");
}

// ---- The disk, and failing streams ---------------------------------------------------------------------------------

TEST(MsgDiag, InSyncModeEachStreamIsFlushedAndForcedAfterItsWrite) {
    const Outcome outcome = run_messages([] {
        std::string events;
        msg_sync_mode(MSG_DIAG, 1);
        msg_add_stream(MSG_DIAG, stdout);
        msg_add_stream(MSG_DIAG, stderr);
        {
            const Interposed puts(hook::fputs, [&](const char *text, FILE *) { return events += text, 1; });
            const Interposed flush(hook::fflush, [&](FILE *stream) {
                events += stream == stdout ? " flush1" : " flush2";
                return 0;
            });
            const Interposed sync(hook::fsync, [&](int fd) { return events += " sync" + std::to_string(fd) + " ", 0; });
            msg_diag("text");
        }
        fputs(events.c_str(), stdout);
    });
    EXPECT_EQ(outcome.out, "text flush1 sync1 text flush2 sync2 ");
}

TEST(MsgDiag, InSyncModeALineIsInTheFileBeforeTheProcessDies) {
    const Outcome outcome = run_messages([] {
        msg_add_stream(MSG_DIAG, stdout);
        msg_sync_mode(MSG_DIAG, 1);
        msg_diag("one\n");
        msg_diag("%s", "100%% sure\n");
        _exit(0);
    });
    EXPECT_EQ(outcome.out, "one\n100% sure\n");
}

TEST(MsgDiag, WithoutSyncModeNothingIsFlushedOrForced) {
    const Outcome outcome = run_messages([] {
        int forced = 0;
        const Interposed sync(hook::fsync, [&forced](int) { return ++forced, 0; });
        msg_sync_mode(MSG_INFO | MSG_ERROR, 1);
        forced = 0;
        msg_add_stream(MSG_DIAG, stdout);
        msg_diag("one\n");
        fprintf(stderr, "%d", forced);
        _exit(0);
    });
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "0");
}

TEST(MsgDiag, AFailingStreamIsNeitherReportedNorRemoved) {
    const Outcome outcome = run_messages([] {
        FILE *closed = open_scratch_stream();
        close(fileno(closed));
        msg_add_stream(MSG_DIAG, open_full_stream(_IONBF));
        msg_add_stream(MSG_DIAG, closed);
        msg_add_stream(MSG_DIAG, stdout);
        msg_sync_mode(MSG_DIAG, 1);
        msg_diag("one ");
        msg_diag("%s", "100%% ");
        printf("%d", _msg_get_stream_desc(MSG_DIAG)->count);
    });
    EXPECT_EQ(outcome.out, "one 100% 3");
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
}

TEST(MsgDiag, ADiagnosticKeepsErrno) {
    const Outcome outcome = run_messages([] {
        errno = EACCES;
        msg_diag("no stream yet");
        printf("%d ", errno == EACCES);
        msg_add_stream(MSG_DIAG, open_full_stream(_IONBF));
        msg_sync_mode(MSG_DIAG, 1);
        errno = EACCES;
        msg_diag("text");
        printf("%d", errno == EACCES);
    });
    EXPECT_EQ(outcome.out, "1 1");
}
