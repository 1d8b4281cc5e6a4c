/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * Messages framed, received and parsed by hand. */
#include "by_hand.h"

#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>

int by_hand_send_all(int fd, const char *data, size_t length) {
    while (length > 0) {
        const ssize_t count = send(fd, data, length, MSG_NOSIGNAL);
        if (count < 1) {
            return 0;
        }
        data += count;
        length -= (size_t) count;
    }
    return 1;
}

int by_hand_send(int fd, const char *const *lines, size_t count) {
    char area[BY_HAND_AREA];
    char *end = area;
    for (size_t line = 0; line < count; ++line) {
        end = mempcpy(end, lines[line], strlen(lines[line]));
        end = mempcpy(end, "\r\n", 2);
    }
    end = mempcpy(end, "\r\n", 2);
    return by_hand_send_all(fd, area, (size_t) (end - area));
}

/* The position behind the next CR LF, or null. */
static char *behind_line_end(char *from, const char *end) {
    char *newline = from;
    while ((newline = memchr(newline, '\n', (size_t) (end - newline))) != NULL) {
        ++newline;
        if (newline - from >= 2 && newline[-2] == '\r') {
            return newline;
        }
    }
    return NULL;
}

size_t by_hand_parse(char *data, size_t length, char **lines) {
    const char *end = data + length;
    size_t count = 0;
    char *line = data;
    for (;;) {
        char *next = behind_line_end(line, end);
        if (next == NULL || end - next < 2) {
            return 0;
        }
        lines[count++] = line;
        line = next;
        if (next[0] == '\r' && next[1] == '\n') {
            break;
        }
    }
    for (size_t cut = 1; cut < count; ++cut) {
        lines[cut][-2] = '\0';
    }
    line[-2] = '\0';
    line[0] = '\0';
    lines[count] = NULL;
    return (size_t) (line + 2 - data);
}

static void wait_readable(int fd) {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    struct timeval time_out = {0, 100000};
    select(fd + 1, &set, NULL, NULL, &time_out);
}

int by_hand_receive(ByHandEnd *end, int (*use)(int fd, char **lines)) {
    size_t length;
    while ((length = by_hand_parse(end->area, end->used, end->lines)) == 0) {
        if (end->waits) {
            wait_readable(end->fd);
        }
        const ssize_t count = recv(end->fd, end->area + end->used, BY_HAND_AREA - end->used, 0);
        if (count < 1) {
            return 0;
        }
        end->used += (size_t) count;
    }
    const int result = use(end->fd, end->lines);
    end->used -= length;
    memmove(end->area, end->area + length, end->used);
    return result;
}
