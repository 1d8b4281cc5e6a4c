// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Counts the lines, words and bytes of text files, and their most frequent words, in a
// companion process.
//
//   word_count [--hybrid] [--companion PROGRAM] [--debug REQUEST] [--] [FILE...]
//
//   --hybrid             talk to the companion over TCP on localhost instead of an inherited descriptor
//   --companion PROGRAM  the companion: a path, or a name searched along PATH; without it word_count_companion in the
//                        folder of this program
//   --debug REQUEST      what the companion's start-up hook is asked for; a request in ZEL_DEBUG stops this program
//   FILE                 "-" is standard input. Without any FILE: standard input when that is a pipe; otherwise
//                        README.md, CONTRIBUTING.md and LICENSE of the source tree that this program was built from,
//                        found from the folder of this program
//
// Standard output, for each text and then once:
//
//   notes.txt
//       lines            2
//       words            3
//       bytes           18
//       most frequent words
//                2  so
//                1  on
//   The companion ended with exit status 0.
//
// A line is what a newline ends; a word is a run of bytes, printable or not, without
// ASCII white space (wc leaves out a word without a printable byte in some versions). At
// most ten words are shown, the most frequent first, equally frequent ones in byte order;
// a byte that is not printable ASCII is shown as \xNN, a backslash as two, and a word of
// more than 40 characters is cut and ends in "...". A text without words has no list.
//
// The memory that a text takes is limited. Words of more than 64 KiB are counted and not
// listed. Neither are words that are new when the table of words is full: it holds
// 1,000,000 different words, of 32 MiB in all. They may have been among the most
// frequent, so the answer says how many there were:
//
//       words not listed
//                1  of more than 65536 bytes
//              208  new to a full table (1000000 words or 33554432 bytes)
//
// A text that takes long shows its progress on standard error if that is a terminal.
// Errors go to standard error. Exit status, the highest that applies:
//
//   0  all texts were counted
//   1  a text could not be read; the others were counted
//   2  the companion could not be started, was lost, or did not end well
//   3  the arguments are wrong
//   4  standard output could not be written
//
// The steps of a parent: start the companion (start_companion), talk to it (count_text),
// end and reap it (end_companion).
#include "word_count_answer.h"
#include "word_count_link.h"
#include "word_count_progress.h"
#include "word_count_protocol.h"

#include <components/platform/debug_hooks.h>
#include <components/platform/environment.h>
#include <components/platform/socket.h>
#include <components/platform/zel_pair_connection.h>
#include <msg/msg.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace {

using namespace word_count;

enum ExitStatus { kAllCounted = 0, kTextUnreadable = 1, kCompanionFailed = 2, kWrongArguments = 3, kOutputFailed = 4 };

// A text to count: where it is, and what it is called in messages.
struct Text {
    std::string path;
    std::string name;
};

struct Options {
    bool hybrid = false;
    std::string companion;
    std::string debug; // the request for the companion's start-up hook, or ""
    std::vector<Text> texts;
};

// ---- One text -----------------------------------------------------------------------------------------------------

enum class Result { counted, unreadable, companion_lost, not_understood };

using Chunk = std::array<char, kChunkSize>;

// The name of standard input among the files, and in messages.
constexpr std::string_view kStandardInput = "-";
constexpr const char *kStandardInputName = "standard input";

int open_text(const Text &text) {
    return text.path == kStandardInput ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)
                                       : open(text.path.c_str(), O_RDONLY | O_CLOEXEC);
}

// The length read, 0 at the end of the file, or the error number as a negative value.
int32_t read_chunk(int fd, Chunk &chunk) {
    ssize_t length;
    do {
        length = read(fd, chunk.data(), chunk.size());
    } while (length == -1 && errno == EINTR);
    return length == -1 ? -errno : static_cast<int32_t>(length);
}

Result report_unreadable(const Text &text, int error) {
    const std::string reason = std::generic_category().message(error);
    msg_error("%s cannot be read: %s.", text.name.c_str(), reason.c_str());
    return Result::unreadable;
}

// Announces the text; the companion then waits for its chunks.
Result request(Companion &companion, const Text &text) {
    int32_t ready;
    if (!send_message(companion.pair, {kCount, text.name}) || !receive_value(companion.pair, ready)) {
        return Result::companion_lost;
    }
    return ready == kReady ? Result::counted : Result::not_understood;
}

bool send_chunk(PairHandle *pair, const Chunk &chunk, int32_t length) {
    return send_value(pair, length) && send_whole(pair, chunk.data(), length);
}

// Sends the chunk that has been read and all that follow. The length becomes that of the
// last read: 0 or an error. False when the companion is gone.
bool send_chunks(PairHandle *pair, int fd, Chunk &chunk, int32_t &length) {
    Progress progress = begin_progress(fd);
    bool sent = true;
    for (; length > 0; length = read_chunk(fd, chunk)) {
        sent = send_chunk(pair, chunk, length);
        if (!sent) {
            break;
        }
        advance_progress(progress, length);
    }
    end_progress(progress);
    return sent;
}

// The message loop's handler has no argument of ours, and the texts it gets are gone when
// it returns: it keeps here what it was told.
Answer answer;

int on_answer(int /*socket*/, char *first_line, char **lines) {
    answer = {};
    answer.understood = parse_answer(first_line, lines, answer);
    return 1;
}

Result receive_answer(PairHandle *pair) {
    if (platform_get_one_message(platform_pair_rx_fd(pair), on_answer, nullptr, 1) == 0) {
        return Result::companion_lost;
    }
    return answer.understood ? Result::counted : Result::not_understood;
}

// The first chunk is read before anything is asked: a folder can be opened, but not read,
// and is no text to ask about.
Result exchange(Companion &companion, const Text &text, int fd) {
    Chunk chunk;
    int32_t length = read_chunk(fd, chunk);
    if (length < 0) {
        return report_unreadable(text, -length);
    }
    const Result requested = request(companion, text);
    if (requested != Result::counted) {
        return requested;
    }
    if (!send_chunks(companion.pair, fd, chunk, length)) {
        return Result::companion_lost;
    }
    if (length < 0) {
        report_unreadable(text, -length);
        return send_value(companion.pair, kBrokenOff) ? Result::unreadable : Result::companion_lost;
    }
    return send_value(companion.pair, kEndOfText) ? receive_answer(companion.pair) : Result::companion_lost;
}

Result count_text(Companion &companion, const Text &text) {
    const int fd = open_text(text);
    if (fd == -1) {
        return report_unreadable(text, errno);
    }
    const Result result = exchange(companion, text, fd);
    close(fd);
    if (result == Result::counted) {
        print_answer(text.name, answer);
    }
    return result;
}

// ---- All texts ----------------------------------------------------------------------------------------------------

ExitStatus give_up(Companion &companion, Result result, const Text &text, size_t left) {
    const char *what = result == Result::not_understood ? "The companion gave no proper answer about "
                                                        : "The companion was lost while it counted ";
    give_up_companion(companion, what + text.name + ".");
    MSG_CONT("Texts that were not counted: %zu.", left);
    return kCompanionFailed;
}

ExitStatus count_all(Companion &companion, const std::vector<Text> &texts) {
    ExitStatus status = kAllCounted;
    for (size_t place = 0; place < texts.size(); ++place) {
        const Result result = count_text(companion, texts[place]);
        if (result == Result::companion_lost || result == Result::not_understood) {
            return give_up(companion, result, texts[place], texts.size() - place);
        }
        if (result == Result::unreadable) {
            status = kTextUnreadable;
        }
    }
    return end_companion(companion) ? status : kCompanionFailed;
}

// ---- The arguments ------------------------------------------------------------------------------------------------

// The folder that this program stands in.
std::filesystem::path own_folder() {
    std::error_code ignored;
    return std::filesystem::read_symlink("/proc/self/exe", ignored).parent_path();
}

// A pipe that stands there without a FILE was put there to be counted. A terminal, a null
// device or a script that a shell reads was not.
bool standard_input_is_pipe() {
    struct stat status;
    return fstat(STDIN_FILENO, &status) == 0 && S_ISFIFO(status.st_mode);
}

std::vector<Text> default_texts() {
    if (standard_input_is_pipe()) {
        return {{.path = std::string(kStandardInput), .name = kStandardInputName}};
    }
    const std::filesystem::path root = (own_folder() / WORD_COUNT_ROOT).lexically_normal();
    std::vector<Text> texts;
    for (const char *name : {"README.md", "CONTRIBUTING.md", "LICENSE"}) {
        texts.push_back({.path = root / name, .name = name});
    }
    return texts;
}

bool refuse_arguments(const std::string &reason) {
    msg_error("%s", reason.c_str());
    MSG_CONT("Usage: word_count [--hybrid] [--companion PROGRAM] [--debug REQUEST] [--] [FILE...]");
    return false;
}

void add_texts(Options &options, char **files) {
    for (char **file = files; *file != nullptr; ++file) {
        const bool named = *file != kStandardInput;
        options.texts.push_back({.path = *file, .name = named ? visible(*file, kVisibleName) : kStandardInputName});
    }
}

std::string reason_against(std::string_view option) {
    if (option == "--companion") {
        return "--companion needs a program.";
    }
    return option == "--debug" ? "--debug needs a request." : visible(option, kVisibleName) + " is no option.";
}

// Options come first. Behind "--" a FILE may begin with two hyphens.
bool parse_options(char **argument, Options &options) {
    for (; *argument != nullptr && std::string_view(*argument).starts_with("--"); ++argument) {
        const std::string_view option = *argument;
        if (option == "--") {
            ++argument;
            break;
        }
        if (option == "--hybrid") {
            options.hybrid = true;
        } else if (option == "--companion" && argument[1] != nullptr) {
            options.companion = *++argument;
        } else if (option == "--debug" && argument[1] != nullptr) {
            options.debug = *++argument;
        } else {
            return refuse_arguments(reason_against(option));
        }
    }
    add_texts(options, argument);
    return true;
}

void fill_in_defaults(Options &options) {
    if (options.companion.empty()) {
        options.companion = own_folder() / "word_count_companion";
    }
    if (options.texts.empty()) {
        options.texts = default_texts();
    }
}

ExitStatus run(const Options &options) {
    if (!options.debug.empty()) {
        platform_setenv("ZEL_DEBUG", options.debug.c_str());
    }
    Companion companion = {.program = options.companion};
    if (!start_companion(companion, options.hybrid)) {
        return kCompanionFailed;
    }
    MsgBuf *buffer = platform_msgbuf_create(kMessageRoom);
    platform_msgbuf_set(buffer);
    const ExitStatus status = count_all(companion, options.texts);
    platform_msgbuf_set(nullptr);
    platform_msgbuf_free(buffer);
    return status;
}

} // namespace

int main(int argc, char **argv) {
    platform_debug_hooks(&argc, argv);
    Options options;
    if (!parse_options(argv + std::min(argc, 1), options)) {
        return kWrongArguments;
    }
    fill_in_defaults(options);
    const ExitStatus status = run(options);
    // A stream that could not be written has been dropped, after a warning.
    return msg_info_has_stream() ? status : kOutputFailed;
}
