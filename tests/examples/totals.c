// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The companion of the example of text and values in pair_control.h: the values follow their message at once.
#include <components/platform/pair_control.h>
#include <components/platform/socket.h>

#include <stdlib.h>
#include <string.h>

static PairHandle *values_pair;

static int on_values(int socket, char *first_line, char **lines) {
    int32_t left = strcmp(first_line, "values") == 0 && lines[0] != NULL ? atoi(lines[0]) : 0;
    int32_t total = 0;
    for (int32_t value; left > 0; --left) { // the values came right behind the message
        if (platform_pair_recv_all(values_pair, &value, sizeof value, 5000, NULL) != PLATFORM_PAIR_DONE) {
            return 0;
        }
        total += value;
    }
    return platform_send_all(socket, &total, sizeof total) != -1;
}

int main(void) {
    values_pair = platform_pair_child_open("TOTALS_PAIR", 0, 1);
    platform_msgbuf_set(platform_msgbuf_create(65536));
    platform_message_loop(platform_pair_rx_fd(values_pair), on_values, NULL, 0);
    MsgBuf *buffer = gMsgBuf;
    platform_msgbuf_set(NULL);
    platform_msgbuf_free(buffer);
    platform_pair_close(values_pair);
    return 0;
}
