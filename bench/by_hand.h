/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * Messages as one would frame, receive and parse them by hand: the floor that the library's messages are held against.
 *
 * The framing is that of the library: lines ended by CR LF, an empty line behind them. What is left out is all that a
 * program of one purpose does not need: long lines, interruptions, limits of the line table, an idle function.
 */
#ifndef ZEL_BENCH_BY_HAND_H
#define ZEL_BENCH_BY_HAND_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { BY_HAND_AREA = 65536, BY_HAND_LINES = 1024 };

/* One end of a connection, with what was received and not yet consumed. */
typedef struct ByHandEnd {
    int fd;
    int waits; /* not 0: select before each recv, as the library does to run an idle function */
    size_t used;
    size_t size; /* of the area */
    char *area;
    char **lines; /* of the last message, a null pointer behind the last line */
} ByHandEnd;

/* Allocates what takes a message of so many bytes and lines. Returns 1, or 0 without memory. */
int by_hand_open(ByHandEnd *end, int fd, int waits, size_t size, size_t lines);

/* Releases it. The descriptor stays open. */
void by_hand_close(ByHandEnd *end);

/* Sends all of it. Returns 1, or 0 at the first send that fails. */
int by_hand_send_all(int fd, const char *data, size_t length);

/* Frames the lines in one buffer, whose size must do, and sends it. Returns 1 or 0. */
int by_hand_send(int fd, const char *const *lines, size_t count);

/* The same for one line or for so many equal ones, of any size, in a buffer that fits them. */
int by_hand_send_large(int fd, const char *line, size_t count);

/* Parses the first message in the data. Returns its length, 0 when it is not complete. */
size_t by_hand_parse(char *data, size_t length, char **lines);

/* Receives one message into end->lines and calls use with them; then drops it. The peer waits for its answer, so that
 * nothing stands behind a message. Returns what use returned, 0 at the end
 * of the stream. */
int by_hand_receive(ByHandEnd *end, int (*use)(int fd, char **lines));

#ifdef __cplusplus
}
#endif

#endif
