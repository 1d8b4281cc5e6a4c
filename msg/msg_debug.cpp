// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Debug text. This file holds nothing else: a program with a msg_debug of its own leaves
// the object file out when it is linked to the static library.
#include <msg/msg.h>
#include <msg/sinks.h>

void msg_debug(const char *format, ...) {
    va_list args;
    va_start(args, format);
    _msg_output(MSG_DEBUG, MSG_FMT_LINE, 0, 0, "", format, args);
    va_end(args);
}
