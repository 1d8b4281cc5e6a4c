// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The core writer: formats one message, cuts it into lines and writes them to the
// streams.
#include <msg/msg.h>

#include <msg/base/text.h>
#include <msg/internal/cut.h>
#include <msg/internal/format.h>
#include <msg/internal/prefix.h>
#include <msg/internal/state.h>
#include <msg/internal/streams.h>
#include <msg/internal/width.h>
#include <msg/internal/write.h>

#include <algorithm>
#include <cstdlib>
#include <unistd.h>

namespace zel::msg {

constinit State state = {
    .streams_ready = false,
    .streams = {},
    .spare_slots = {},
    .last = {},
    .prefixes = {{{.text = "", .owned = nullptr, .readers = 0},
                  {.text = "Warning: ", .owned = nullptr, .readers = 0},
                  {.text = "", .owned = nullptr, .readers = 0},
                  {.text = "Error: ", .owned = nullptr, .readers = 0},
                  {.text = "Internal error: ", .owned = nullptr, .readers = 0}}},
    .width_settled = false,
};

namespace {

// One message on its way out.
struct Message {
    Channel channel;
    int fmt_type;
    std::string_view lead_text;   // of the next line: the prefix, then the indentation
    std::string_view indentation; // of the lines behind the first
    size_t lead_length;           // of the prefix, with the mp prefix
};

constexpr std::array<char, kIndentationSize> kSpaces = [] {
    std::array<char, kIndentationSize> spaces = {};
    std::fill_n(spaces.begin(), spaces.size() - 1, ' ');
    return spaces;
}();

std::string_view indentation_under(std::string_view prefix) {
    const std::string_view longest(kSpaces.data(), kSpaces.size() - 1);
    return part_from(longest, longest.size() - std::min(prefix.size(), longest.size()));
}

const char *chars_of(const LeadText &lead) {
    if (lead.indentation != nullptr) {
        return lead.indentation;
    }
    return lead.longer == nullptr ? lead.fixed.data() : lead.longer;
}

// Copies a prefix. A long one that finds no memory is cut.
void copy_prefix(LeadText &lead, std::string_view prefix) {
    if (prefix.size() >= lead.fixed.size()) {
        lead.longer = static_cast<char *>(malloc(prefix.size() + 1));
    }
    if (lead.longer != nullptr) {
        memcpy(lead.longer, prefix.data(), prefix.size());
        lead.longer[prefix.size()] = '\0';
    }
    const size_t length = copy_part(std::span(lead.fixed).first<kIndentationSize - 1>(), prefix);
    lead.fixed[length] = '\0';
}

void record(const Message &message) {
    LastMessage &last = state.last;
    last.type = message.channel.type;
    last.fmt_type = message.fmt_type;
    last.primary_only = message.channel.primary_only ? 1 : 0;
    if (last.lead_text.longer != nullptr) {
        free(last.lead_text.longer);
        last.lead_text.longer = nullptr;
    }
    const bool indented = message.lead_text.data() == message.indentation.data();
    last.lead_text.indentation = indented ? message.indentation.data() : nullptr;
    if (!indented) {
        copy_prefix(last.lead_text, message.lead_text);
    }
}

void end_line(const Channel &channel) {
    write_streams(channel, "\n");
    state.column = 0;
}

// The count stops at the largest number, so that an endless line does not overflow it.
void advance_column(size_t length) {
    const auto space = static_cast<size_t>(INT32_MAX - state.column);
    state.column += static_cast<int32_t>(std::min(length, space));
}

// DELIBERATE: the column counts the whole prefix on later lines too, although their
// indentation has at most 49 spaces. Test:
// MsgWrap.UnderALongPrefixTheLaterLinesBreakEarly.
void open_line(Message &message) {
    if (!message.channel.primary_only) {
        const PrefixInUse mp(PrefixKind::mp);
        write_streams(message.channel, mp.text);
    }
    write_streams(message.channel, message.lead_text);
    advance_column(message.lead_length);
    message.lead_text = message.indentation;
}

// Writes the first characters of the text. fputs takes whole strings, so a NUL ends the
// text for the time of the call.
void write_piece(const Channel &channel, char *text, size_t length) {
    const char kept = text[length];
    text[length] = '\0';
    write_streams(channel, {text, length});
    text[length] = kept;
}

char *write_raw(const Channel &channel, char *text) {
    char *newline = strchr(text, '\n');
    if (newline != nullptr) {
        write_piece(channel, text, static_cast<size_t>(newline + 1 - text));
        state.column = 0;
        return newline + 1;
    }
    const size_t length = strlen(text);
    write_streams(channel, {text, length});
    advance_column(length);
    return text + length;
}

// DELIBERATE: a lead length above the width leaves a negative room. On a line that was
// just opened this room counts as 0, so that the first word is written whole: otherwise
// the text would move to the next line for ever. On any other line the room stays
// negative. Tests: MsgWrap.APrefixLongerThanTheWidthStillTakesOneWordALine and
// MsgWrap.AnOpenLineBeyondTheWidthMovesTheNextWordToANewLine.
char *write_wrapped(const Channel &channel, char *text, char *end, int32_t width, bool line_just_opened) {
    ptrdiff_t room = width - state.column;
    if (line_just_opened) {
        room = std::max<ptrdiff_t>(room, 0);
    }
    const size_t length = break_point({text, static_cast<size_t>(end - text)}, room);
    write_piece(channel, text, length);
    advance_column(length);
    text += length;
    text += leading_blanks({text, static_cast<size_t>(end - text)});
    if (*text == '\n') {
        end_line(channel);
        ++text;
    }
    return text;
}

// DELIBERATE: the reported text is fixed. Test:
// MsgOutput.AnUnknownLayoutEndsTheProcessWhereItWouldBeApplied.
void require_known_layout(const Message &message) {
    if (message.fmt_type >= MSG_FMT_RAW && message.fmt_type <= MSG_FMT_LINE) {
        return;
    }
    hand_over(message.channel);
    const auto fatal = message.channel.primary_only ? msg_primary_fatal : msg_fatal;
    fatal("Internal error: Bad MSG_FMT_TYPE: %d", message.fmt_type);
}

// Writes the next piece of the text on the current line. Returns the rest of the text.
char *write_next(const Message &message, char *text, char *end, bool line_just_opened) {
    const int32_t width = width_limit();
    if (width == 0) {
        return write_raw(message.channel, text);
    }
    require_known_layout(message);
    if (message.fmt_type == MSG_FMT_RAW) {
        return write_raw(message.channel, text);
    }
    return write_wrapped(message.channel, text, end, width, line_just_opened);
}

// Ends the line that is open. at_start: an earlier message left it open.
// DELIBERATE: the newline goes to the streams of this message, whichever type left the
// line open: one column counts for all types. Test:
// MsgOutput.ALineLeftOpenIsEndedOnTheStreamsOfTheNextMessage.
void break_line(const Channel &channel, bool at_start) {
    if (state.column == 0) {
        return;
    }
    end_line(channel);
    if (at_start) {
        flush_streams(channel);
    }
}

void write_text(Message &message, std::span<char> whole, bool continuation) {
    char *text = whole.data();
    char *const end = text + whole.size();
    bool first = true;
    do {
        if (!first || !continuation) {
            break_line(message.channel, first);
        }
        first = false;
        const bool opens_line = state.column == 0;
        if (opens_line) {
            open_line(message);
        }
        text = write_next(message, text, end, opens_line);
    } while (text < end);
}

// DELIBERATE: the reported text is fixed, the missing word before "a dollar sign"
// included. Test: MsgOutput.ASingleDollarSignEndsTheProcess.
void refuse_format(const Channel &channel, const char *format) {
    const auto fatal = channel.primary_only ? msg_primary_fatal : msg_fatal;
    fatal("Internationalization interface not yet supported.\n"
          "However, the format string \"%s\" began with a dollar sign.  "
          "Use two dollar signs if you really want the string to begin a dollar sign.",
          format);
}

// A leading dollar sign is reserved for message catalogues. Two of them stand for one.
[[gnu::format_arg(2)]] const char *checked_format(const Channel &channel, const char *format) {
    if (format[0] != '$') {
        return format;
    }
    if (format[1] != '$') {
        refuse_format(channel, format);
    }
    return format + 1;
}

// The message could not be formatted. This report needs neither memory nor a stream.
void report_lost_message() {
    constexpr std::string_view text = "A message could not be formatted and is lost.\n";
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text.data(), text.size());
}

size_t lead_length_of(std::string_view prefix, bool primary_only) {
    return prefix.size() + (primary_only ? 0 : prefix_of(PrefixKind::mp).text.size());
}

} // namespace

} // namespace zel::msg

using namespace zel::msg;

void _msg_output(int type, int fmt_type, int primary_only, int continuation, const char *prefix, const char *format,
                 va_list args) {
    if (primary_only != 0 && state.primary == 0) {
        return;
    }
    const PrefixInUse given(prefix == nullptr ? "" : prefix); // until the message has been written and recorded
    Gathered gathered;
    Message message = {.channel = {.type = type,
                                   .primary_only = primary_only != 0,
                                   .streams = streams_of(type),
                                   .gathered = &gathered},
                       .fmt_type = fmt_type,
                       .lead_text = given.text,
                       .indentation = indentation_under(given.text),
                       .lead_length = lead_length_of(given.text, primary_only != 0)};
    const std::span<char> text = format_message(checked_format(message.channel, format), args);
    if (text.data() == nullptr) {
        report_lost_message();
        record(message);
        return;
    }
    start_gathering(message.channel);
    write_text(message, text, continuation != 0);
    release_message(text.data());
    if (fmt_type == MSG_FMT_LINE) {
        end_line(message.channel);
        flush_streams(message.channel);
    } else {
        hand_over(message.channel);
    }
    record(message);
}

// DELIBERATE: the reported text is fixed. Test:
// MsgCont.AContinuationBeforeAnyMessageEndsTheProcess.
void msg_vcont(const char *format, va_list args) {
    if (state.last.type == 0) {
        msg_fatal("MSG_CONT called before any other message function.");
    }
    // A copy: a report within this message replaces the record.
    LastMessage last = state.last;
    last.lead_text.longer = nullptr;
    if (last.lead_text.indentation == nullptr) {
        copy_prefix(last.lead_text, chars_of(state.last.lead_text));
    }
    _msg_output(last.type, last.fmt_type, last.primary_only, 1, chars_of(last.lead_text), format, args);
    free(last.lead_text.longer);
}
