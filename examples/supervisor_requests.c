// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The requests of the supervisor. They are read without a stream of the C library: poll
// does not see the lines that such a stream has read ahead.
#include "supervisor_requests.h"

#include <msg/msg.h>

#include <errno.h>
#include <string.h>
#include <unistd.h>

static const char *newline_of(const Requests *requests) {
    return memchr(requests->buffer + requests->begin, '\n', requests->end - requests->begin);
}

int requests_want_input(const Requests *requests) {
    return !requests->ended && newline_of(requests) == NULL;
}

int requests_ended(const Requests *requests) {
    return requests->ended && requests->begin == requests->end;
}

static int is_too_long(Requests *requests, size_t length) {
    if (length <= REQUEST_MOST) {
        return 0;
    }
    msg_error("A request is longer than %d bytes.", REQUEST_MOST);
    requests->failed = 1;
    return 1;
}

void requests_read(Requests *requests) {
    memmove(requests->buffer, requests->buffer + requests->begin, requests->end - requests->begin);
    requests->end -= requests->begin;
    requests->begin = 0;
    if (is_too_long(requests, requests->end)) { // all of it is one line: a whole one would have been taken
        return;
    }
    ssize_t count = read(requests->fd, requests->buffer + requests->end, sizeof requests->buffer - requests->end);
    if (count >= 0) {
        requests->ended = count == 0;
        requests->end += (size_t) count;
    } else if (errno != EINTR && errno != EAGAIN) {
        msg_error("Cannot read the requests: %s", strerror(errno));
        requests->failed = 1;
    }
}

int requests_take(Requests *requests, const char **line, size_t *length) {
    const char *newline = newline_of(requests);
    if (requests->failed || (newline == NULL && (!requests->ended || requests->begin == requests->end))) {
        return 0;
    }
    *line = requests->buffer + requests->begin;
    *length = newline != NULL ? (size_t) (newline - *line) : requests->end - requests->begin;
    requests->begin += *length + (newline != NULL);
    return !is_too_long(requests, *length);
}
