// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The core writer: formats one message, cuts it into lines and writes them to the
// streams.
#include <msg/msg.h>

#include <msg/base/text.h>
#include <msg/internal/cut.h>
#include <msg/internal/format.h>
#include <msg/internal/prefix.h>
#include <msg/internal/state.h>
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

using Indentation = std::array<char, kIndentationSize>;

// One message on its way out.
struct Message {
    Channel channel;
    int fmt_type;
    const char *lead_text; // of the next line: the prefix, then the indentation
    size_t lead_length;    // of the prefix, with the mp prefix
    Indentation indentation;
};

Indentation indentation_under(std::string_view prefix) {
    Indentation spaces = {};
    std::fill_n(spaces.begin(), std::min(prefix.size(), spaces.size() - 1), ' ');
    return spaces;
}

const char *chars_of(const LeadText &lead) {
    return lead.longer == nullptr ? lead.fixed.data() : lead.longer;
}

// Copies a lead text: a setter may release the prefix, and the indentation ends with its
// message. A long text that finds no memory is cut.
LeadText copy_lead_text(std::string_view text) {
    LeadText lead = {};
    if (text.size() >= lead.fixed.size()) {
        lead.longer = static_cast<char *>(malloc(text.size() + 1));
    }
    if (lead.longer != nullptr) {
        memcpy(lead.longer, text.data(), text.size());
        lead.longer[text.size()] = '\0';
    }
    copy_part(std::span(lead.fixed).first<kIndentationSize - 1>(), text);
    return lead;
}

void record(const Message &message) {
    const LeadText copy = copy_lead_text(message.lead_text);
    free(state.last.lead_text.longer);
    state.last = {.type = message.channel.type,
                  .fmt_type = message.fmt_type,
                  .primary_only = message.channel.primary_only ? 1 : 0,
                  .lead_text = copy};
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
        const char *mp = prefix_text(PrefixKind::mp);
        const PrefixInUse in_use(mp);
        write_streams(message.channel, mp);
    }
    write_streams(message.channel, message.lead_text);
    advance_column(message.lead_length);
    message.lead_text = message.indentation.data();
}

// Writes the first characters of the text. fputs takes whole strings, so a NUL ends the
// text for the time of the call.
void write_piece(const Channel &channel, char *text, size_t length) {
    const char kept = text[length];
    text[length] = '\0';
    write_streams(channel, text);
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
    write_streams(channel, text);
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
    const auto fatal = message.channel.primary_only ? msg_primary_fatal : msg_fatal;
    fatal("Internal error: Bad MSG_FMT_TYPE: %d", message.fmt_type);
}

// Writes the next piece of the text on the current line. Returns the rest of the text.
char *write_next(const Message &message, char *text, char *end, bool line_just_opened) {
    const int32_t width = msg_get_width_limit();
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

void write_text(Message &message, char *text, bool continuation) {
    char *const end = text + strlen(text);
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

size_t lead_length_of(const Channel &channel, std::string_view prefix) {
    const std::string_view mp = channel.primary_only ? "" : prefix_text(PrefixKind::mp);
    return prefix.size() + mp.size();
}

} // namespace

} // namespace zel::msg

using namespace zel::msg;

void _msg_output(int type, int fmt_type, int primary_only, int continuation, const char *prefix, const char *format,
                 va_list args) {
    if (primary_only != 0 && state.primary == 0) {
        return;
    }
    const char *given = prefix == nullptr ? "" : prefix;
    const PrefixInUse in_use(given); // until the message has been written and recorded
    const Channel channel = {.type = type, .primary_only = primary_only != 0, .streams = _msg_get_stream_desc(type)};
    Message message = {.channel = channel,
                       .fmt_type = fmt_type,
                       .lead_text = given,
                       .lead_length = lead_length_of(channel, given),
                       .indentation = indentation_under(given)};
    char *text = format_message(checked_format(channel, format), args);
    if (text == nullptr) {
        report_lost_message();
        record(message);
        return;
    }
    write_text(message, text, continuation != 0);
    release_message(text);
    if (fmt_type == MSG_FMT_LINE) {
        end_line(channel);
        flush_streams(channel);
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
    const LastMessage last = state.last;
    const LeadText lead = copy_lead_text(chars_of(last.lead_text));
    _msg_output(last.type, last.fmt_type, last.primary_only, 1, chars_of(lead), format, args);
    free(lead.longer);
}
