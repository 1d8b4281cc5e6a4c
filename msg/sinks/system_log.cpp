// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The stream to the system log.
#include <msg/sinks/line_stream.h>

#include <msg/base/errno_kept.h>

#include <cerrno>
#include <cstdlib>
#include <syslog.h>

namespace {

struct SystemLog {
    int priority;
    char *ident; // behind the record
};

// LOG_PID: processes of one name write to one log.
int write_entry(const char *text, size_t length, void *user) {
    const auto *log = static_cast<const SystemLog *>(user);
    const size_t shown = text[length - 1] == '\n' ? length - 1 : length;
    if (shown > 0) {
        openlog(log->ident, LOG_PID, LOG_USER);
        syslog(log->priority, "%.*s", static_cast<int>(shown), text);
    }
    return 1;
}

// The C library keeps the pointer to the name until then.
void close_system_log(void *user) {
    closelog();
    free(user);
}

SystemLog *create_log(const char *ident, int priority) {
    const size_t size = strlen(ident) + 1;
    auto *log = static_cast<SystemLog *>(malloc(sizeof(SystemLog) + size));
    if (log != nullptr) {
        *log = {.priority = priority, .ident = reinterpret_cast<char *>(log + 1)};
        memcpy(log->ident, ident, size);
    }
    return log;
}

} // namespace

FILE *msg_open_syslog(const char *ident, int priority) {
    if (ident == nullptr || (priority & ~(LOG_PRIMASK | LOG_FACMASK)) != 0) {
        errno = EINVAL;
        return nullptr;
    }
    SystemLog *log = create_log(ident, priority);
    if (log == nullptr) {
        return nullptr;
    }
    FILE *stream = zel::msg::open_line_stream(write_entry, log, close_system_log);
    if (stream == nullptr) {
        const zel::ErrnoKept kept;
        free(log);
    }
    return stream;
}
