/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * Sockets, and a loop that carries text messages over any stream socket.
 *
 * A message is one or more lines, each ended by CR LF, and one empty line after them:
 *
 *   message = first *further end     further = 1*byte CR LF
 *   first   = *byte CR LF            end     = CR LF
 *
 *   "count" CR LF "README.md" CR LF CR LF     first line "count", one further line
 *   CR LF CR LF                               empty first line, no further line
 *
 * - The bytes of a line do not hold CR LF. A CR that no LF follows is part of its line.
 * - A further line is never empty. An empty one is the end of the message.
 * - A NUL hides the rest of its line from the handler.
 *
 * Steps:
 *
 *   1. platform_msgbuf_set(platform_msgbuf_create(65536)) makes a receive buffer current.
 *   2. Serve with platform_message_loop(fd, handler, NULL, 0), until the handler returns
 *      0 or the peer closes. Or take one message at a time with platform_get_one_message.
 *   3. Answer with platform_send_message(fd, "done", "12", (char *) NULL).
 *   4. Call platform_msgbuf_reset between two connections. At the end call
 *      platform_msgbuf_set(NULL) and platform_msgbuf_free.
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
 * Traps:
 *
 * - The loop reads ahead, up to 8192 bytes at a time. Data that follows a message stays
 *   in the buffer: no recv on the socket finds it. Send a value as a line of the message,
 *   or after the receiver's acknowledgement (see the example in zel_pair_connection.h), or
 *   receive it by platform_pair_recv_all.
 * - A peer can end its receiver. A message that does not fit into the buffer, or has more
 *   than PLATFORM_MAX_MESSAGE_LINES lines, is an assertion that aborts the receiver.
 *   platform_message_wait returns an error instead.
 * - Sending checks no line. A text with CR LF in it, and an empty further line, make the
 *   receiver take the bytes after them for other lines or messages.
 *   platform_send_message_lines refuses them.
 *
 * Invariants:
 *
 * - Current buffer: pBuf <= p1 <= p2 and p2 - pBuf < len.
 * - Every message and every platform_send_all is sent with MSG_NOSIGNAL. A peer that is
 *   gone is the error EPIPE and no signal.
 * - Every socket made here is close-on-exec. Connected and accepted TCP sockets have
 *   TCP_NODELAY.
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

/* <netdb.h> does not declare it to a strictly conforming C program. */
struct addrinfo;

/* The most lines of one message. A line table has one entry more. */
#define PLATFORM_MAX_MESSAGE_LINES 32768

/* Results below 0 of the accept calls, platform_select_recv and platform_recv_guarded. */
typedef enum PlatformSocketResult {
    PLATFORM_SOCKET_FAILED = -1,    /* the call failed, or the peer closed (platform_select_recv) */
    PLATFORM_SOCKET_NOT_READY = -2, /* nothing to receive, or nobody connected in time */
    PLATFORM_SOCKET_BAD_LENGTH = -3 /* platform_recv_guarded: the length is below 1 */
} PlatformSocketResult;

/* A receive buffer of fixed capacity. */
typedef struct MsgBuf {
    char *pBuf;  /* the storage, owned by the record */
    int32_t len; /* its capacity in bytes, fixed at creation */
    char *p1;    /* start of the data not yet parsed */
    char *p2;    /* end of the data received */
} MsgBuf;

/* The buffer that the loop operations work on; null until platform_msgbuf_set. */
extern MsgBuf *gMsgBuf;

/* A message handler of the program.
 * - socket: the socket that was given to the message call.
 * - first_line: the first line of the message.
 * - lines: the further lines, a null pointer after the last.
 * - Result: not 0 goes on, 0 stops platform_message_loop.
 * - Ownership: the texts are valid during the call only.
 * - The handler may send on the socket and may itself receive messages, a thousand levels
 *   deep on a stack of 8 MiB. Receiving writes over the texts of the message at hand,
 *   unless another buffer is current meanwhile. */
typedef int (*PlatformMessageHandler)(int socket, char *first_line, char **lines);

/* An idle function of the program.
 * - Called after every wait for input, about ten times a second while the peer is quiet.
 * - Result: ignored. */
typedef int (*PlatformIdle)(void);

/* ---- The receive buffer ------------------------------------------------------------------------------------------ */

/* Creates an empty buffer.
 * - size: bytes of storage. It must be larger than the largest message plus 8192, the
 *   most bytes that one receive takes.
 * - Result: the buffer. It is the caller's, until platform_msgbuf_free.
 * - Errors: no memory ends the process with an error. */
MsgBuf *platform_msgbuf_create(int32_t size);

/* Drops the data in the buffer. Result: the buffer. */
MsgBuf *platform_msgbuf_reset(MsgBuf *buffer);

/* Releases storage and record.
 * - buffer: null is ignored.
 * - Make another buffer, or null, current before the current one is freed. */
void platform_msgbuf_free(MsgBuf *buffer);

/* Makes the buffer current; null leaves none. The buffer stays the caller's. */
void platform_msgbuf_set(MsgBuf *buffer);

/* ---- The message loop ----------------------------------------------------------------------------------------------
 *
 *   call                        receives             hands over
 *   platform_message_loop       as often as needed   every message, until the handler returns 0
 *   platform_get_one_message    as often as needed   one message
 *   platform_recv_messages      once                 none
 *   platform_process_messages   not at all           every complete message in the buffer
 */

/* Hands every message that arrives to the handler.
 * - idle: may be null.
 * - drain_first: not 0 first reads and drops the data that waits on the socket.
 * - Ends when the handler returns 0, the peer closes or receiving fails.
 * - Errors: without a current buffer it warns and receives no message. Otherwise as
 *   platform_get_one_message.
 * - Blocks while the peer is quiet. */
void platform_message_loop(int socket, PlatformMessageHandler handler, PlatformIdle idle, int drain_first);

/* Hands the next message to the handler. A message that the buffer already holds needs no
 * receive.
 * - idle: may be null.
 * - wait: not 0 blocks until a message is complete.
 * - Result: the handler's. 0 also when the peer closed, receiving failed or, with wait 0,
 *   no complete message is there.
 * - Errors: more data than the buffer holds, a message of more than
 *   PLATFORM_MAX_MESSAGE_LINES lines, or no current buffer is an assertion that aborts.
 * - Memory: the starts of more than 63 lines stand in storage from malloc until the
 *   message has been handed over. No memory for it ends the process with an error.
 * - Reads ahead: data that follows the message is in the buffer, not in the socket. */
int platform_get_one_message(int socket, PlatformMessageHandler handler, PlatformIdle idle, int wait);

/* Receives once into the current buffer, at most 8192 bytes.
 * - Result: that of recv: a count, 0 when the peer closed, -1 with errno.
 * - Errors: data that would fill the buffer, or no current buffer, is an assertion that
 *   aborts. */
int platform_recv_messages(int socket);

/* Hands every complete message in the current buffer to the handler.
 * - handler: its results are ignored.
 * - Result: 0.
 * - Errors: too many lines, no current buffer and no memory end the process as in
 *   platform_get_one_message. */
int platform_process_messages(int socket, PlatformMessageHandler handler);

/* Parses the first message in the data.
 * - data, length: the bytes. In a complete message the CR of every line, the empty one
 *   too, becomes NUL.
 * - line_table: PLATFORM_MAX_MESSAGE_LINES + 1 entries. Gets the start of each line, then
 *   a null pointer.
 * - Result: the bytes that the message occupies; 0, with the data untouched, when no
 *   message is complete.
 * - Errors: a message of more lines than the limit is an assertion that aborts. */
int platform_parse_message(char *data, int32_t length, char **line_table);

/* Sends one message.
 * - first: the first line. Null sends an empty one.
 * - further arguments: the further lines, then a null pointer of type char *.
 * - No line may hold CR LF. No further line may be empty. Nothing checks this.
 * - Result: 1 when the whole message went out, else 0.
 * - Errors: the first send that fails, with errno; a line of more than 8189 characters
 *   for which there is no memory. Part of the message may have gone then: the connection
 *   is of no more use.
 * - Blocks while the peer does not read. On a non-blocking socket that is a failure.
 * - Signals: as for platform_send_all. */
int platform_send_message(int socket, const char *first, ...) __attribute__((sentinel));

/* ---- Transfers --------------------------------------------------------------------------------------------------- */

/* Waits until the socket can be read and receives once.
 * - buffer, length: storage for the data and its size.
 * - wait: not 0 waits for ever, in steps of 0.1 s. 0 does not wait.
 * - idle: called after every step; may be null.
 * - Result: the count received; 0 when length is below 1; PLATFORM_SOCKET_NOT_READY when
 *   wait is 0 and nothing is there.
 * - Errors: PLATFORM_SOCKET_FAILED when the peer closed, the wait failed (reported as
 *   "select failed") or the receive failed.
 * - Limits: none for the descriptor's number, which may exceed FD_SETSIZE. */
int platform_select_recv(int socket, void *buffer, int32_t length, int wait, PlatformIdle idle);

/* Sends the whole buffer, in as many sends as that takes.
 * - buffer, length: the data. A length below 1 returns 0.
 * - Result: length.
 * - Errors: -1 with errno at the first send that fails. The count sent before is unknown.
 * - Blocks while the peer does not read.
 * - A signal whose handler was installed without SA_RESTART ends a send that waits: -1,
 *   EINTR. A send that has moved part of its bytes by then does not fail, and the call
 *   goes on with the rest. A timer that is to limit the call must therefore repeat. */
int platform_send_all(int socket, const void *buffer, int32_t length);

/* Receives once.
 * - buffer, length: storage for the data and its size.
 * - Result: that of recv: a count, 0 when the peer closed.
 * - Errors: PLATFORM_SOCKET_FAILED with errno; PLATFORM_SOCKET_BAD_LENGTH when length is
 *   below 1. */
int platform_recv_guarded(int socket, void *buffer, int32_t length);

/* ---- Connections ------------------------------------------------------------------------------------------------- */

/* Opens a TCP socket that listens on localhost.
 * - first_port, end_port: the range, without end_port. Its first free port is taken. Port
 *   0 lets the system choose.
 * - chosen_port: gets the port, 0 for one that the system chose; may be null.
 * - Result: the descriptor.
 * - Errors: -1 after the report "server sock open failed " when no port was opened. */
int platform_server_socket_open(int first_port, int end_port, int *chosen_port);

/* Waits for one connection, then closes the listening socket.
 * - seconds: the longest wait. An interruption starts the full time again.
 * - Result: the connected descriptor; PLATFORM_SOCKET_NOT_READY after that time.
 * - Errors: PLATFORM_SOCKET_FAILED when the wait (reported as "select failed") or the
 *   accept failed.
 * - Ownership: the listening socket stays open when nobody connected or the wait failed.
 *   A failed accept closes it. */
int platform_accept_timeout(int listening, int seconds);

/* Accepts one connection and closes the listening socket, also after a failure.
 * - Result: the connected descriptor.
 * - Errors: PLATFORM_SOCKET_FAILED with errno.
 * - Blocks until somebody connects. */
int platform_accept_once(int listening);

/* Accepts one connection. The listening socket stays open.
 * - address: gets at most 16 bytes of the peer's address; may be null.
 * - address_length: gets its length; may be null. Without address it is left alone.
 * - Result: the connected descriptor.
 * - Errors: PLATFORM_SOCKET_FAILED with errno. Each failed accept is reported as
 *   "accept". After EINTR and EAGAIN it is tried again, up to 500 attempts in all.
 * - Blocks until somebody connects. */
int platform_accept_retry(int listening, struct sockaddr *address, socklen_t *address_length);

/* Connects to a host by TCP over IPv4.
 * - host: a name or an address.
 * - port: 0 to 65535.
 * - Result: the descriptor.
 * - Errors: -1 with the errno of the step that failed. EADDRNOTAVAIL: the host has no
 *   address. EINVAL: no such port.
 * - Memory: the result of the address lookup is not freed, some hundred bytes a call.
 * - Signals: as for platform_socket_open. */
int platform_connect_host(const char *host, int port);

/* Makes a socket of the first address's kind, and binds or connects it.
 * - list: the addresses. Null is a failure, errno untouched.
 * - server: not 0 binds to the first address and, for a stream socket, listens. 0
 *   connects to the first address that answers.
 * - backlog: for listening.
 * - Result: the descriptor.
 * - Errors: -1 with the errno of the call that failed.
 * - Ownership: the list stays the caller's.
 * - A signal whose handler was installed without SA_RESTART ends the attempt on one
 *   address, and the next address is tried. When all fail, errno is EINTR. All attempts
 *   share one socket: the one after an interruption may wait for the same peer. A timer
 *   that is to limit the call must therefore repeat. */
int platform_socket_open(const struct addrinfo *list, int server, int backlog);

/* Shuts the socket down in both directions and closes it. Result: that of close. */
int platform_socket_close(int fd);

/* Result: 1 when the descriptor blocks, 0 when it does not block or is not open. */
int platform_fd_is_blocking(int fd);

/* Sets the blocking mode of a descriptor.
 * - blocking: not 0 makes it block, 0 makes it non-blocking.
 * - Result: 0, or -1 with errno. */
int platform_fd_set_blocking(int fd, int blocking);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
