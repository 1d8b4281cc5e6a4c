// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Streams to a function of the program.
#include "msg_support.h"
#include "sinks_support.h"

#include <support/census.h>
#include <support/interpose.h>

#include <cerrno>
#include <cstdlib>
#include <sys/wait.h>
#include <unistd.h>

using namespace zel::test;

namespace {

// What the bracketed stream shows of the body's text.
Outcome show(const std::function<void(FILE *stream)> &body) {
    return run_messages([&body] {
        FILE *stream = open_bracketed();
        body(stream);
    });
}

} // namespace

TEST(FunctionStream, EachLineIsOneCallWithItsNewline) {
    const Outcome outcome = show([](FILE *stream) {
        msg_add_stream(MSG_WARNING, stream);
        msg_set_width_limit(20);
        msg_set_mp_prefix("[1] ");
        msg_warn("one two three");
        msg_warn_raw("a\nb\n");
    });
    EXPECT_EQ(outcome.out, "[[1] Warning: one two\n][[1]          three\n][[1] Warning: a\n][[1]          b\n]");
}

TEST(FunctionStream, PiecesOfALineAreCollected) {
    const Outcome outcome = show([](FILE *stream) {
        fputs("a", stream);
        fflush(stream);
        fputs("b\nc\n\nd", stream);
        fputs("\n", stream);
    });
    EXPECT_EQ(outcome.out, "[ab\n][c\n][\n][d\n]");
}

TEST(FunctionStream, TheUserPointerIsHandedOver) {
    int user = 0;
    const MsgSinkFunction add = [](const char * /*text*/, size_t length, void *number) {
        *static_cast<int *>(number) += static_cast<int>(length);
        return 1;
    };
    FILE *stream = msg_open_function(add, &user);
    fputs("four\n", stream);
    EXPECT_EQ(user, 5);
    fclose(stream);
}

TEST(FunctionStream, ALineWithoutItsEndIsHandedOverByTheClose) {
    const Outcome outcome = show([](FILE *stream) {
        fputs("one\ntwo", stream);
        print_bracketed("close");
        fclose(stream);
        print_bracketed("closed");
    });
    EXPECT_EQ(outcome.out, "[one\n][close][two][closed]");
}

TEST(FunctionStream, ALineWithoutItsEndIsHandedOverByTheExit) {
    const Outcome outcome = show([](FILE *stream) {
        msg_add_stream(MSG_WARNING, stream);
        msg_warn_raw("one");
    });
    EXPECT_EQ(outcome.out, "[Warning: one]");
}

TEST(FunctionStream, AForkedChildLeavesTheLineOfItsParentToIt) {
    const Outcome outcome = show([](FILE *stream) {
        fputs("parent's ", stream);
        const pid_t child = fork();
        if (child == 0) {
            exit(0);
        }
        waitpid(child, nullptr, 0);
        const pid_t writer = fork();
        if (writer == 0) {
            fputs("child\n", stream);
            exit(0);
        }
        waitpid(writer, nullptr, 0);
        fputs("line\n", stream);
    });
    EXPECT_EQ(outcome.out, "[child\n][parent's line\n]");
}

TEST(FunctionStream, AFunctionThatTakesNothingIsDroppedAndNamed) {
    const Outcome outcome = run_messages([] {
        FILE *stream = open_lines([](const std::string &line) {
            print_bracketed(line);
            errno = ENOSPC;
            return false;
        });
        msg_set_width_limit(0);
        msg_clear_streams(MSG_INFO);
        msg_add_stream(MSG_INFO, stream);
        msg_print("one");
        msg_print("two");
    });
    EXPECT_EQ(outcome.out, "[one\n]");
    EXPECT_EQ(outcome.err, "\nWarning: Error during output of informational message.  This stream will no longer be "
                           "used.\n         Stream error was: No space left on device\n");
}

TEST(FunctionStream, AFunctionThatNamesNoErrorIsAnEndOfFile) {
    const Outcome outcome = run_messages([] {
        FILE *stream = open_lines([](const std::string &) { return false; });
        msg_set_width_limit(0);
        msg_clear_streams(MSG_INFO);
        msg_add_stream(MSG_INFO, stream);
        errno = ENOSPC;
        msg_print("one");
    });
    EXPECT_EQ(outcome.err,
              "\nWarning: EOF error during output of informational message.  This stream will no longer be used.\n");
}

TEST(FunctionStream, ErrnoIsClearWhenTheFunctionIsCalled) {
    int seen = -1;
    FILE *stream = open_lines([&seen](const std::string &) {
        seen = errno;
        return true;
    });
    errno = ENOSPC;
    fputs("one\n", stream);
    EXPECT_EQ(seen, 0);
    EXPECT_EQ(errno, ENOSPC);
    fclose(stream);
}

TEST(FunctionStream, AnotherTypeOffersItsTextAgain) {
    const Outcome outcome = run_messages([] {
        FILE *stream = open_lines([first = true](const std::string &line) mutable {
            print_bracketed(line);
            const bool taken = !first;
            first = false;
            return taken;
        });
        msg_clear_streams(MSG_INFO | MSG_DEBUG);
        msg_add_stream(MSG_INFO | MSG_DEBUG, stream);
        msg_print("one");
        msg_debug("two");
    });
    EXPECT_EQ(outcome.out, "[one\n][two\n]");
}

TEST(FunctionStream, ALineThatWasTakenLeavesErrnoAlone) {
    const Outcome outcome = run_messages([] {
        FILE *stream = open_lines([](const std::string &) {
            errno = EIO;
            return true;
        });
        msg_add_stream(MSG_INFO, stream);
        msg_print("one");
        printf("%d", errno);
    });
    EXPECT_EQ(outcome.out, "one\n0");
}

// ---- Messages of the function ---------------------------------------------------------------------------------------

TEST(FunctionStream, AMessageOfTheFunctionReachesTheOtherStreams) {
    const Outcome outcome = run_messages([] {
        FILE *stream = open_lines([](const std::string &line) {
            msg_error("%zu bytes", line.size());
            print_bracketed(line);
            return true;
        });
        msg_add_stream(MSG_WARNING | MSG_ERROR, stream);
        msg_warn("one");
        msg_warn("two");
    });
    EXPECT_EQ(outcome.out, "[Warning: one\n][Warning: two\n]");
    EXPECT_NE(outcome.err.find("Error: 13 bytes\n"), std::string::npos) << outcome.err;
    EXPECT_NE(outcome.err.find("Warning: two\n"), std::string::npos) << outcome.err;
}

TEST(FunctionStream, TwoFunctionsMayWriteToEachOther) {
    const Outcome outcome = run_messages([] {
        FILE *first = open_lines([](const std::string &line) {
            print_bracketed("1" + line);
            msg_debug("from 1");
            return true;
        });
        FILE *second = open_lines([](const std::string &line) {
            print_bracketed("2" + line);
            msg_warn("from 2");
            return true;
        });
        msg_clear_streams(MSG_WARNING | MSG_DEBUG);
        msg_add_stream(MSG_WARNING, first);
        msg_add_stream(MSG_DEBUG, second);
        msg_warn("start");
    });
    // The line of the outer message is still open for the inner one, which ends it.
    EXPECT_EQ(outcome.out, "[1Warning: start\n][2\n][2from 1\n]");
}

TEST(FunctionStream, TheFunctionMayEndTheProcess) {
    const Outcome outcome = run_messages([] {
        FILE *stream = open_lines([](const std::string &line) {
            print_bracketed(line);
            msg_fatal("end");
            return true;
        });
        msg_add_stream(MSG_WARNING | MSG_ERROR, stream);
        msg_warn("one");
    });
    EXPECT_EQ(outcome.out, "[Warning: one\n]");
    EXPECT_EQ(outcome.status, 1);
}

// ---- Opening --------------------------------------------------------------------------------------------------------

TEST(FunctionStream, ANullFunctionIsRefused) {
    errno = 0;
    EXPECT_EQ(msg_open_function(nullptr, nullptr), nullptr);
    EXPECT_EQ(errno, EINVAL);
}

TEST(FunctionStream, AnOpeningThatFailsLeavesNothing) {
    EXPECT_EQ(([] {
                  const Interposed failing(hook::malloc, fail_always(hook::malloc, ENOMEM, nullptr));
                  errno = 0;
                  return open_bracketed() == nullptr && errno == ENOMEM;
              }()),
              true);
    const Interposed failing(hook::fopencookie, fail_always(hook::fopencookie, ENOMEM, nullptr));
    errno = 0;
    EXPECT_EQ(open_bracketed(), nullptr);
    EXPECT_EQ(errno, ENOMEM);
}

TEST(FunctionStream, NoMemoryIsAskedForWhileTextIsWritten) {
    const Outcome outcome = run_messages([] {
        FILE *stream = open_bracketed();
        msg_clear_streams(MSG_INFO);
        msg_add_stream(MSG_INFO, stream);
        const Interposed failing(hook::malloc, [](size_t) -> void * { abort(); });
        msg_print("one");
    });
    EXPECT_EQ(outcome.out, "[one\n]");
}

#ifndef ZEL_SMALL_CONSTANTS
// Holds the length of 16384 bytes.
TEST(FunctionStreamSize, ALineOf16384BytesIsOneCallAndALongerOneTwo) {
    std::string sizes;
    FILE *stream = open_lines([&sizes](const std::string &line) {
        sizes += std::to_string(line.size()) + " ";
        return true;
    });
    fprintf(stream, "%s\n", std::string(16383, 'x').c_str());
    fprintf(stream, "a\nb%s\n", std::string(16382, 'x').c_str());
    fprintf(stream, "%s\n", std::string(40000, 'x').c_str());
    fclose(stream);
    EXPECT_EQ(sizes, "16384 2 16384 16384 16384 7233 ");
}
#endif
