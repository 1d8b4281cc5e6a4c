/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * What the peers' programs exchange messages with: a connection between two processes, and the messages. */
#ifndef ZEL_BENCH_PEERS_EXCHANGE_H
#define ZEL_BENCH_PEERS_EXCHANGE_H

#include <stddef.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { EXCHANGE_AREA = 16384 };

/* Connects the ends by a socket pair, or by TCP on this machine without delay. */
void exchange_connect(int tcp, int *ends);

/* Makes another process that calls serve with the second end and leaves. The first end is the caller's. */
pid_t exchange_serve(const int *ends, void (*serve)(int fd));

/* Closes the first end and waits for the other process. */
void exchange_end(int fd, pid_t pid);

/* One of the lines that the library's own row sends. */
void exchange_line(char *text, size_t size, int number);

/* A message of so many of them, framed by CR LF. Returns its length. */
size_t exchange_message(char *area, int lines);

#ifdef __cplusplus
}
#endif

#endif
