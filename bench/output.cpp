// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Lines of output, wrapped paragraphs and diagnostic lines on /dev/null, beside stdio used by hand.
#include "rows.h"
#include "table.h"

#include <msg/msg.h>

#include <algorithm>
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

// What opens and ends a line. Variables, as in any program whose prefixes can be set: the compiler must not write the
// texts into the calls.
struct Frame {
    const char *mp; // of the process; none here
    const char *prefix;
    const char *indentation;
    const char *newline;
};
Frame frame = {.mp = "", .prefix = "bench: ", .indentation = "       ", .newline = "\n"};

// Where both sides write.
FILE *target = nullptr;

FILE *null_stream() {
    static FILE *const stream = std::fopen("/dev/null", "w");
    return stream;
}

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

// What the library's messages promise: every prefix, indentation, piece and newline is one fputs.
void open_line_call_by_call(const char *lead) {
    std::fputs(frame.mp, target);
    std::fputs(lead, target);
}

void end_line_call_by_call() {
    std::fputs(frame.newline, target);
}

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

void line_call_by_call() {
    std::array<char, kTextSize> text;
    format_by_hand(text, kLine, "backup", 12, 40, "/home/guest");
    open_line_call_by_call(frame.prefix);
    std::fputs(text.data(), target);
    end_line_call_by_call();
    std::fflush(target);
}

// ---- A paragraph ----------------------------------------------------------------------------------------------------

std::string make_paragraph() {
    std::string text;
    for (int i = 0; i < 40; ++i) {
        text += "a line of words, some short and some considerably longer ";
    }
    text.pop_back();
    return text;
}

const char *paragraph() {
    static const std::string text = make_paragraph();
    return text.c_str();
}

void piece_by_hand(const char *from, const char *to) {
    std::fwrite(from, 1, static_cast<size_t>(to - from), target);
}

// fputs writes whole strings, so the text is ended there meanwhile.
void piece_call_by_call(char *from, char *to) {
    const char behind = *to;
    *to = '\0';
    std::fputs(from, target);
    *to = behind;
}

// Greedy, for words that are shorter than a line and single blanks between them. Calls line with each line's opening,
// beginning and end.
template <typename Line>
void wrap(char *text, size_t room, Line line) {
    const char *lead = frame.prefix;
    char *const end = text + std::strlen(text);
    while (static_cast<size_t>(end - text) > room) {
        char *blank = static_cast<char *>(memrchr(text, ' ', room + 1));
        line(lead, text, blank);
        text = blank + 1;
        lead = frame.indentation;
    }
    line(lead, text, end);
    std::fflush(target);
}

void zel_paragraph() {
    msg_print("%s", paragraph());
}

void paragraph_by_hand() {
    std::array<char, kTextSize> text;
    format_by_hand(text, "%s", paragraph());
    wrap(text.data(), kWidth - std::strlen(frame.prefix), [](const char *lead, const char *from, const char *to) {
        std::fputs(lead, target);
        piece_by_hand(from, to);
        std::fputc('\n', target);
    });
}

void paragraph_call_by_call() {
    std::array<char, kTextSize> text;
    format_by_hand(text, "%s", paragraph());
    wrap(text.data(), kWidth - std::strlen(frame.prefix), [](const char *lead, char *from, char *to) {
        open_line_call_by_call(lead);
        piece_call_by_call(from, to);
        end_line_call_by_call();
    });
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

Way to_null(const char *name, Action action) {
    return {name, [action](benchmark::State &state) {
                const Redirected redirected(null_stream());
                while (state.KeepRunning()) {
                    action();
                }
            }};
}

std::ptrdiff_t lines_of_paragraph() {
    const std::string text = output_of(zel_paragraph);
    return std::count(text.begin(), text.end(), '\n');
}

// A floor that does not write the same bytes is none.
void require_same_output(const char *row, Action zel, Action by_hand) {
    if (output_of(zel) != output_of(by_hand)) {
        std::fprintf(stderr, "zel_bench: %s: written by hand it reads otherwise\n", row);
        std::exit(1);
    }
}

} // namespace

void add_output_rows() {
    benchmark::DoNotOptimize(&frame); // from here on the compiler takes it for changeable
    for (const Action by_hand : {line_by_hand, line_call_by_call}) {
        require_same_output("line", zel_line, by_hand);
    }
    for (const Action by_hand : {paragraph_by_hand, paragraph_call_by_call}) {
        require_same_output("paragraph", zel_paragraph, by_hand);
    }
    require_same_output("diagnostic line", zel_diagnostic, diagnostic_by_hand);
    add_row(
        "line of output with its flush", Clock::own, 40000,
        {to_null("zel", zel_line), to_null("floor", line_by_hand), to_null("floor, same calls", line_call_by_call)});
    add_row("paragraph, wrapped to " + std::to_string(lines_of_paragraph()) + " lines", Clock::own, 5000,
            {to_null("zel", zel_paragraph), to_null("floor", paragraph_by_hand),
             to_null("floor, same calls", paragraph_call_by_call)});
    add_row("diagnostic line", Clock::own, 80000,
            {to_null("zel", zel_diagnostic), to_null("floor", diagnostic_by_hand)});
}

} // namespace bench
