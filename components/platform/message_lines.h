/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * Messages whose lines come from data, and messages from peers that are not trusted.
 *
 * Both speak the format of socket.h: a peer needs nothing new.
 *
 *   need                                              call
 *   send lines that nobody has looked at              platform_send_message_lines
 *   one message or a time-out, and no abort           platform_message_wait
 *   who is at the other end                           platform_peer_user
 *
 * Example of a parent that sends a text of any origin:
 *
 *   static int send_index(int socket, const char *name, const char *text, size_t text_length) {
 *       PlatformLine lines[] = {{"index", 5}, {name, strlen(name)}, {text, text_length}};
 *       if (!platform_send_message_lines(socket, lines, 3)) {
 *           msg_warn("%s: %s", name, strerror(errno)); // EINVAL: CR LF or NUL in a line, or an empty one
 *           return 0;
 *       }
 *       return 1;
 *   }
 *
 * Example of a server that gives each client ten seconds and 64 KiB for a request:
 *
 *   static int on_request(int socket, const PlatformMessage *message, void *user) {
 *       int *requests = user;
 *       ++*requests;
 *       return platform_send_message_lines(socket, message->lines, message->count);
 *   }
 *
 *   static int serve(int client) {
 *       int requests = 0;
 *       MsgBuf *buffer = platform_msgbuf_create(65536);
 *       platform_msgbuf_set(buffer);
 *       if (platform_peer_user(client) == (int64_t) geteuid()) { // nobody else is served
 *           while (platform_message_wait(client, on_request, &requests, 10000) == PLATFORM_MESSAGE_HANDLED) {
 *           }
 *       }
 *       platform_msgbuf_set(NULL);
 *       platform_msgbuf_free(buffer);
 *       platform_socket_close(client);
 *       return requests;
 *   }
 */
#ifndef ZEL_COMPONENTS_PLATFORM_MESSAGE_LINES_H
#define ZEL_COMPONENTS_PLATFORM_MESSAGE_LINES_H

#include <components/platform/socket.h>

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* A line: its bytes, without the CR LF at its end. */
typedef struct PlatformLine {
    const char *text; /* may be null when length is 0 */
    size_t length;    /* in bytes */
} PlatformLine;

/* A message as a PlatformMessageFunction gets it. */
typedef struct PlatformMessage {
    const PlatformLine *lines; /* the first line and the further ones; a NUL follows each */
    int32_t count;             /* of the lines, at least 1 */
} PlatformMessage;

/* ---- Sending ----------------------------------------------------------------------------------------------------- */

/* Sends one message.
 * - lines, count: the first line, then the further ones; 1 to PLATFORM_MAX_MESSAGE_LINES.
 * - Result: 1 when the whole message went out, else 0.
 * - Errors: EINVAL before anything is sent: a line that holds CR LF or NUL, an empty line
 *   other than the first, a count out of range. Otherwise errno is that of the send that
 *   failed. Part of the message may have gone then: the connection is of no more use.
 * - A line may begin with LF, end with CR, or be one of the two. It arrives as it is.
 * - Memory: none. The bytes leave from where they stand, 512 lines at a time.
 * - Blocks while the peer does not read. On a non-blocking socket that is a failure.
 * - Signals: none is raised, and an interrupted send goes on. */
int platform_send_message_lines(int socket, const PlatformLine *lines, int32_t count);

/* ---- Receiving --------------------------------------------------------------------------------------------------- */

/* A message handler of the program.
 * - socket: the socket that was given to platform_message_wait.
 * - user: the pointer that was given to it.
 * - Result: not 0 or 0, which platform_message_wait tells its caller.
 * - Ownership: the message is valid during the call only.
 * - The handler may send, receive messages itself, and reset or replace the current
 *   buffer. Receiving and resetting write over the message at hand, unless another buffer
 *   is current meanwhile. */
typedef int (*PlatformMessageFunction)(int socket, const PlatformMessage *message, void *user);

/* Results of platform_message_wait. */
typedef enum PlatformMessageResult {
    PLATFORM_MESSAGE_HANDLED = 1,    /* a message came, and the handler returned not 0 */
    PLATFORM_MESSAGE_STOPPED = 0,    /* a message came, and the handler returned 0 */
    PLATFORM_MESSAGE_FAILED = -1,    /* receiving failed; errno holds the reason */
    PLATFORM_MESSAGE_TIMED_OUT = -2, /* no whole message in time */
    PLATFORM_MESSAGE_ENDED = -3,     /* the peer closed before a whole message came */
    PLATFORM_MESSAGE_TOO_LONG = -4   /* the message does not fit, or has too many lines */
} PlatformMessageResult;

/* Hands the next message to the handler. A message that the current buffer already holds
 * needs no receive.
 * - user: handed on; may be null.
 * - milliseconds: the longest wait for a whole message, a negative number for ever. 0 takes
 *   what is there. Neither signals nor a peer that sends slowly prolong it.
 * - Result: a PlatformMessageResult.
 * - After PLATFORM_MESSAGE_TIMED_OUT what came stays in the buffer, and another call goes
 *   on with it.
 * - PLATFORM_MESSAGE_TOO_LONG: the message with its line ends has as many bytes as the
 *   buffer or more, or more than PLATFORM_MAX_MESSAGE_LINES lines. The calls of socket.h
 *   abort there. The data stays in the buffer: close the connection and reset the buffer.
 * - Errors: PLATFORM_MESSAGE_FAILED with EINVAL without a current buffer, and with ENOMEM
 *   without memory for the places of more than 63 lines. The data stays in the buffer.
 * - A NUL does not hide the rest of its line: the length counts all bytes. */
int platform_message_wait(int socket, PlatformMessageFunction handler, void *user, int32_t milliseconds);

/* ---- Who is there ------------------------------------------------------------------------------------------------ */

/* Tells the user at the other end of a connection within this machine.
 * - socket: a connected Unix socket, or a TCP socket whose peer is 127.x.x.x or ::1.
 * - Result: the user's number. It is the effective user that the process had when it made
 *   the TCP socket, connected or listened on the Unix socket, or made the pair.
 * - Errors: -1 with errno. ENOTCONN: not connected. EOPNOTSUPP: another kind of socket.
 *   EADDRNOTAVAIL: nobody can be told. The peer is on another machine, has gone, or has
 *   not accepted the connection. Others: those of reading /proc/net.
 * - A result of -1 is a stranger. So is the peer whose user is not the expected one.
 * - Cost: a TCP socket is looked up in /proc/net/tcp and /proc/net/tcp6, whose length is
 *   the number of the machine's connections. */
int64_t platform_peer_user(int socket);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
