// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Diagnostic texts.
#include <msg/base/errno_kept.h>
#include <msg/base/text.h>
#include <msg/internal/state.h>
#include <msg/internal/write.h>
#include <msg/msg.h>
#include <msg/sinks.h>

#include <array>

namespace {

constexpr size_t kDiagnosticSize = 16384;
constexpr size_t kSystemTextSize = 1024;
using DiagnosticText = std::array<char, kDiagnosticSize>;

// A text on its way to a stream. It is collected, so that a text that fits is one write.
struct Outgoing {
    FILE *stream;
    size_t used = 0;
    DiagnosticText text;
};

void hand_over(Outgoing &out) {
    fwrite(out.text.data(), 1, out.used, out.stream);
    out.used = 0;
}

void put(Outgoing &out, std::string_view piece) {
    while (!piece.empty()) {
        const size_t length = zel::copy_part(std::span(out.text).last(out.text.size() - out.used), piece);
        piece.remove_prefix(length);
        out.used += length;
        if (out.used == out.text.size()) {
            hand_over(out);
        }
    }
}

// DELIBERATE: the formatted text is read as a format a second time. "%%" and "%m" are
// converted. Any other conversion stands as it is, for there are no arguments. Tests:
// MsgDiag.FourPercentSignsInTheFormatMakeOne and
// MsgDiag.TheSecondPassHasNothingToConvert.
void write_second_pass(FILE *stream, std::string_view text, int error) {
    // A copy: a function of the stream may call strerror, which reuses its storage.
    std::array<char, kSystemTextSize> system_text;
    zel::format_text(system_text, "%s", strerror(error));
    Outgoing out = {.stream = stream, .text = {}};
    size_t percent;
    while ((percent = text.find('%')) != std::string_view::npos) {
        const char conversion = percent + 1 < text.size() ? text[percent + 1] : '\0';
        const bool known = conversion == '%' || conversion == 'm';
        put(out, zel::first_part(text, percent + (conversion == 'm' ? 0 : 1)));
        if (conversion == 'm') {
            put(out, system_text.data());
        }
        text.remove_prefix(percent + (known ? 2 : 1));
    }
    put(out, text);
    hand_over(out);
}

void write_line(FILE *stream, const char *text, int error) {
    if (strchr(text, '%') == nullptr) {
        fputs(text, stream);
        return;
    }
    write_second_pass(stream, text, error);
}

template <typename Write>
void to_each_stream(const MsgStreamDesc &desc, Write write) {
    for (int32_t index = 0; index < desc.count; ++index) {
        write(desc.streams[index]);
        if (desc.sync != 0) {
            zel::msg::force_to_disk(desc.streams[index]);
        }
    }
}

// Kept out of line: a text that no stream takes does not touch the stack of its area.
[[gnu::noinline]] __attribute__((format(printf, 2, 0))) void write_to_all(const MsgStreamDesc &desc, const char *format,
                                                                          va_list args, int error) {
    DiagnosticText text;
    zel::vformat_text(text, format, args);
    to_each_stream(desc, [&text, error](FILE *stream) { write_line(stream, text.data(), error); });
}

} // namespace

void msg_diag(const char *format, ...) {
    // Before the lists are built MSG_DIAG has no stream. Building them would allocate
    // memory.
    if (!zel::msg::state.streams_ready) {
        return;
    }
    const zel::ErrnoKept kept;
    const MsgStreamDesc *desc = _msg_get_stream_desc(MSG_DIAG);
    if (desc->count == 0) {
        return;
    }
    va_list args;
    va_start(args, format);
    write_to_all(*desc, format, args, kept.value);
    va_end(args);
}

void msg_diag_text(const char *text) {
    if (!zel::msg::state.streams_ready) {
        return;
    }
    const zel::ErrnoKept kept;
    const char *shown = text == nullptr ? "" : text;
    to_each_stream(*_msg_get_stream_desc(MSG_DIAG), [shown](FILE *stream) { fputs(shown, stream); });
}
