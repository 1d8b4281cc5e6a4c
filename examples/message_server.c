// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A small server of framed messages over TCP on localhost: one client at a time, until
// one of them says "stop".
//
//   message_server [MILLISECONDS]      drops a client that sends no message, or does not read, for so long (30000)
//
//   request          answer                what it does
//   sum N...         sum, TOTAL            adds the numbers, one a line after the first
//   served           served, COUNT         how many messages came before this one, from all clients
//   bye              none                  ends the connection
//   stop             none                  ends the connection and the server
//   anything else    unknown, REQUEST      an empty request is answered by "unknown" alone
//
// Each word stands on a line of its own: "sum" CR LF "2" CR LF "3" CR LF CR LF is
// answered by "sum" CR LF "5" CR LF CR LF. A client can end the server: a request that
// fills the buffer of 65536 bytes is an assertion.
//
// Exit status: 0 after "stop", 1 when the server could not be opened or can accept nobody
// any more.
#include <components/platform/debug_hooks.h>
#include <components/platform/socket.h>
#include <msg/msg.h>

#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>

enum { FIRST_PORT = 20300, END_PORT = 21300, MESSAGE_ROOM = 65536, TEXT_ROOM = 32 };

// The handler and the idle function get no argument of ours, so they share a process-wide
// record.
static struct {
    int client;             // the socket that is served
    long long quiet_limit;  // milliseconds without a message, or with an answer unread: then the client is dropped
    long long last_message; // when the last one came, or the client
    int served;             // messages so far
    int stop;               // a client has said "stop"
} server;

// Milliseconds of the monotonic clock.
static long long now(void) {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1000LL + time.tv_nsec / 1000000;
}

// An empty value is left out. An empty line would end the message, and the end of the
// message would begin another.
static int answer(int socket, const char *what, const char *value) {
    return platform_send_message(socket, what, *value == '\0' ? NULL : value, (char *) NULL);
}

static int answer_number(int socket, const char *what, long long number) {
    char text[TEXT_ROOM];
    snprintf(text, sizeof text, "%lld", number);
    return answer(socket, what, text);
}

// The total is kept without a sign, so that it wraps round where it would overflow.
static int answer_sum(int socket, char **lines) {
    unsigned long long total = 0;
    for (char **line = lines; *line != NULL; ++line) {
        total += (unsigned long long) strtoll(*line, NULL, 10);
    }
    return answer_number(socket, "sum", (long long) total);
}

// Gets each message. The lines are valid during the call. The result 0 ends the loop and
// the connection. An answer that cannot be sent is 0 too.
static int on_message(int socket, char *first_line, char **lines) {
    server.last_message = now();
    int before = server.served++;
    if (strcmp(first_line, "sum") == 0) {
        return answer_sum(socket, lines);
    }
    if (strcmp(first_line, "served") == 0) {
        return answer_number(socket, "served", before);
    }
    server.stop = strcmp(first_line, "stop") == 0;
    if (server.stop || strcmp(first_line, "bye") == 0) {
        return 0;
    }
    return answer(socket, "unknown", first_line); // holds no CR LF: it was a line of a message
}

// Called about ten times a second while the client is quiet, and after each piece of a
// message. So it looks at the time and does not count its calls. Its result does not end
// the loop. A socket that is shut down is the end of the stream, and that ends the loop.
static int on_idle(void) {
    if (now() - server.last_message > server.quiet_limit) {
        shutdown(server.client, SHUT_RDWR);
    }
    return 0;
}

// Limits the sends: the idle function is not called in a send that waits for a client
// that does not read.
static void limit_sends(int client) {
    struct timeval limit = {.tv_sec = server.quiet_limit / 1000, .tv_usec = server.quiet_limit % 1000 * 1000};
    setsockopt(client, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

static void serve(int client) {
    server.client = client;
    server.last_message = now();
    limit_sends(client);
    platform_msgbuf_reset(gMsgBuf); // what the client before left half said
    platform_message_loop(client, on_message, on_idle, 0);
    platform_socket_close(client);
    msg_print("A client has gone.");
}

int main(int argc, char **argv) {
    platform_debug_hooks(&argc, argv);
    int port;
    int listening = platform_server_socket_open(FIRST_PORT, END_PORT, &port);
    if (listening == -1) {
        msg_fatal("No port from %d to %d can be opened.", FIRST_PORT, END_PORT - 1);
    }
    server.quiet_limit = argc > 1 ? atoll(argv[1]) : 30000;
    MsgBuf *buffer = platform_msgbuf_create(MESSAGE_ROOM);
    platform_msgbuf_set(buffer);
    msg_print("Listening on localhost, port %d.", port);
    while (!server.stop) {
        int client = platform_accept_retry(listening, NULL, NULL); // keeps the listening socket open
        if (client == PLATFORM_SOCKET_FAILED) {
            msg_fatal_syserr("Cannot accept.");
        }
        serve(client);
    }
    platform_socket_close(listening);
    platform_msgbuf_set(NULL);
    platform_msgbuf_free(buffer);
    return 0;
}
