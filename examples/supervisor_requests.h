// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The requests of the supervisor: the lines of a descriptor.
#ifndef ZEL_EXAMPLES_SUPERVISOR_REQUESTS_H
#define ZEL_EXAMPLES_SUPERVISOR_REQUESTS_H

#include <stddef.h>

// The most bytes of a request. A companion that does not read takes so many into the
// buffer of its socket, so that a send of one request never waits.
enum { REQUEST_MOST = 16384 };

typedef struct Requests {
    int fd;
    int ended;         // the descriptor gives nothing more
    int failed;        // reading failed, or a line was too long; an error has said so
    size_t begin, end; // the part of the buffer that is not taken yet
    char buffer[2 * REQUEST_MOST];
} Requests;

// Whether a read is of use: no whole line is there, and the input has not ended.
int requests_want_input(const Requests *requests);

// Reads once.
void requests_read(Requests *requests);

// Takes the next line, without its newline. Returns 0 when none is there now.
// - line: valid until the next read.
int requests_take(Requests *requests, const char **line, size_t *length);

// Whether every line has been taken.
int requests_ended(const Requests *requests);

#endif
