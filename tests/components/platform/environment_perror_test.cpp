// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Reports of failed system calls: what they say, where they go, what they leave alone.
#include "environment_support.h"

#include <cstdlib>
#include <msg/msg.h>
#include <unistd.h>

using namespace zel::test;

namespace {

// Reports that error; diagnostic lines go to standard error.
void report(const char *text, int error) {
    errno = error;
    platform_perror(text);
}

Outcome report_with(const Variables &variables, const char *text, int error) {
    return run_with(variables, [=] {
        msg_add_stream(MSG_DIAG, stderr);
        report(text, error);
    });
}

} // namespace

TEST(PlatformPerror, IsADiagnosticLineWithTheErrorText) {
    const Outcome outcome = report_with({}, "open index", ENOENT);
    EXPECT_EQ(outcome.err, "open index: No such file or directory\n");
    EXPECT_EQ(outcome.out, "");
}

TEST(PlatformPerror, NumbersThatAreNoErrorHaveATextToo) {
    EXPECT_EQ(report_with({}, "a", 0).err, "a: Success\n");
    EXPECT_EQ(report_with({}, "a", -1).err, "a: Unknown error -1\n");
    EXPECT_EQ(report_with({}, "a", 99999).err, "a: Unknown error 99999\n");
}

TEST(PlatformPerror, GoesToEveryDiagnosticStream) {
    const Outcome outcome = run_with({}, [] {
        msg_add_stream(MSG_DIAG, stderr);
        msg_add_stream(MSG_DIAG, stdout);
        report("a", EPERM);
    });
    EXPECT_EQ(outcome.err, "a: Operation not permitted\n");
    EXPECT_EQ(outcome.out, "a: Operation not permitted\n");
}

TEST(PlatformPerror, WithoutADestinationNothingIsWritten) {
    const Outcome outcome = run_with({}, [] { report("a", EPERM); });
    EXPECT_EQ(outcome.out + outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
}

TEST(PlatformPerror, IsNoMessageOfAnotherType) {
    const Outcome outcome = run_with({}, [] {
        report("a", EPERM);
        MSG_CONT("continued");
    });
    EXPECT_EQ(outcome.err, "Error: MSG_CONT called before any other message function.\n");
}

TEST(PlatformPerror, EveryNonEmptyValueChoosesStandardOutput) {
    for (const char *value : {"1", "2", "0", "stdout", "stderr", "no", " "}) {
        const Outcome outcome = report_with({{"ZEL_PERROR", value}}, "a", EPERM);
        EXPECT_EQ(outcome.out, "a: Operation not permitted\n") << value;
        EXPECT_EQ(outcome.err, "a: Operation not permitted\n") << value;
    }
}

TEST(PlatformPerror, AnEmptyValueChoosesNoStream) {
    EXPECT_EQ(report_with({{"ZEL_PERROR", ""}}, "a", EPERM).out, "");
}

TEST(PlatformPerror, TheReportStreamNeedsNoDiagnosticStream) {
    const Outcome outcome = run_with({{"ZEL_PERROR", "1"}}, [] { report("a", EPERM); });
    EXPECT_EQ(outcome.out, "a: Operation not permitted\n");
    EXPECT_EQ(outcome.err, "");
}

TEST(PlatformPerror, TheReportIsFlushedAtOnce) {
    const Outcome outcome = run_with({{"ZEL_PERROR", "1"}}, [] {
        report("a", EPERM);
        _exit(0);
    });
    EXPECT_EQ(outcome.out, "a: Operation not permitted\n");
}

TEST(PlatformPerror, TheStreamIsChosenOnTheFirstReportAndKept) {
    const Outcome kept = run_with({{"ZEL_PERROR", "1"}}, [] {
        report("a", EPERM);
        unsetenv("ZEL_PERROR");
        platform_perror_init();
        report("b", EPERM);
    });
    EXPECT_EQ(kept.out, "a: Operation not permitted\nb: Operation not permitted\n");
    const Outcome none = run_with({}, [] {
        report("a", EPERM);
        setenv("ZEL_PERROR", "1", 1);
        platform_perror_init();
        report("b", EPERM);
    });
    EXPECT_EQ(none.out, "");
}

TEST(PlatformPerror, TheChoiceMayBeMadeAheadOfTheFirstReport) {
    const Outcome outcome = run_with({{"ZEL_PERROR", "1"}}, [] {
        platform_perror_init();
        unsetenv("ZEL_PERROR");
        report("a", EPERM);
    });
    EXPECT_EQ(outcome.out, "a: Operation not permitted\n");
}

TEST(PlatformPerror, ErrnoIsKept) {
    const Outcome outcome = run_with({{"ZEL_PERROR", "1"}}, [] {
        FILE *full = fopen("/dev/full", "w");
        setvbuf(full, nullptr, _IONBF, 0);
        msg_add_stream(MSG_DIAG, full);
        report("a", ENOENT);
        printf("%d", errno == ENOENT);
    });
    EXPECT_EQ(outcome.out, "a: No such file or directory\n1");
}

// Formatting the copy is the first thing that happens, and the first that can change the error number.
TEST(PlatformPerror, TheErrorIsTakenBeforeAnythingElseAndGivenBack) {
    const Outcome outcome = run_with({{"ZEL_PERROR", "1"}}, [] {
        msg_add_stream(MSG_DIAG, stderr);
        const Interposed spoiling(hook::vsnprintf, [](char *buffer, size_t size, const char *format, va_list args) {
            const int length = hook::vsnprintf.real(buffer, size, format, args);
            errno = EIO;
            return length;
        });
        report("a", ENOENT);
        printf("%s", errno == ENOENT ? "kept" : "lost");
    });
    EXPECT_EQ(outcome.out, "a: No such file or directory\nkept");
    EXPECT_EQ(outcome.err, "a: No such file or directory\n");
}

TEST(PlatformPerror, WorksWhenMemoryHasRunOut) {
    const Outcome outcome = run_with({{"ZEL_PERROR", "1"}}, [] {
        msg_add_stream(MSG_DIAG, stderr);
        const Interposed no_memory(hook::malloc, fail_always(hook::malloc, ENOMEM, nullptr));
        const Interposed no_more_memory(hook::realloc, fail_always(hook::realloc, ENOMEM, nullptr));
        report("allocate a page", ENOMEM);
    });
    EXPECT_EQ(outcome.err, "allocate a page: Cannot allocate memory\n");
    EXPECT_EQ(outcome.out, "allocate a page: Cannot allocate memory\n");
}

TEST(PlatformPerror, AllocatesNothing) {
    const Outcome outcome = run_with({{"ZEL_PERROR", "1"}}, [] {
        msg_add_stream(MSG_DIAG, stderr);
        const Interposed allocating(hook::malloc, [](size_t size) {
            fprintf(stderr, "%zu bytes\n", size);
            return hook::malloc.real(size);
        });
        report("a", EPERM);
    });
    EXPECT_EQ(outcome.err, "a: Operation not permitted\n");
}

// A diagnostic line is read as a format twice, the report stream's line once: nothing is ever converted.
TEST(PlatformPerror, PercentSignsInTheTextConvertNothing) {
    const Outcome outcome = report_with({{"ZEL_PERROR", "1"}}, "50% of %s %n", EPERM);
    EXPECT_EQ(outcome.err, "50% of %s %n: Operation not permitted\n");
    EXPECT_EQ(outcome.out, "50% of %s %n: Operation not permitted\n");
    const Outcome doubled = report_with({{"ZEL_PERROR", "1"}}, "50%%", EPERM);
    EXPECT_EQ(doubled.err, "50%: Operation not permitted\n");
    EXPECT_EQ(doubled.out, "50%%: Operation not permitted\n");
}

TEST(PlatformPerror, TheFirstReportOfAProcessNeedsNoMemory) {
    const Outcome outcome = run_in_child([] {
        const Interposed failing(hook::malloc, fail_always(hook::malloc, ENOMEM, nullptr));
        errno = ENOENT;
        platform_perror("step");
        _exit(errno == ENOENT ? 0 : 1);
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "");
}
