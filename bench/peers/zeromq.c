/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * ZeroMQ: values and messages from process to process; each line is a part of a message. */
#include "peers/exchange.h"
#include "peers/peer.h"
#include "sample.h"

#include <zmq.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

enum { ADDRESS = 256 };

static void *socket_of(int kind) {
    void *context = zmq_ctx_new();
    void *socket = zmq_socket(context, kind);
    peer_require(socket != NULL, "zmq_socket");
    return socket;
}

/* Receives a message of parts and keeps the last. Returns its length. */
static int last_part(void *socket, char *area) {
    int more = 1;
    int length = 0;
    size_t size = sizeof more;
    while (more) {
        length = zmq_recv(socket, area, EXCHANGE_AREA, 0);
        peer_require(length >= 0, "zmq_recv");
        zmq_getsockopt(socket, ZMQ_RCVMORE, &more, &size);
    }
    return length;
}

/* What the other process binds its socket to. */
static char wanted[ADDRESS];

/* Tells the bound address, then answers with the last part. An empty one ends it. */
static void serve(int fd) {
    char area[EXCHANGE_AREA];
    char address[ADDRESS] = "";
    size_t size = sizeof address;
    void *socket = socket_of(ZMQ_REP);
    peer_require(zmq_bind(socket, wanted) == 0, wanted);
    zmq_getsockopt(socket, ZMQ_LAST_ENDPOINT, address, &size);
    peer_require(send(fd, address, sizeof address, 0) == sizeof address, "address");
    int length;
    while ((length = last_part(socket, area)) > 0) {
        zmq_send(socket, area, (size_t) length, 0);
    }
}

static void send_lines(void *socket, int lines) {
    char text[64];
    for (int line = 0; line < lines; ++line) {
        exchange_line(text, sizeof text, line);
        zmq_send(socket, text, strlen(text), line + 1 < lines ? ZMQ_SNDMORE : 0);
    }
}

static void send_value(void *socket, int unused) {
    (void) unused;
    zmq_send(socket, "\1\2\3\4", 4, 0);
}

static void exchange(long iterations, void (*send_request)(void *socket, int lines), int lines) {
    char area[EXCHANGE_AREA];
    char address[ADDRESS];
    int ends[2];
    exchange_connect(0, ends);
    const pid_t pid = exchange_serve(ends, serve);
    peer_require(recv(ends[0], address, sizeof address, MSG_WAITALL) == sizeof address, "address");
    void *socket = socket_of(ZMQ_REQ);
    peer_require(zmq_connect(socket, address) == 0, address);
    sample_begin();
    for (long i = 0; i < iterations; ++i) {
        send_request(socket, lines);
        peer_require(last_part(socket, area) > 0, "answer");
    }
    sample_end(iterations);
    zmq_send(socket, "", 0, 0);
    exchange_end(ends[0], pid);
}

/* A name that no file system knows, of this process alone. */
static void want_local_socket(void) {
    snprintf(wanted, sizeof wanted, "ipc://@zel-bench-%ld", (long) getpid());
}

static void value(long iterations, char **arguments) {
    (void) arguments;
    want_local_socket();
    exchange(iterations, send_value, 1);
}

static void message_pair(long iterations, char **arguments) {
    want_local_socket();
    exchange(iterations, send_lines, atoi(arguments[0]));
}

static void message_tcp(long iterations, char **arguments) {
    snprintf(wanted, sizeof wanted, "tcp://127.0.0.1:*");
    exchange(iterations, send_lines, atoi(arguments[0]));
}

const struct peer_work peer_works[] = {
    {"value", value}, {"message-pair", message_pair}, {"message-tcp", message_tcp}, {NULL, NULL}};
