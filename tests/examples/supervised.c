// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A companion for the supervisor that does what its request says. "FAULT FILE" fails while
// FILE is there, and removes it first: the successor answers. Every request takes about a
// millisecond, so that there is a time in which a companion can be killed.
#include <components/platform/message_lines.h>
#include <components/platform/pair_control.h>

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

enum { FAULT_SIZE = 32, FILE_SIZE = 1024, LONG_ANSWER = 100000 };

static int answer(int socket, PlatformLine number, const char *text) {
    const PlatformLine lines[2] = {number, {text, strlen(text)}};
    return platform_send_message_lines(socket, lines, 2);
}

static void linger(void) {
    for (;;) {
        pause();
    }
}

static void answer_too_long(int socket, PlatformLine number) {
    static char text[LONG_ANSWER];
    memset(text, 'x', sizeof text - 1);
    answer(socket, number, text);
}

static void fail(int socket, PlatformLine number, const char *fault) {
    if (strcmp(fault, "exit") == 0) {
        exit(3);
    }
    if (strcmp(fault, "half") == 0) {
        send(socket, number.text, number.length, MSG_NOSIGNAL);
        exit(0);
    }
    if (strcmp(fault, "wrong") == 0) {
        answer(socket, (PlatformLine){"0", 1}, "wrong");
    }
    if (strcmp(fault, "twice") == 0) {
        answer(socket, number, "done");
        answer(socket, number, "done");
        linger();
    }
    if (strcmp(fault, "unasked") == 0) {
        answer(socket, number, "done");
        answer(socket, (PlatformLine){"0", 1}, "unasked");
        linger();
    }
    if (strcmp(fault, "long") == 0) {
        answer_too_long(socket, number);
    }
    if (strcmp(fault, "stop") == 0) {
        raise(SIGSTOP);
    }
    if (strcmp(fault, "stubborn") == 0) {
        signal(SIGTERM, SIG_IGN);
        linger();
    }
    raise(SIGKILL);
}

static void work(void) {
    nanosleep(&(struct timespec){.tv_nsec = 1000000}, NULL);
}

static int on_request(int socket, const PlatformMessage *message, void *user) {
    (void) user;
    char fault[FAULT_SIZE];
    char file[FILE_SIZE];
    if (message->count == 2 && sscanf(message->lines[1].text, "%31s %1023s", fault, file) == 2 && unlink(file) == 0) {
        fail(socket, message->lines[0], fault);
    }
    work();
    return answer(socket, message->lines[0], "done");
}

int main(void) {
    PairHandle *pair = platform_pair_child_open("SUPERVISOR_PAIR", 0, 1);
    platform_pair_follow_parent(pair, SIGKILL);
    MsgBuf *buffer = platform_msgbuf_create(65536);
    platform_msgbuf_set(buffer);
    while (platform_message_wait(platform_pair_rx_fd(pair), on_request, NULL, -1) == PLATFORM_MESSAGE_HANDLED) {
    }
    return 0;
}
