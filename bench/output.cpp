// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Lines of output, wrapped texts and diagnostic lines to a file, beside stdio used by hand.
#include "outside.h"
#include "rows.h"
#include "table.h"

#include <msg/msg.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace bench {

namespace {

constexpr size_t kTextSize = 10000;
constexpr size_t kWidth = 78;
constexpr const char *kLine = "%s: %d of %d files, now in %s";
constexpr const char *kDiagnostic = "%s: request %d answered in %d us\n";

// What opens a line. Variables, as in any program whose prefixes can be set: the compiler must not write the texts into
// the calls.
struct Frame {
    const char *prefix;
    const char *indentation;
};
Frame frame = {.prefix = "bench: ", .indentation = "       "};

// Where both sides write.
FILE *target = nullptr;

// Sends informational and diagnostic messages to a stream, behind the prefix.
struct Redirected {
    explicit Redirected(FILE *stream) {
        target = stream;
        msg_clear_streams(MSG_INFO | MSG_DIAG);
        msg_add_stream(MSG_INFO | MSG_DIAG, stream);
        msg_set_print_prefix(frame.prefix);
    }
    Redirected(const Redirected &) = delete;
    Redirected &operator=(const Redirected &) = delete;
    ~Redirected() {
        msg_set_print_prefix("");
        msg_clear_streams(MSG_INFO | MSG_DIAG);
        msg_add_stream(MSG_INFO, stdout);
    }
};

// ---- A line ---------------------------------------------------------------------------------------------------------

__attribute__((format(printf, 2, 3))) void format_by_hand(std::array<char, kTextSize> &text, const char *format, ...) {
    va_list args;
    va_start(args, format);
    std::vsnprintf(text.data(), text.size(), format, args);
    va_end(args);
}

void zel_line() {
    msg_print(kLine, "backup", 12, 40, "/home/guest");
}

void line_by_hand() {
    std::array<char, kTextSize> text;
    format_by_hand(text, kLine, "backup", 12, 40, "/home/guest");
    std::fputs(frame.prefix, target);
    std::fputs(text.data(), target);
    std::fputc('\n', target);
    std::fflush(target);
}

// ---- A wrapped text -------------------------------------------------------------------------------------------------

// Words of one to twelve letters, 400 characters in all. fold and fmt get the same.
std::string make_text() {
    std::string text;
    while (text.size() < 400) {
        text += "a line of words, some short and some considerably longer ";
    }
    text.resize(400);
    return text;
}

const char *long_text() {
    static const std::string text = make_text();
    return text.c_str();
}

// Greedy, for words that are shorter than a line and single blanks between them.
void wrap(const char *text, size_t room) {
    const char *lead = frame.prefix;
    const char *const end = text + std::strlen(text);
    while (static_cast<size_t>(end - text) > room) {
        const auto *blank = static_cast<const char *>(memrchr(text, ' ', room + 1));
        std::fputs(lead, target);
        std::fwrite(text, 1, static_cast<size_t>(blank - text), target);
        std::fputc('\n', target);
        text = blank + 1;
        lead = frame.indentation;
    }
    std::fputs(lead, target);
    std::fputs(text, target);
    std::fputc('\n', target);
    std::fflush(target);
}

void zel_wrapped() {
    msg_print("%s", long_text());
}

void wrapped_by_hand() {
    std::array<char, kTextSize> text;
    format_by_hand(text, "%s", long_text());
    wrap(text.data(), kWidth - std::strlen(frame.prefix));
}

// A file of so many of the texts, each a line: the input of fold and fmt.
std::string file_of_texts(int64_t count) {
    std::string path = scratch() + "/texts";
    FILE *file = std::fopen(path.c_str(), "w");
    for (int64_t i = 0; file != nullptr && i < count; ++i) {
        std::fprintf(file, "%s\n\n", long_text());
    }
    if (file == nullptr || std::fclose(file) != 0) {
        std::perror(path.c_str());
        std::exit(1);
    }
    return path;
}

// ---- A diagnostic line ----------------------------------------------------------------------------------------------

void zel_diagnostic() {
    msg_diag(kDiagnostic, "server", 4711, 83);
}

void diagnostic_by_hand() {
    std::array<char, kTextSize> text;
    format_by_hand(text, kDiagnostic, "server", 4711, 83);
    std::fputs(text.data(), target);
}

// ---- The rows -------------------------------------------------------------------------------------------------------

using Action = void (*)();

std::string output_of(Action action) {
    char *text = nullptr;
    size_t size = 0;
    FILE *stream = open_memstream(&text, &size);
    {
        const Redirected redirected(stream);
        action();
    }
    std::fclose(stream);
    std::string result(text, size);
    std::free(text);
    return result;
}

// The file is emptied before each sample.
Way to_file(const char *name, Action action) {
    return {name, [action](benchmark::State &state) {
                const std::string path = scratch() + "/output";
                FILE *file = std::fopen(path.c_str(), "w");
                if (file == nullptr) {
                    state.SkipWithError("no file to write to");
                    return;
                }
                {
                    const Redirected redirected(file);
                    while (state.KeepRunning()) {
                        action();
                    }
                }
                std::fclose(file);
            }};
}

// A floor that does not write the same bytes is none.
void require_same_output(const char *row, Action zel, Action by_hand) {
    if (output_of(zel) != output_of(by_hand)) {
        std::fprintf(stderr, "zel_bench: %s: written by hand it reads otherwise\n", row);
        std::exit(1);
    }
}

void add_output_row(const char *name, int64_t iterations, const std::string &peer_work, Action zel, Action by_hand) {
    require_same_output(name, zel, by_hand);
    std::vector<Way> ways = {to_file("zel", zel), to_file("floor", by_hand)};
    if (!peer_work.empty()) {
        ways = with_peers(peer_work, Clock::own, ways);
    }
    add_row({.name = name, .clock = Clock::own, .iterations = iterations}, ways);
}

} // namespace

void add_output_rows() {
    constexpr int64_t kTexts = 4000;
    benchmark::DoNotOptimize(&frame); // from here on the compiler takes it for changeable
    add_output_row("line to a file with its flush", 20000, "line '" + scratch() + "/peer'", zel_line, line_by_hand);
    require_same_output("wrapped text", zel_wrapped, wrapped_by_hand);
    const std::string files = " '" + file_of_texts(kTexts) + "' '" + scratch() + "/wrapped'";
    add_row({.name = "wrapped text of 400 characters", .clock = Clock::own, .iterations = kTexts},
            with_peers("fold" + files, Clock::own,
                       with_peers("fmt" + files, Clock::own,
                                  {to_file("zel", zel_wrapped), to_file("floor", wrapped_by_hand)})));
    add_output_row("diagnostic line", 50000, "", zel_diagnostic, diagnostic_by_hand);
}

} // namespace bench
