/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * Sockets, and a loop that carries text messages over any stream socket.
 *
 * A message is one or more lines, each ended by CR LF, and one empty line behind them:
 *
 *   message = first *further end      first = *byte CR LF      further = 1*byte CR LF      end = CR LF
 *
 * "count" CR LF "README.md" CR LF CR LF is a message of the first line "count" and one further line. CR LF at the very
 * start of a message is an empty first line. A further line is never empty: an empty one is the end of the message. The
 * bytes of a line do not hold CR LF; a CR that no LF follows is part of its line. A line that holds NUL ends there for
 * the handler that gets it.
 *
 * Sending checks none of this. A text from a user, a file or a peer is checked before it becomes a line: it must not
 * hold CR LF and, as a further line, must not be empty. What follows would else be taken for the next message.
 *
 *   1. Create a receive buffer and make it current: platform_msgbuf_set(platform_msgbuf_create(65536)). It must be
 *      larger than the largest message and what may have arrived behind it (up to 8192 bytes): a peer that sends more
 *      ends the process by an assertion.
 *   2. Serve: platform_message_loop(fd, handler, NULL, 0), until the handler returns 0 or the peer closes; or take one
 *      message at a time with platform_get_one_message.
 *   3. Answer from inside the handler or outside: platform_send_message(fd, "done", "12", NULL).
 *   4. Between two connections: platform_msgbuf_reset. At the end: platform_msgbuf_set(NULL), platform_msgbuf_free.
 *
 * Example of a handler:
 *
 *   static int on_message(int socket, char *first_line, char **lines) {
 *       if (strcmp(first_line, "quit") == 0) {
 *           return 0;
 *       }
 *       int empty = lines[0] == NULL || *lines[0] == '\0'; // a line that begins with NUL is empty too
 *       return platform_send_message(socket, "you said", empty ? "nothing" : lines[0], (char *) NULL);
 *   }
 *
 * Invariant of the current buffer: pBuf <= p1 <= p2 and p2 - pBuf < len.
 *
 * Every send here uses MSG_NOSIGNAL: a peer that is gone is an error, EPIPE, and never a signal. Every socket made here
 * is close-on-exec; connected and accepted TCP sockets have TCP_NODELAY.
 */
#ifndef ZEL_COMPONENTS_PLATFORM_SOCKET_H
#define ZEL_COMPONENTS_PLATFORM_SOCKET_H

#include <netdb.h>
#include <stdint.h>
#include <sys/socket.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Declared by <netdb.h>, which does not show it to a strictly conforming C program. */
struct addrinfo;

/* Lines in one message, at most; one more is an assertion that aborts. A line table has one entry more. */
#define PLATFORM_MAX_MESSAGE_LINES 32768

/* A receive buffer of fixed capacity. */
typedef struct MsgBuf {
    char *pBuf;  /* the storage, owned by the record */
    int32_t len; /* its capacity in bytes, fixed at creation */
    char *p1;    /* start of the data not yet parsed */
    char *p2;    /* end of the data received */
} MsgBuf;

/* The buffer that the loop operations work on; null until platform_msgbuf_set. */
extern MsgBuf *gMsgBuf;

/* Gets one message: its first line, and its further lines with a null pointer behind the last. The texts are valid
 * during the call only. Not 0: go on; 0: stop the loop. The handler may itself send on the socket, and may itself
 * receive messages, a thousand levels deep on a stack of 8 MiB. Receiving writes over the texts of the message at hand,
 * unless another buffer is current meanwhile. */
typedef int (*PlatformMessageHandler)(int socket, char *first_line, char **lines);

/* Called after every wait for input, about ten times a second while the peer is quiet. Its result is ignored. */
typedef int (*PlatformIdle)(void);

/* ---- The receive buffer ------------------------------------------------------------------------------------------ */

/* A new, empty buffer with size bytes of storage, from malloc. No memory for it ends the process with an error. */
MsgBuf *platform_msgbuf_create(int32_t size);

/* Drops whatever the buffer holds, and returns the buffer. */
MsgBuf *platform_msgbuf_reset(MsgBuf *buffer);

/* Releases storage and record; null is ignored. Set another buffer, or null, before the current one is freed. */
void platform_msgbuf_free(MsgBuf *buffer);

/* Makes the buffer current; null leaves none. The buffer stays the caller's. */
void platform_msgbuf_set(MsgBuf *buffer);

/* ---- The message loop -------------------------------------------------------------------------------------------- */

/* Hands every message that arrives to the handler, until the handler returns 0, the peer closes or receiving fails.
 * drain_first not 0: what is already waiting on the socket is read and dropped first. idle may be null. Without a
 * current buffer a warning says so and nothing is received. Blocks while the peer is quiet. */
void platform_message_loop(int socket, PlatformMessageHandler handler, PlatformIdle idle, int drain_first);

/* Hands the next message to the handler and returns its result; a message already in the buffer needs no receive.
 * Returns 0 when no message is to be had: the peer closed, receiving failed or, with wait 0, nothing complete is there.
 * wait not 0 blocks until a message is complete. idle may be null.
 * More data than the buffer holds, a message of more than PLATFORM_MAX_MESSAGE_LINES lines, or no current buffer: an
 * assertion that aborts. The starts of more than 63 lines are kept in storage from malloc until the message has been
 * handed over; no memory for it ends the process with an error. */
int platform_get_one_message(int socket, PlatformMessageHandler handler, PlatformIdle idle, int wait);

/* Receives once, at most 8192 bytes, and appends them to the current buffer. Returns what recv returned: a count, 0
 * when the peer closed, -1 with errno. Data that would fill the buffer: an assertion that aborts. */
int platform_recv_messages(int socket);

/* Hands every complete message in the current buffer to the handler, whose results are ignored. Returns 0. It ends as
 * platform_get_one_message does on too many lines, no current buffer and no memory. */
int platform_process_messages(int socket, PlatformMessageHandler handler);

/* Parses the first message in length bytes of data. Returns the bytes it occupies and fills the line table: the start
 * of each line, then a null pointer; the CR of every line, the closing one too, becomes NUL. Returns 0, with the data
 * untouched, when no message is complete. line_table: PLATFORM_MAX_MESSAGE_LINES + 1 entries; a message of more lines
 * is an assertion that aborts. */
int platform_parse_message(char *data, int32_t length, char **line_table);

/* Sends one message of the lines given, the last argument a null pointer of type char *. A null first line is sent as
 * an empty one; a null second line ends the message. No line may hold CR LF, and no further line may be empty; this is
 * not checked.
 * Returns 1 when the whole message went out; 0 at the first send that fails (errno says why) or when a line of more
 * than 8189 characters finds no memory. Part of the message may have gone then: the connection is of no more use.
 * Blocks while the peer does not read; in non-blocking mode that is a failure. Signals: as for platform_send_all. */
int platform_send_message(int socket, const char *first, ...) __attribute__((sentinel));

/* ---- Transfers --------------------------------------------------------------------------------------------------- */

/* Waits until the socket can be read and receives once. wait not 0: waits for ever, in steps of 0.1 s; 0: does not
 * wait. idle, if not null, is called after every step. Any descriptor number is waited for, also one above FD_SETSIZE.
 * Returns the count received; 0 when length is below 1; -1 when the peer closed, the wait failed (reported as "select
 * failed") or the receive failed; -2 when nothing is there and wait is 0. */
int platform_select_recv(int socket, void *buffer, int32_t length, int wait, PlatformIdle idle);

/* Sends the whole buffer, however many sends that takes. Returns length, or -1 at the first send that fails; errno says
 * why, and how much had gone before is not told. A length below 1 returns 0. Blocks while the peer does not read.
 * A signal whose handler was installed without SA_RESTART ends a send that waits: -1, EINTR. A send that has moved part
 * of its bytes by then has not failed, and the rest is sent on. So a timer that is to limit the call must repeat. */
int platform_send_all(int socket, const void *buffer, int32_t length);

/* One recv. Returns its result, or -3 when length is below 1. */
int platform_recv_guarded(int socket, void *buffer, int32_t length);

/* ---- Connections ------------------------------------------------------------------------------------------------- */

/* Opens a TCP socket that listens on localhost at the first free port from first_port up to but not including end_port.
 * chosen_port: gets the port; may be null. Returns the descriptor, or -1 after the report "server sock open failed "
 * when no port is free or the range is empty. Port 0 lets the system choose, and 0 is then stored. */
int platform_server_socket_open(int first_port, int end_port, int *chosen_port);

/* Waits for one connection, then closes the listening socket. Returns the connected descriptor; -1 when the wait
 * (reported as "select failed", the listening socket stays open) or the accept failed; -2 when nobody connected within
 * that many seconds: the listening socket stays open. An interruption starts the full time again. */
int platform_accept_timeout(int listening, int seconds);

/* Accepts one connection and closes the listening socket. Returns the connected descriptor or -1. Blocks. */
int platform_accept_once(int listening);

/* Accepts one connection, again after an interruption and up to 500 times in all; each failure is reported as
 * "accept". address may be null; else it gets at most 16 bytes of the peer's address and address_length, if not null,
 * its length. Returns the connected descriptor or -1 with errno. */
int platform_accept_retry(int listening, struct sockaddr *address, socklen_t *address_length);

/* Connects to a host and port by TCP over IPv4. Returns the descriptor, or -1 with the errno of what failed; a host
 * that has no address is EADDRNOTAVAIL, a port that is none EINVAL. Signals: as for platform_socket_open. The result of
 * the address lookup is not freed: some hundred bytes a call. */
int platform_connect_host(const char *host, int port);

/* Makes a socket of the first address's kind. server not 0: binds it to that address and, if it is a stream socket,
 * listens with the backlog; 0: connects it to the first address that answers. The list stays the caller's.
 * Returns the descriptor, or -1 with the errno of what failed. A signal whose handler was installed without SA_RESTART
 * ends the attempt on one address, and the next is tried; when all fail, errno is EINTR. On the socket of an
 * interrupted attempt the next one may wait for the same peer: each address may take a signal of its own. */
int platform_socket_open(const struct addrinfo *list, int server, int backlog);

/* Shuts the socket down in both directions and closes it. Returns the result of close: 0, or -1 with errno. */
int platform_socket_close(int fd);

/* 1 when the descriptor blocks, 0 when it is in non-blocking mode or not open. */
int platform_fd_is_blocking(int fd);

/* Makes the descriptor block (blocking not 0) or not. Returns 0, or -1 with errno. */
int platform_fd_set_blocking(int fd, int blocking);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
