// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A companion for the supervisor: it answers each request with the sum of the numbers in
// it.
//
//   supervisor supervisor_worker <requests
#include <components/platform/debug_hooks.h>
#include <components/platform/message_lines.h>
#include <components/platform/pair_control.h>
#include <msg/msg.h>

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { REQUEST_ROOM = 65536, TEXT_ROOM = 32 };

// The sum is kept without a sign, so that it wraps round where it would overflow.
static long long sum_of(const char *text) {
    unsigned long long sum = 0;
    char *end;
    for (long long number = strtoll(text, &end, 10); end != text; number = strtoll(text, &end, 10)) {
        sum += (unsigned long long) number;
        text = end;
    }
    return (long long) sum;
}

// The first line is the number of the request, the second its text.
static int on_request(int socket, const PlatformMessage *message, void *user) {
    (void) user;
    char text[TEXT_ROOM];
    int length = snprintf(text, sizeof text, "%lld", message->count == 2 ? sum_of(message->lines[1].text) : 0);
    const PlatformLine answer[2] = {message->lines[0], {text, (size_t) length}};
    return platform_send_message_lines(socket, answer, 2);
}

int main(int argc, char **argv) {
    platform_debug_hooks(&argc, argv);
    PairHandle *pair = platform_pair_child_open("SUPERVISOR_PAIR", 0, 1);
    if (!platform_pair_ok(pair) || pair->error_text != NULL) {
        msg_fatal("This program is started by a supervisor.");
    }
    platform_pair_follow_parent(pair, SIGKILL);
    platform_pair_child_seal(pair, "SUPERVISOR_PAIR");
    MsgBuf *buffer = platform_msgbuf_create(REQUEST_ROOM);
    platform_msgbuf_set(buffer);
    while (platform_message_wait(platform_pair_rx_fd(pair), on_request, NULL, -1) == PLATFORM_MESSAGE_HANDLED) {
    }
    platform_msgbuf_set(NULL);
    platform_msgbuf_free(buffer);
    platform_pair_close(pair);
    return 0;
}
