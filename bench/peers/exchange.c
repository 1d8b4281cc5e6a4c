/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * Connections and messages for the peers' programs. */
#include "peers/exchange.h"

#include "peers/peer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

static void connect_by_tcp(int *ends) {
    struct sockaddr_in address = {.sin_family = AF_INET, .sin_addr.s_addr = htonl(INADDR_LOOPBACK)};
    struct sockaddr *generic = (struct sockaddr *) &address;
    socklen_t size = sizeof address;
    const int on = 1;
    const int listening = socket(AF_INET, SOCK_STREAM, 0);
    peer_require(bind(listening, generic, size) == 0 && listen(listening, 1) == 0, "listen");
    peer_require(getsockname(listening, generic, &size) == 0, "getsockname");
    ends[0] = socket(AF_INET, SOCK_STREAM, 0);
    peer_require(connect(ends[0], generic, size) == 0, "connect");
    ends[1] = accept(listening, NULL, NULL);
    peer_require(ends[1] != -1, "accept");
    close(listening);
    for (int i = 0; i < 2; ++i) {
        setsockopt(ends[i], IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
}

void exchange_connect(int tcp, int *ends) {
    if (tcp) {
        connect_by_tcp(ends);
    } else {
        peer_require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "socketpair");
    }
}

pid_t exchange_serve(const int *ends, void (*serve)(int fd)) {
    const pid_t pid = fork();
    peer_require(pid != -1, "fork");
    if (pid == 0) {
        close(ends[0]);
        serve(ends[1]);
        _exit(0);
    }
    close(ends[1]);
    return pid;
}

void exchange_end(int fd, pid_t pid) {
    close(fd);
    waitpid(pid, NULL, 0);
}

void exchange_line(char *text, size_t size, int number) {
    snprintf(text, size, "line %d: the quick brown fox jumps over it", number);
}

size_t exchange_message(char *area, int lines) {
    size_t used = 0;
    for (int line = 0; line < lines; ++line) {
        exchange_line(area + used, EXCHANGE_AREA - used, line);
        used += strlen(area + used);
        used = (size_t) ((char *) mempcpy(area + used, "\r\n", 2) - area);
    }
    return (size_t) ((char *) mempcpy(area + used, "\r\n", 2) - area);
}
