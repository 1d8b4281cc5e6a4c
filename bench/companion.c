/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * The other end of the measurements: one service, done by the library or by hand.
 *
 *   zel_bench_companion exit
 *   zel_bench_companion SERVICE pair              through the library, over its process pair
 *   zel_bench_companion SERVICE fd NUMBER         over a descriptor that was inherited
 *   zel_bench_companion SERVICE connect PORT      over TCP, connected by the library
 *   zel_bench_companion SERVICE bare-connect PORT over TCP, connected by hand
 *
 * Exit codes: 0 when the parent ended the stream, 2 for wrong arguments, 3 when there is no connection.
 */
#include "by_hand.h"

#include <components/platform/socket.h>
#include <components/platform/zel_pair_connection.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

enum { WRONG_ARGUMENTS = 2, NOT_CONNECTED = 3, BUFFER = 65536, MESSAGE_BUFFER = 65536 };
enum { LARGE = 32 << 20, LARGE_LINES = 65536 };

static const int64_t ONE_WAY = INT64_C(1) << 28;
static PairHandle *pair; /* null when the connection is not the library's pair */
static char buffer[BUFFER];

/* ---- Services ---------------------------------------------------------------------------------------------------- */

static void zel_values(int fd) {
    (void) fd;
    int32_t value;
    while (platform_pair_recv(pair, &value, sizeof value) == sizeof value) {
        platform_pair_send(pair, &value, sizeof value);
    }
}

static void bare_values(int fd) {
    int32_t value;
    while (recv(fd, &value, sizeof value, 0) == sizeof value) {
        send(fd, &value, sizeof value, 0);
    }
}

/* Sends back what comes, whatever its length is. */
static void bare_echo(int fd) {
    ssize_t count;
    while ((count = recv(fd, buffer, BUFFER, 0)) > 0 && by_hand_send_all(fd, buffer, (size_t) count)) {
    }
}

/* Takes 256 MiB, says so with one byte, and begins again. */
static void zel_sink(int fd) {
    (void) fd;
    int64_t left = ONE_WAY;
    int32_t count;
    while ((count = platform_pair_recv(pair, buffer, BUFFER)) > 0) {
        left -= count;
        if (left == 0) {
            platform_pair_send(pair, buffer, 1);
            left = ONE_WAY;
        }
    }
}

static void bare_sink(int fd) {
    int64_t left = ONE_WAY;
    ssize_t count;
    while ((count = recv(fd, buffer, BUFFER, 0)) > 0) {
        left -= count;
        if (left == 0) {
            send(fd, buffer, 1, 0);
            left = ONE_WAY;
        }
    }
}

static int answer_with_last_line(int fd, char *first, char **further) {
    const char *last = first;
    for (; *further != NULL; ++further) {
        last = *further;
    }
    return platform_send_message(fd, last, (char *) NULL);
}

static void zel_messages(int fd) {
    platform_msgbuf_set(platform_msgbuf_create(MESSAGE_BUFFER));
    platform_message_loop(fd, answer_with_last_line, NULL, 0);
}

static int answer_by_hand(int fd, char **lines) {
    const char *last = lines[0];
    for (; *lines != NULL; ++lines) {
        last = *lines;
    }
    return by_hand_send(fd, &last, 1);
}

static void serve_by_hand(int fd, int waits) {
    ByHandEnd end;
    if (by_hand_open(&end, fd, waits, BY_HAND_AREA, BY_HAND_LINES)) {
        while (by_hand_receive(&end, answer_by_hand)) {
        }
    }
    by_hand_close(&end);
}

static void bare_messages(int fd) {
    serve_by_hand(fd, 0);
}

static void waiting_messages(int fd) {
    serve_by_hand(fd, 1);
}

/* Messages of any size are answered with their number of lines: large ones would fill the connection both ways. */

static int answer_with_count(int fd, size_t count) {
    char text[24];
    snprintf(text, sizeof text, "%zu", count);
    const char *line = text;
    return by_hand_send(fd, &line, 1);
}

static int count_for_library(int fd, char *first, char **further) {
    size_t count = 1;
    (void) first;
    while (further[count - 1] != NULL) {
        ++count;
    }
    return answer_with_count(fd, count);
}

static int count_by_hand(int fd, char **lines) {
    size_t count = 0;
    while (lines[count] != NULL) {
        ++count;
    }
    return answer_with_count(fd, count);
}

static void zel_large(int fd) {
    platform_msgbuf_set(platform_msgbuf_create(LARGE));
    platform_message_loop(fd, count_for_library, NULL, 0);
}

static void waiting_large(int fd) {
    ByHandEnd end;
    if (by_hand_open(&end, fd, 1, LARGE, LARGE_LINES)) {
        while (by_hand_receive(&end, count_by_hand)) {
        }
    }
    by_hand_close(&end);
}

static const struct Service {
    const char *name;
    void (*serve)(int fd);
} services[] = {
    {"zel-values", zel_values},       {"bare-values", bare_values},
    {"bare-echo", bare_echo},         {"zel-sink", zel_sink},
    {"bare-sink", bare_sink},         {"zel-messages", zel_messages},
    {"bare-messages", bare_messages}, {"waiting-messages", waiting_messages},
    {"zel-large", zel_large},         {"waiting-large", waiting_large},
};

/* ---- Ways to the parent ------------------------------------------------------------------------------------------ */

static int open_pair(const char *unused) {
    (void) unused;
    pair = platform_pair_child_open("ZEL_BENCH_PAIR", 0, 1);
    return platform_pair_rx_fd(pair);
}

static int inherited(const char *number) {
    return atoi(number);
}

static int connect_library(const char *port) {
    return platform_connect_host("localhost", atoi(port));
}

static int connect_bare(const char *port) {
    const struct sockaddr_in address = {
        .sin_family = AF_INET, .sin_port = htons((uint16_t) atoi(port)), .sin_addr.s_addr = htonl(INADDR_LOOPBACK)};
    const int on = 1;
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (connect(fd, (const struct sockaddr *) &address, sizeof address) != 0) {
        return -1;
    }
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return fd;
}

static const struct Way {
    const char *name;
    int (*open)(const char *number);
} ways[] = {
    {"pair", open_pair},
    {"fd", inherited},
    {"connect", connect_library},
    {"bare-connect", connect_bare},
};

static const struct Service *find_service(const char *name) {
    for (size_t i = 0; i < sizeof services / sizeof *services; ++i) {
        if (strcmp(services[i].name, name) == 0) {
            return &services[i];
        }
    }
    return NULL;
}

static const struct Way *find_way(const char *name) {
    for (size_t i = 0; i < sizeof ways / sizeof *ways; ++i) {
        if (strcmp(ways[i].name, name) == 0) {
            return &ways[i];
        }
    }
    return NULL;
}

int main(int argc, char **argv) {
    if (argc == 2 && strcmp(argv[1], "exit") == 0) {
        return 0;
    }
    const struct Service *service = argc > 2 ? find_service(argv[1]) : NULL;
    const struct Way *way = argc > 2 ? find_way(argv[2]) : NULL;
    if (service == NULL || way == NULL) {
        return WRONG_ARGUMENTS;
    }
    const int fd = way->open(argc > 3 ? argv[3] : "");
    if (fd < 0) {
        return NOT_CONNECTED;
    }
    service->serve(fd);
    return 0;
}
