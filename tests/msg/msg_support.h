// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// What the tests of the message library share.
#ifndef ZEL_TESTS_MSG_MSG_SUPPORT_H
#define ZEL_TESTS_MSG_MSG_SUPPORT_H

#include <msg/msg.h>
#include <support/child.h>

#include <cstdio>
#include <functional>
#include <string>

namespace zel::test {

// Runs the body in a child of its own, whatever the width variable is in the environment of the tests.
Outcome run_messages(const std::function<void()> &body);

// The core writer with the arguments themselves in place of their list.
void output(int type, int fmt_type, int primary_only, int continuation, const char *prefix, const char *format, ...)
    __attribute__((format(printf, 6, 7)));

// The formatter with the arguments themselves in place of their list.
char *vformat(size_t initial_size, const char *format, ...) __attribute__((format(printf, 2, 3)));

// A stream into a file without a name, with no buffer: what was written is there at once.
FILE *open_scratch_stream();

// All that stands in the file of such a stream.
std::string contents(FILE *stream);

// An unbuffered stream of the program's own: the function is handed each piece that is written, and nothing else
// becomes of it.
FILE *open_own_stream(const std::function<void(const std::string &piece)> &write);

// From now on messages of the type go to the program's own stream, which does this once, on the first piece, and then
// to standard output, which has no buffer any more.
void on_first_piece(int type, const std::function<void()> &action);

// A stream to a device that is always full. Unbuffered, each write fails; buffered, each flush that has something to
// write. mode: as for setvbuf.
FILE *open_full_stream(int mode);

} // namespace zel::test

#endif
