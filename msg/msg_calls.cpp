// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The output calls by name. Each fills in the arguments of the core writer.
#include <msg/base/ring.h>
#include <msg/internal/prefix.h>
#include <msg/msg.h>

#include <cerrno>
#include <cstdlib>

using zel::msg::prefix_text;
using zel::msg::PrefixKind;
using zel::msg::state;

// The body of an output call. A macro, because va_start must stand in the function that
// takes the arguments.
#define OUTPUT(type, fmt_type, primary_only, prefix, format)                                                           \
    do {                                                                                                               \
        va_list args;                                                                                                  \
        va_start(args, format);                                                                                        \
        _msg_output((type), (fmt_type), (primary_only), 0, (prefix), (format), args);                                  \
        va_end(args);                                                                                                  \
    } while (false)

// The same with the type and the prefix of a family of calls.
#define INFO(fmt_type, primary_only, format)                                                                           \
    OUTPUT(MSG_INFO, (fmt_type), (primary_only), prefix_text(PrefixKind::print), format)
#define WARNING(fmt_type, primary_only, format)                                                                        \
    OUTPUT(MSG_WARNING, (fmt_type), (primary_only), prefix_text(PrefixKind::warn), format)
#define ERROR(fmt_type, primary_only, format)                                                                          \
    OUTPUT(MSG_ERROR, (fmt_type), (primary_only), prefix_text(PrefixKind::error), format)
#define INTERNAL_ERROR(fmt_type, primary_only, format)                                                                 \
    OUTPUT(MSG_ERROR, (fmt_type), (primary_only), prefix_text(PrefixKind::internal_error), format)

namespace {

[[noreturn]] void end_process() {
    zel::write_out_rings();
    exit(1);
}

// Continues the error that was just written. A primary-only error may be unwritten: its
// continuation would continue another message.
// DELIBERATE: the text before the system's is fixed. Test:
// MsgFatal.TheSystemErrorIsTheOneOnEntry.
[[noreturn]] void add_system_error_and_exit(int error, bool primary_only) {
    if (!primary_only || state.primary != 0) {
        MSG_CONT("System error message: %s", strerror(error));
    }
    end_process();
}

} // namespace

// ---- Informational messages ----------------------------------------------------------------------------------------

void msg_print(const char *format, ...) {
    INFO(MSG_FMT_LINE, 0, format);
}

void msg_print_no_prefix(const char *format, ...) {
    OUTPUT(MSG_INFO, MSG_FMT_LINE, 0, "", format);
}

void msg_print_with_prefix(const char *prefix, const char *format, ...) {
    OUTPUT(MSG_INFO, MSG_FMT_LINE, 0, prefix, format);
}

void msg_print_wrap(const char *format, ...) {
    INFO(MSG_FMT_WRAP, 0, format);
}

void msg_print_raw(const char *format, ...) {
    INFO(MSG_FMT_RAW, 0, format);
}

// ---- Warnings ------------------------------------------------------------------------------------------------------

void msg_warn(const char *format, ...) {
    WARNING(MSG_FMT_LINE, 0, format);
}

void msg_warn_wrap(const char *format, ...) {
    WARNING(MSG_FMT_WRAP, 0, format);
}

void msg_warn_raw(const char *format, ...) {
    WARNING(MSG_FMT_RAW, 0, format);
}

// ---- Primary-only messages -----------------------------------------------------------------------------------------

void msg_primary_print(const char *format, ...) {
    INFO(MSG_FMT_LINE, 1, format);
}

void msg_primary_print_wrap(const char *format, ...) {
    INFO(MSG_FMT_WRAP, 1, format);
}

void msg_primary_print_raw(const char *format, ...) {
    INFO(MSG_FMT_RAW, 1, format);
}

void msg_primary_warn(const char *format, ...) {
    WARNING(MSG_FMT_LINE, 1, format);
}

void msg_primary_warn_wrap(const char *format, ...) {
    WARNING(MSG_FMT_WRAP, 1, format);
}

void msg_primary_warn_raw(const char *format, ...) {
    WARNING(MSG_FMT_RAW, 1, format);
}

// ---- Errors that return --------------------------------------------------------------------------------------------

void msg_error_ex(int primary_only, const char *format, ...) {
    ERROR(MSG_FMT_LINE, primary_only, format);
}

void msg_error_ex_wrap(int primary_only, const char *format, ...) {
    ERROR(MSG_FMT_WRAP, primary_only, format);
}

void msg_error_ex_raw(int primary_only, const char *format, ...) {
    ERROR(MSG_FMT_RAW, primary_only, format);
}

void msg_internal_error_ex(int primary_only, const char *format, ...) {
    INTERNAL_ERROR(MSG_FMT_LINE, primary_only, format);
}

void msg_internal_error_ex_wrap(int primary_only, const char *format, ...) {
    INTERNAL_ERROR(MSG_FMT_WRAP, primary_only, format);
}

void msg_internal_error_ex_raw(int primary_only, const char *format, ...) {
    INTERNAL_ERROR(MSG_FMT_RAW, primary_only, format);
}

void msg_error(const char *format, ...) {
    ERROR(MSG_FMT_LINE, 0, format);
}

// ---- Errors that end the process -----------------------------------------------------------------------------------

void msg_fatal(const char *format, ...) {
    ERROR(MSG_FMT_LINE, 0, format);
    end_process();
}

void msg_internal_error(const char *format, ...) {
    INTERNAL_ERROR(MSG_FMT_LINE, 0, format);
    end_process();
}

void msg_fatal_syserr(const char *format, ...) {
    const int error = errno;
    ERROR(MSG_FMT_LINE, 0, format);
    add_system_error_and_exit(error, false);
}

void msg_primary_fatal(const char *format, ...) {
    ERROR(MSG_FMT_LINE, 1, format);
    end_process();
}

void msg_primary_internal_error(const char *format, ...) {
    INTERNAL_ERROR(MSG_FMT_LINE, 1, format);
    end_process();
}

void msg_primary_fatal_syserr(const char *format, ...) {
    const int error = errno;
    ERROR(MSG_FMT_LINE, 1, format);
    add_system_error_and_exit(error, true);
}

// ---- Continuation --------------------------------------------------------------------------------------------------

void MSG_CONT(const char *format, ...) {
    va_list args;
    va_start(args, format);
    msg_vcont(format, args);
    va_end(args);
}
