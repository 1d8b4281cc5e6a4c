// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The examples of pair_control.h and message_lines.h, on the side of the parent and of the server.
#include "header_examples.h"

#include <components/platform/message_lines.h>
#include <components/platform/pair_control.h>
#include <msg/msg.h>

#include <errno.h>
#include <string.h>
#include <unistd.h>

int32_t example_of_values(const int32_t *values, int32_t count) {
    PairHandle *pair = platform_pair_parent_open_lp("TOTALS_PAIR", 1, 1, "./totals", NULL, "totals", (char *) NULL);
    int32_t total = -1;
    char text[16];
    snprintf(text, sizeof text, "%d", (int) count);
    platform_send_message(platform_pair_tx_fd(pair), "values", text, (char *) NULL);
    platform_pair_exchange(pair, values, count * (int32_t) sizeof *values, &total, sizeof total, 20000);
    example_of_ending(pair, 5);
    return total;
}

static int send_index(int socket, const char *name, const char *text, size_t text_length) {
    PlatformLine lines[] = {{"index", 5}, {name, strlen(name)}, {text, text_length}};
    if (!platform_send_message_lines(socket, lines, 3)) {
        msg_warn("%s: %s", name, strerror(errno)); // EINVAL: CR LF or NUL in a line, or an empty one
        return 0;
    }
    return 1;
}

int example_of_message_lines(int socket, const char *name, const char *text, size_t text_length) {
    return send_index(socket, name, text, text_length);
}

static int on_request(int socket, const PlatformMessage *message, void *user) {
    int *requests = user;
    ++*requests;
    return platform_send_message_lines(socket, message->lines, message->count);
}

static int serve(int client) {
    int requests = 0;
    MsgBuf *buffer = platform_msgbuf_create(65536);
    platform_msgbuf_set(buffer);
    if (platform_peer_user(client) == (int64_t) geteuid()) { // nobody else is served
        while (platform_message_wait(client, on_request, &requests, 10000) == PLATFORM_MESSAGE_HANDLED) {
        }
    }
    platform_msgbuf_set(NULL);
    platform_msgbuf_free(buffer);
    platform_socket_close(client);
    return requests;
}

int example_of_message_wait(int client) {
    return serve(client);
}
