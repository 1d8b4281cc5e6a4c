/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * GLib and GIO: lines of output, messages, starting a program, files. */
#include "peers/exchange.h"
#include "peers/peer.h"
#include "sample.h"

#include <gio/gio.h>
#include <glib/gstdio.h>

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

/* The default handler writes to a standard stream and flushes it: the stream is the file. */
static void line(long iterations, char **arguments) {
    const int output = dup(STDOUT_FILENO);
    const int file = open(arguments[0], O_WRONLY | O_CREAT | O_TRUNC, 0666);
    dup2(file, STDOUT_FILENO);
    dup2(file, STDERR_FILENO);
    sample_begin();
    for (long i = 0; i < iterations; ++i) {
        g_message("%s: %d of %d files, now in %s", "backup", 12, 40, "/home/guest");
    }
    fflush(stdout);
    dup2(output, STDOUT_FILENO);
    sample_end(iterations);
}

static GSocket *socket_of(int fd) {
    GSocket *socket = g_socket_new_from_fd(fd, NULL);
    peer_require(socket != NULL, "g_socket_new_from_fd");
    return socket;
}

static void echo_values(int fd) {
    GSocket *socket = socket_of(fd);
    char value[4];
    while (g_socket_receive(socket, value, sizeof value, NULL, NULL) == sizeof value) {
        g_socket_send(socket, value, sizeof value, NULL, NULL);
    }
}

static void value(long iterations, char **arguments) {
    (void) arguments;
    char bytes[4] = {1, 2, 3, 4};
    int ends[2];
    exchange_connect(0, ends);
    const pid_t pid = exchange_serve(ends, echo_values);
    GSocket *socket = socket_of(ends[0]);
    sample_begin();
    for (long i = 0; i < iterations; ++i) {
        g_socket_send(socket, bytes, sizeof bytes, NULL, NULL);
        peer_require(g_socket_receive(socket, bytes, sizeof bytes, NULL, NULL) == sizeof bytes, "receive");
    }
    sample_end(iterations);
    g_socket_shutdown(socket, TRUE, TRUE, NULL);
    waitpid(pid, NULL, 0);
}

/* A message's last line, freed by the caller; null at the end of the stream. */
static char *last_line(GDataInputStream *input) {
    char *last = g_data_input_stream_read_line(input, NULL, NULL, NULL);
    while (last != NULL) {
        char *next = g_data_input_stream_read_line(input, NULL, NULL, NULL);
        if (next == NULL || *next == '\0') {
            g_free(next);
            break;
        }
        g_free(last);
        last = next;
    }
    return last;
}

static GIOStream *connection_of(int fd, GDataInputStream **input) {
    GIOStream *connection = G_IO_STREAM(g_socket_connection_factory_create_connection(socket_of(fd)));
    *input = g_data_input_stream_new(g_io_stream_get_input_stream(connection));
    g_data_input_stream_set_newline_type(*input, G_DATA_STREAM_NEWLINE_TYPE_CR_LF);
    return connection;
}

static int send_bytes(GIOStream *connection, const char *bytes, size_t length) {
    return g_output_stream_write_all(g_io_stream_get_output_stream(connection), bytes, length, NULL, NULL, NULL);
}

static void answer_messages(int fd) {
    GDataInputStream *input;
    GIOStream *connection = connection_of(fd, &input);
    char *last;
    while ((last = last_line(input)) != NULL) {
        char *framed = g_strconcat(last, "\r\n\r\n", NULL);
        send_bytes(connection, framed, strlen(framed));
        g_free(framed);
        g_free(last);
    }
}

static void exchange(long iterations, int lines, int tcp) {
    char message[EXCHANGE_AREA];
    const size_t length = exchange_message(message, lines);
    int ends[2];
    exchange_connect(tcp, ends);
    const pid_t pid = exchange_serve(ends, answer_messages);
    GDataInputStream *input;
    GIOStream *connection = connection_of(ends[0], &input);
    sample_begin();
    for (long i = 0; i < iterations; ++i) {
        char *last = send_bytes(connection, message, length) ? last_line(input) : NULL;
        peer_require(last != NULL, "the other end is gone");
        g_free(last);
    }
    sample_end(iterations);
    g_io_stream_close(connection, NULL, NULL);
    waitpid(pid, NULL, 0);
}

static void message_pair(long iterations, char **arguments) {
    exchange(iterations, atoi(arguments[0]), 0);
}

static void message_tcp(long iterations, char **arguments) {
    exchange(iterations, atoi(arguments[0]), 1);
}

static void start(long iterations, char **arguments) {
    char exit_word[] = "exit";
    char *argv[] = {arguments[0], exit_word, NULL};
    const GSpawnFlags flags = G_SPAWN_DO_NOT_REAP_CHILD | G_SPAWN_STDOUT_TO_DEV_NULL | G_SPAWN_STDERR_TO_DEV_NULL;
    sample_begin();
    for (long i = 0; i < iterations; ++i) {
        GPid pid = 0;
        int status = -1;
        peer_require(g_spawn_async(NULL, argv, NULL, flags, NULL, NULL, &pid, NULL), "g_spawn_async");
        waitpid(pid, &status, 0);
        peer_require(status == 0, "status");
    }
    sample_end(iterations);
}

static void copy(long iterations, char **arguments) {
    GFile *from = g_file_new_for_path(arguments[0]);
    GFile *to = g_file_new_for_path(arguments[1]);
    sample_begin();
    for (long i = 0; i < iterations; ++i) {
        peer_require(g_file_copy(from, to, G_FILE_COPY_OVERWRITE, NULL, NULL, NULL, NULL), "g_file_copy");
    }
    sample_end(iterations);
}

static void stamp(long iterations, char **arguments) {
    GStatBuf status;
    sample_begin();
    for (long i = 0; i < iterations; ++i) {
        peer_require(g_stat(arguments[0], &status) == 0, "g_stat");
    }
    sample_end(iterations);
}

static int by_name(gconstpointer one, gconstpointer other) {
    return strcmp(*(char *const *) one, *(char *const *) other);
}

static void expand(const char *folder, GPatternSpec *pattern) {
    GDir *dir = g_dir_open(folder, 0, NULL);
    peer_require(dir != NULL, "g_dir_open");
    GPtrArray *names = g_ptr_array_new_with_free_func(g_free);
    const char *name;
    while ((name = g_dir_read_name(dir)) != NULL) {
        if (g_pattern_spec_match_string(pattern, name)) {
            g_ptr_array_add(names, g_build_filename(folder, name, NULL));
        }
    }
    g_ptr_array_sort(names, by_name);
    g_dir_close(dir);
    g_ptr_array_free(names, TRUE);
}

static void glob(long iterations, char **arguments) {
    GPatternSpec *pattern = g_pattern_spec_new(arguments[1]);
    sample_begin();
    for (long i = 0; i < iterations; ++i) {
        expand(arguments[0], pattern);
    }
    sample_end(iterations);
}

const struct peer_work peer_works[] = {
    {"line", line},
    {"value", value},
    {"message-pair", message_pair},
    {"message-tcp", message_tcp},
    {"start", start},
    {"copy", copy},
    {"stamp", stamp},
    {"glob", glob},
    {NULL, NULL},
};
