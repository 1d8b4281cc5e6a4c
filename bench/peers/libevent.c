/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * libevent: messages of lines through buffered events. */
#include "peers/exchange.h"
#include "peers/peer.h"
#include "sample.h"

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>

#include <stdlib.h>
#include <string.h>

struct client {
    struct event_base *base;
    long left;
    size_t length;
    char message[EXCHANGE_AREA];
};

static struct bufferevent *open_end(struct event_base *base, int fd, bufferevent_data_cb on_data,
                                    bufferevent_event_cb on_end, void *context) {
    evutil_make_socket_nonblocking(fd);
    struct bufferevent *end = bufferevent_socket_new(base, fd, 0);
    bufferevent_setcb(end, on_data, NULL, on_end, context);
    bufferevent_enable(end, EV_READ | EV_WRITE);
    return end;
}

static void stop(struct bufferevent *end, short what, void *base) {
    (void) end;
    (void) what;
    event_base_loopbreak(base);
}

/* Takes a whole message out of the input and returns its last line, which the caller frees; null when it is not there.
 */
static char *last_line(struct evbuffer *input) {
    if (evbuffer_search(input, "\r\n\r\n", 4, NULL).pos == -1) {
        return NULL;
    }
    char *last = evbuffer_readln(input, NULL, EVBUFFER_EOL_CRLF_STRICT);
    char *line;
    while ((line = evbuffer_readln(input, NULL, EVBUFFER_EOL_CRLF_STRICT)) != NULL && *line != '\0') {
        free(last);
        last = line;
    }
    free(line);
    return last;
}

static void answer(struct bufferevent *end, void *base) {
    (void) base;
    char *line;
    while ((line = last_line(bufferevent_get_input(end))) != NULL) {
        evbuffer_add_printf(bufferevent_get_output(end), "%s\r\n\r\n", line);
        free(line);
    }
}

static void serve(int fd) {
    struct event_base *base = event_base_new();
    struct bufferevent *end = open_end(base, fd, answer, stop, base);
    event_base_dispatch(base);
    bufferevent_free(end);
    event_base_free(base);
}

static void send_next(struct bufferevent *end, void *context) {
    struct client *client = context;
    char *line = last_line(bufferevent_get_input(end));
    if (line == NULL) {
        return;
    }
    free(line);
    if (--client->left == 0) {
        event_base_loopbreak(client->base);
        return;
    }
    bufferevent_write(end, client->message, client->length);
}

static void stop_client(struct bufferevent *end, short what, void *context) {
    const struct client *client = context;
    stop(end, what, client->base);
}

static void exchange(long iterations, int lines, int tcp) {
    struct client client = {.left = iterations};
    int ends[2];
    exchange_connect(tcp, ends);
    const pid_t pid = exchange_serve(ends, serve);
    client.base = event_base_new();
    client.length = exchange_message(client.message, lines);
    struct bufferevent *end = open_end(client.base, ends[0], send_next, stop_client, &client);
    sample_begin();
    bufferevent_write(end, client.message, client.length);
    event_base_dispatch(client.base);
    sample_end(iterations);
    peer_require(client.left == 0, "the other end is gone");
    bufferevent_free(end);
    event_base_free(client.base);
    exchange_end(ends[0], pid);
}

static void message_pair(long iterations, char **arguments) {
    exchange(iterations, atoi(arguments[0]), 0);
}

static void message_tcp(long iterations, char **arguments) {
    exchange(iterations, atoi(arguments[0]), 1);
}

const struct peer_work peer_works[] = {{"message-pair", message_pair}, {"message-tcp", message_tcp}, {NULL, NULL}};
