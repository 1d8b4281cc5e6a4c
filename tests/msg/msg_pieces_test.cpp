// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// What a stream sees of the pieces of a message: the same as if each piece were written
// to it by itself, whether the library gathers them or not.
#include "msg_reference.h"
#include "msg_support.h"

#include <array>
#include <atomic>
#include <csignal>
#include <cwchar>
#include <fstream>
#include <random>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

using namespace zel::test;

namespace {

const std::string kEndOfFile = "Warning: EOF error during output of informational message.  This stream will\n"
                               "         no longer be used.\n";

void use_stream(FILE *stream) {
    msg_clear_streams(MSG_INFO);
    msg_add_stream(MSG_INFO, stream);
}

// ---- A stream that records what reaches it --------------------------------------------------------------------------

struct Buffering {
    const char *name;
    const char *mode;
    int kind; // as for setvbuf
    size_t size;
};

const Buffering kBufferings[] = {
    {"None", "w", _IONBF, 0},
    {"Lines", "w", _IOLBF, 300},
    {"OneByte", "w", _IOFBF, 1},
    {"ASmallOne", "w", _IOFBF, 100},
    {"TheLargestSmallOne", "w", _IOFBF, 127},
    {"TheSmallestLargeOne", "w", _IOFBF, 128},
    {"ALargeOne", "w", _IOFBF, 700},
    {"OneOfAFile", "w", _IOFBF, 4096},
    {"ReadingAndWriting", "w+", _IOFBF, 300},
};

void PrintTo(const Buffering &buffering, std::ostream *out) {
    *out << buffering.name;
}

struct Recorder {
    std::string events; // each write in brackets
    int writes_left;    // until writes fail
};

ssize_t record_write(void *cookie, const char *text, size_t size) {
    auto *recorder = static_cast<Recorder *>(cookie);
    recorder->events += "[" + std::string(text, size) + "]";
    if (recorder->writes_left-- > 0) {
        return static_cast<ssize_t>(size);
    }
    errno = EIO;
    return 0;
}

FILE *open_recorded(Recorder &recorder, const Buffering &buffering, char *buffer) {
    FILE *stream = fopencookie(&recorder, buffering.mode,
                               {.read = nullptr, .write = record_write, .seek = nullptr, .close = nullptr});
    setvbuf(stream, buffer, buffering.kind, buffering.size);
    return stream;
}

// Takes the pieces of the reference until one fails. Returns whether the stream lives.
bool write_each_piece(MsgReference &reference, FILE *stream) {
    for (const auto &piece : reference.pieces) {
        const bool taken = piece.has_value() ? fputs(piece->c_str(), stream) >= 0 : fflush(stream) == 0;
        if (!taken) {
            fflush(stream);
            return false;
        }
    }
    reference.pieces.clear();
    return true;
}

std::string some_words(std::mt19937 &dice) {
    std::string text(dice() % 8 == 0 ? 120 + dice() % 10 : 0, 'L');
    for (size_t count = dice() % 3 == 0 ? dice() % 200 : dice() % 12; count > 0; --count) {
        text += std::string(1 + dice() % 9, 'w') + (dice() % 20 == 0 ? "\n" : " ");
    }
    return text;
}

void write_message(std::mt19937 &dice, MsgReference &reference) {
    const std::string text = some_words(dice);
    const std::string prefix(dice() % 3 * (dice() % 30), 'P');
    const int layout = static_cast<int>(dice() % 3);
    const bool continuation = dice() % 4 == 0;
    output(MSG_INFO, layout, 0, continuation ? 1 : 0, prefix.c_str(), "%s", text.c_str());
    reference.message(MSG_INFO, layout, false, continuation, prefix, text);
}

// Writes messages to a recorded stream, and the pieces of the same messages to another.
// The program's own text stands between some of them.
void compare(uint32_t seed, const Buffering &buffering) {
    std::mt19937 dice(seed);
    const int writes = dice() % 2 == 0 ? INT32_MAX : static_cast<int>(dice() % 20);
    std::array<Recorder, 2> recorders = {
        {{.events = "", .writes_left = writes}, {.events = "", .writes_left = writes}}};
    std::array<std::array<char, 4096>, 2> buffers;
    FILE *stream = open_recorded(recorders[0], buffering, buffers[0].data());
    FILE *model = open_recorded(recorders[1], buffering, buffers[1].data());
    MsgReference reference;
    use_stream(stream);
    bool lives = true;
    for (int step = 0; step < 12 && lives; ++step) {
        write_message(dice, reference);
        lives = write_each_piece(reference, model);
        ASSERT_EQ(msg_info_has_stream(), lives ? 1 : 0) << "seed " << seed;
        ASSERT_EQ(recorders[0].events, recorders[1].events) << "seed " << seed;
        if (lives && dice() % 4 == 0) {
            ASSERT_EQ(fputs("own", stream), fputs("own", model)) << "seed " << seed;
        }
    }
    fclose(stream);
    fclose(model);
    ASSERT_EQ(recorders[0].events, recorders[1].events) << "seed " << seed;
}

class MsgPieces : public testing::TestWithParam<Buffering> {};

} // namespace

TEST_P(MsgPieces, AStreamSeesTheSameWritesAndFailures) {
    for (uint32_t seed = 0; seed < 40; ++seed) {
        const Outcome outcome = run_messages([seed] {
            msg_clear_streams(MSG_WARNING);
            compare(seed, GetParam());
            if (HasFatalFailure()) {
                _exit(1);
            }
        });
        ASSERT_EQ(outcome.status, 0) << outcome.out;
    }
}

INSTANTIATE_TEST_SUITE_P(, MsgPieces, testing::ValuesIn(kBufferings),
                         [](const testing::TestParamInfo<Buffering> &buffering) { return buffering.param.name; });

// ---- Streams whose pieces are not gathered --------------------------------------------------------------------------

TEST(MsgPiece, AStreamOfWideCharactersFailsOnTheFirstPiece) {
    const Outcome outcome = run_messages([] {
        FILE *wide = fopen("/dev/null", "w");
        fputws(L"wide", wide);
        use_stream(wide);
        output(MSG_INFO, MSG_FMT_WRAP, 0, 0, "P: ", "text");
        fclose(wide);
    });
    // The report begins no line: nothing of the message stood on one.
    EXPECT_EQ(outcome.err, kEndOfFile);
}

TEST(MsgPiece, AnEmptyMessageSettlesAStreamForBytes) {
    const Outcome outcome = run_messages([] {
        std::array<char, 1000> buffer;
        FILE *stream = fopen("/dev/null", "w");
        setvbuf(stream, buffer.data(), _IOFBF, buffer.size());
        use_stream(stream);
        printf("%d ", fwide(stream, 0));
        msg_print_wrap("%s", "");
        printf("%d", fwide(stream, 0));
        fclose(stream);
    });
    EXPECT_EQ(outcome.out, "0 -1");
}

TEST(MsgPiece, APieceThatDoesNotFitBehindTheProgramsOwnTextFailsByItself) {
    const Outcome outcome = run_messages([] {
        std::array<char, 200> buffer;
        FILE *full = fopen("/dev/full", "w");
        setvbuf(full, buffer.data(), _IOFBF, buffer.size());
        fputs(std::string(150, 'x').c_str(), full);
        use_stream(full);
        output(MSG_INFO, MSG_FMT_LINE, 0, 0, "P: ", "%s", std::string(60, 't').c_str());
    });
    // The prefix stood on the line when the text failed.
    EXPECT_EQ(outcome.err.substr(0, 30), "\nWarning: Error during output ");
}

// The buffer takes 50 more characters. A text that fills it fails with its newline; one that is longer by one fails by
// itself, while nothing stands on the line; one that is shorter by one fails when it is flushed.
TEST(MsgPiece, TheLastCharacterThatTheBufferTakesIsNoFailure) {
    const std::pair<size_t, std::string> reports[] = {{49, "Warning: Error during flush of"},
                                                      {50, "\nWarning: Error during output "},
                                                      {51, "Warning: Error during output of"}};
    for (const auto &[length, report] : reports) {
        const Outcome outcome = run_messages([length = length] {
            std::array<char, 200> buffer;
            FILE *full = fopen("/dev/full", "w");
            setvbuf(full, buffer.data(), _IOFBF, buffer.size());
            fputs(std::string(150, 'x').c_str(), full);
            use_stream(full);
            msg_print("%s", std::string(length, 't').c_str());
        });
        EXPECT_EQ(outcome.err.substr(0, report.size()), report) << length;
    }
}

// A program that changes the buffering of a stream in use may leave text in it that goes
// out with the next piece.
TEST(MsgPiece, AStreamThatFailsOnWhatWasGatheredIsDropped) {
    const Outcome outcome = run_messages([] {
        std::array<char, 1000> buffer;
        FILE *full = fopen("/dev/full", "w");
        setvbuf(full, buffer.data(), _IOLBF, buffer.size());
        fputs("open", full);
        setvbuf(full, nullptr, _IOFBF, 0);
        use_stream(full);
        msg_print("text");
        printf("%d", msg_info_has_stream());
    });
    EXPECT_EQ(outcome.out, "0");
    EXPECT_EQ(outcome.err.substr(0, 29), "Warning: Error during output ");
}

// The stream begins to write in the middle of what it has read, so that its buffer has
// less room than it seems.
TEST(MsgPiece, AStreamThatWasReadFailsOnThePieceThatDoesNotFit) {
    const Outcome outcome = run_messages([] {
        FILE *stream = tmpfile();
        std::array<char, 256> buffer;
        setvbuf(stream, buffer.data(), _IOFBF, buffer.size());
        fputs(std::string(256, 'x').c_str(), stream);
        rewind(stream);
        std::array<char, 200> read;
        EXPECT_EQ(fread(read.data(), 1, read.size(), stream), read.size());
        fseek(stream, 0, SEEK_CUR);
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit = {.rlim_cur = 100, .rlim_max = RLIM_INFINITY};
        setrlimit(RLIMIT_FSIZE, &limit);
        msg_set_width_limit(0);
        use_stream(stream);
        msg_clear_streams(MSG_WARNING);
        std::string report;
        msg_add_stream(MSG_WARNING, open_own_stream([&report](const std::string &piece) { report += piece; }));
        output(MSG_INFO, MSG_FMT_LINE, 0, 0, "P: ", "%s", std::string(100, 't').c_str());
        const rlimit none = {.rlim_cur = RLIM_INFINITY, .rlim_max = RLIM_INFINITY};
        setrlimit(RLIMIT_FSIZE, &none);
        fputs(report.substr(0, 30).c_str(), stdout);
    });
    // The prefix stood on the line when the text failed.
    EXPECT_EQ(outcome.out, "\nWarning: Error during output ");
}

// ---- Threads of the program -----------------------------------------------------------------------------------------

namespace {

// Whether the thread sleeps, as one does that waits for a lock.
bool is_asleep(pid_t thread) {
    std::ifstream status("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string number;
    std::string name;
    std::string condition;
    status >> number >> name >> condition;
    return condition == "S";
}

} // namespace

TEST(MsgPiece, AMessageWaitsForAThreadThatHoldsTheStream) {
    const Outcome outcome = run_messages([] {
        FILE *stream = fopen("/dev/stdout", "w");
        use_stream(stream);
        msg_print("first");
        const pid_t writer = gettid();
        std::atomic<bool> held = false;
        std::thread holder([stream, writer, &held] {
            flockfile(stream);
            held = true;
            while (!is_asleep(writer)) {
            }
            fputs_unlocked("of the thread\n", stream);
            funlockfile(stream);
        });
        while (!held) {
        }
        msg_print("second");
        holder.join();
        fclose(stream);
    });
    EXPECT_EQ(outcome.out, "first\nof the thread\nsecond\n");
}
