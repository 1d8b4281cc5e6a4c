// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Helpers of the tests of the message library.
#ifndef ZEL_TESTS_MSG_MSG_SUPPORT_H
#define ZEL_TESTS_MSG_MSG_SUPPORT_H

#include <msg/msg.h>
#include <support/child.h>

#include <cstdio>
#include <functional>
#include <string>

namespace zel::test {

// Runs the body in a child of its own, without the width variable of the tests'
// environment.
Outcome run_messages(const std::function<void()> &body);

// The core writer with arguments in place of their list.
void output(int type, int fmt_type, int primary_only, int continuation, const char *prefix, const char *format, ...)
    __attribute__((format(printf, 6, 7)));

// The formatter with arguments in place of their list.
char *vformat(size_t initial_size, const char *format, ...) __attribute__((format(printf, 2, 3)));

// An unbuffered stream into a file without a name.
FILE *open_scratch_stream();

// The contents of the file of such a stream.
std::string contents(FILE *stream);

// An unbuffered stream of the program. The function takes each piece that is written.
FILE *open_own_stream(const std::function<void(const std::string &piece)> &write);

// Sends the messages of the type to a stream of the program, then to standard output,
// which loses its buffer. The stream carries out the action once, on the first piece.
void on_first_piece(int type, const std::function<void()> &action);

// A stream to a device that is always full. Each write fails where the stream is
// unbuffered, else each flush that has text to write. mode: as for setvbuf.
FILE *open_full_stream(int mode);

// An unbuffered stream to standard output that takes so many writes. Later ones fail with
// the error; 0 leaves errno as it is.
FILE *open_failing_stream(int writes, int error);

} // namespace zel::test

#endif
