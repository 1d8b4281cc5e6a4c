// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The companion of the pair's example of text and values: it adds the values of each request.
#include <components/platform/socket.h>
#include <components/platform/zel_pair_connection.h>

#include <stdlib.h>
#include <string.h>

static int receive_all(PairHandle *pair, void *buffer, int32_t length) {
    for (int32_t done = 0; done < length;) {
        int32_t count = platform_pair_recv(pair, (char *) buffer + done, length - done);
        if (count == 0) { // the end of the stream, or an error
            return 0;
        }
        done += count;
    }
    return 1;
}

static PairHandle *pair;

static int on_message(int socket, char *first_line, char **lines) {
    int32_t ready = 1;
    int32_t total = 0;
    if (strcmp(first_line, "sum") != 0 || lines[0] == NULL) {
        return 0;
    }
    platform_send_all(socket, &ready, sizeof ready); // from here on the parent sends values
    for (long left = strtol(lines[0], NULL, 10); left > 0; --left) {
        int32_t value;
        if (!receive_all(pair, &value, sizeof value)) {
            return 0;
        }
        total += value;
    }
    return platform_send_all(socket, &total, sizeof total) != -1;
}

int main(void) {
    pair = platform_pair_child_open("SUM_PAIR", 0, 1);
    platform_msgbuf_set(platform_msgbuf_create(65536));
    platform_message_loop(platform_pair_rx_fd(pair), on_message, NULL, 0);
    MsgBuf *buffer = gMsgBuf;
    platform_msgbuf_set(NULL);
    platform_msgbuf_free(buffer);
    platform_pair_close(pair);
    return 0;
}
