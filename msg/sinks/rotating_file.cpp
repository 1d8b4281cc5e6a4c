// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The stream to a log of limited size.
#include <msg/internal/rotating.h>
#include <msg/sinks.h>

#include <msg/base/errno_kept.h>
#include <msg/base/limits.h>
#include <msg/base/text.h>
#include <msg/base/write_all.h>
#include <msg/sinks/rotation.h>

#include <cerrno>
#include <cstdlib>
#include <sys/stat.h>

namespace zel::msg {

namespace {

struct RotatingFile {
    RotatingFile *next; // opened before
    FILE *stream;
    Log log;
    int64_t most_bytes;
    bool line_open;  // what was written last does not end in a newline
    bool broken_off; // the last write failed
    std::array<char, kLogBufferSize> buffer;
};

struct State {
    RotatingFile *latest; // or null
};

constinit State state = {};

int64_t size_of(const RotatingFile &file) {
    struct stat status;
    return fstat(file.log.fd, &status) == 0 ? status.st_size : 0;
}

size_t line_length(std::string_view text) {
    const size_t newline = text.find('\n');
    return newline == std::string_view::npos ? text.size() : newline + 1;
}

// Returns how much of the text goes into the file: whole lines that fit. A line that was
// begun is ended, and an empty file takes a line of any length.
size_t fitting_part(const RotatingFile &file, std::string_view text) {
    const int64_t size = size_of(file);
    const auto room = static_cast<uint64_t>(size < file.most_bytes ? file.most_bytes - size : 0);
    if (text.size() <= room) {
        return text.size();
    }
    const size_t newline = first_part(text, static_cast<size_t>(room)).rfind('\n');
    if (newline != std::string_view::npos) {
        return newline + 1;
    }
    return file.line_open || size == 0 ? line_length(text) : 0;
}

// The file that another process put under the name may be full as well.
size_t part_for_file(RotatingFile &file, std::string_view text) {
    size_t length = fitting_part(file, text);
    for (int files = 0; length == 0 && files < 2 && rotate(file.log, size_of(file)); ++files) {
        length = fitting_part(file, text);
    }
    return length == 0 ? line_length(text) : length;
}

bool write_part(RotatingFile &file, std::string_view part) {
    const size_t written = write_all(file.log.fd, part);
    if (written > 0) {
        file.line_open = part[written - 1] != '\n';
    }
    file.broken_off = written < part.size();
    return !file.broken_off;
}

// What follows a line that was broken off is another line.
bool end_broken_line(RotatingFile &file) {
    return !file.broken_off || !file.line_open || write_part(file, "\n");
}

bool write_lines(RotatingFile &file, std::string_view text) {
    if (!end_broken_line(file)) {
        return false;
    }
    while (!text.empty()) {
        const size_t length = part_for_file(file, text);
        if (!write_part(file, first_part(text, length))) {
            return false;
        }
        text.remove_prefix(length);
    }
    return true;
}

// A text that was written leaves errno as it was, whatever the rotation found.
ssize_t write_text(void *cookie, const char *text, size_t size) {
    const int error = errno;
    if (!write_lines(*static_cast<RotatingFile *>(cookie), {text, size})) {
        return 0;
    }
    errno = error;
    return static_cast<ssize_t>(size);
}

void forget(const RotatingFile *file) {
    RotatingFile **place = &state.latest;
    while (*place != nullptr && *place != file) {
        place = &(*place)->next;
    }
    if (*place != nullptr) {
        *place = file->next;
    }
}

// The C library is done with the buffer by now.
int close_file(void *cookie) {
    auto *file = static_cast<RotatingFile *>(cookie);
    forget(file);
    const int result = close_log(file->log);
    const ErrnoKept kept;
    free(file);
    return result;
}

FILE *open_stream(RotatingFile *file) {
    const cookie_io_functions_t calls = {.read = nullptr, .write = write_text, .seek = nullptr, .close = close_file};
    FILE *stream = fopencookie(file, "w", calls);
    if (stream != nullptr) {
        setvbuf(stream, file->buffer.data(), _IOLBF, file->buffer.size());
        file->stream = stream;
        file->next = state.latest;
        state.latest = file;
    }
    return stream;
}

FILE *open_file(RotatingFile *file, const char *path, int32_t older_files) {
    if (!open_log(file->log, path, older_files)) {
        return nullptr;
    }
    FILE *stream = open_stream(file);
    if (stream == nullptr) {
        const ErrnoKept kept;
        close_log(file->log);
    }
    return stream;
}

} // namespace

int rotating_descriptor(const FILE *stream) {
    const RotatingFile *file = state.latest;
    while (file != nullptr && file->stream != stream) {
        file = file->next;
    }
    return file == nullptr ? -1 : file->log.fd;
}

} // namespace zel::msg

using namespace zel::msg;

FILE *msg_open_rotating_file(const char *path, int64_t most_bytes, int32_t older_files) {
    if (path == nullptr || most_bytes < 1 || older_files < 0) {
        errno = EINVAL;
        return nullptr;
    }
    auto *file = static_cast<RotatingFile *>(malloc(sizeof(RotatingFile)));
    if (file == nullptr) {
        return nullptr;
    }
    file->most_bytes = most_bytes;
    file->line_open = false;
    file->broken_off = false;
    FILE *stream = open_file(file, path, older_files);
    if (stream == nullptr) {
        const zel::ErrnoKept kept;
        free(file);
    }
    return stream;
}
