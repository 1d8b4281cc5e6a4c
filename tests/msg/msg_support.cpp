// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Helpers of the tests of the message library.
#include "msg_support.h"

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <list>
#include <unistd.h>

namespace zel::test {

namespace {

using Write = std::function<void(const std::string &piece)>;

ssize_t write_piece(void *cookie, const char *text, size_t size) {
    (*static_cast<Write *>(cookie))(std::string(text, size));
    return static_cast<ssize_t>(size);
}

struct FailingWrites {
    int left; // until they fail
    int error;
};

ssize_t write_or_fail(void *cookie, const char *text, size_t size) {
    auto *writes = static_cast<FailingWrites *>(cookie);
    if (writes->left-- > 0) {
        return write(STDOUT_FILENO, text, size);
    }
    errno = writes->error == 0 ? errno : writes->error;
    return 0;
}

// The actions of own streams. They live as long as the process: exit handlers may write.
Write *keep(const Write &write) {
    static auto *const kept = new std::list<Write>;
    return &kept->emplace_back(write);
}

} // namespace

Outcome run_messages(const std::function<void()> &body) {
    return run_in_child([&body] {
        unsetenv("ZEL_MSGERR_WRAP");
        body();
    });
}

void output(int type, int fmt_type, int primary_only, int continuation, const char *prefix, const char *format, ...) {
    va_list args;
    va_start(args, format);
    _msg_output(type, fmt_type, primary_only, continuation, prefix, format, args);
    va_end(args);
}

char *vformat(size_t initial_size, const char *format, ...) {
    va_list args;
    va_start(args, format);
    char *text = msg_vformat_alloc(format, args, initial_size);
    va_end(args);
    return text;
}

FILE *open_scratch_stream() {
    FILE *stream = tmpfile();
    setvbuf(stream, nullptr, _IONBF, 0);
    return stream;
}

std::string contents(FILE *stream) {
    std::string text;
    std::array<char, 4096> piece;
    off_t position = 0;
    ssize_t count;
    while ((count = pread(fileno(stream), piece.data(), piece.size(), position)) > 0) {
        text.append(piece.data(), static_cast<size_t>(count));
        position += count;
    }
    return text;
}

FILE *open_own_stream(const std::function<void(const std::string &piece)> &write) {
    const cookie_io_functions_t calls = {.read = nullptr, .write = write_piece, .seek = nullptr, .close = nullptr};
    FILE *stream = fopencookie(keep(write), "w", calls);
    setvbuf(stream, nullptr, _IONBF, 0);
    return stream;
}

void on_first_piece(int type, const std::function<void()> &action) {
    msg_clear_streams(type);
    msg_add_stream(type, open_own_stream([action, first = true](const std::string &) mutable {
                       if (first) {
                           first = false;
                           action();
                       }
                   }));
    msg_add_stream(type, stdout);
    setvbuf(stdout, nullptr, _IONBF, 0);
}

FILE *open_full_stream(int mode) {
    FILE *stream = fopen("/dev/full", "w");
    setvbuf(stream, nullptr, mode, 0);
    return stream;
}

FILE *open_failing_stream(int writes, int error) {
    static std::list<FailingWrites> kept;
    const cookie_io_functions_t calls = {.read = nullptr, .write = write_or_fail, .seek = nullptr, .close = nullptr};
    FILE *stream = fopencookie(&kept.emplace_back(FailingWrites{.left = writes, .error = error}), "w", calls);
    setvbuf(stream, nullptr, _IONBF, 0);
    return stream;
}

} // namespace zel::test
