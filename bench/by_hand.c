/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * Messages framed, received and parsed by hand. */
#include "by_hand.h"

#include <poll.h>
#include <stdlib.h>
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

int by_hand_send_large(int fd, const char *line, size_t count) {
    const size_t length = strlen(line);
    char *area = malloc(count * (length + 2) + 2);
    if (area == NULL) {
        return 0;
    }
    char *end = area;
    for (size_t sent = 0; sent < count; ++sent) {
        end = mempcpy(end, line, length);
        end = mempcpy(end, "\r\n", 2);
    }
    end = mempcpy(end, "\r\n", 2);
    const int result = by_hand_send_all(fd, area, (size_t) (end - area));
    free(area);
    return result;
}

int by_hand_open(ByHandEnd *end, int fd, int waits, size_t size, size_t lines) {
    end->fd = fd;
    end->waits = waits;
    end->used = 0;
    end->size = size;
    end->area = malloc(size);
    end->lines = malloc((lines + 1) * sizeof *end->lines);
    return end->area != NULL && end->lines != NULL;
}

void by_hand_close(ByHandEnd *end) {
    free(end->area);
    free(end->lines);
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

/* A set has no place for a descriptor of 1024 or more. */
static void wait_readable(int fd) {
    if (fd >= FD_SETSIZE) {
        struct pollfd readable = {.fd = fd, .events = POLLIN, .revents = 0};
        poll(&readable, 1, 100);
        return;
    }
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    struct timeval time_out = {0, 100000};
    select(fd + 1, &set, NULL, NULL, &time_out);
}

/* Whether the message that is being received is there completely. */
static int is_complete(const ByHandEnd *end) {
    return end->used >= 4 && memcmp(end->area + end->used - 4, "\r\n\r\n", 4) == 0;
}

int by_hand_receive(ByHandEnd *end, int (*use)(int fd, char **lines)) {
    while (!is_complete(end)) {
        if (end->waits) {
            wait_readable(end->fd);
        }
        const ssize_t count = recv(end->fd, end->area + end->used, end->size - end->used, 0);
        if (count < 1) {
            return 0;
        }
        end->used += (size_t) count;
    }
    const size_t length = by_hand_parse(end->area, end->used, end->lines);
    const int result = length > 0 ? use(end->fd, end->lines) : 0;
    end->used = 0;
    return result;
}
