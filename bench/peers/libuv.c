/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * libuv: values over a pipe, starting a program, files. */
#include "peers/exchange.h"
#include "peers/peer.h"
#include "sample.h"

#include <uv.h>

#include <stdlib.h>
#include <string.h>

/* A value is so short that it arrives whole. */
static char bytes[4] = {1, 2, 3, 4};
static long values_left;

static void lend_area(uv_handle_t *handle, size_t size, uv_buf_t *buffer) {
    static char area[64];
    (void) handle;
    (void) size;
    *buffer = uv_buf_init(area, sizeof area);
}

static void send_value(uv_stream_t *stream) {
    static uv_write_t request;
    const uv_buf_t buffer = uv_buf_init(bytes, sizeof bytes);
    peer_require(uv_write(&request, stream, &buffer, 1, NULL) == 0, "uv_write");
}

static void echo(uv_stream_t *stream, ssize_t count, const uv_buf_t *buffer) {
    (void) buffer;
    if (count < 0) {
        uv_stop(stream->loop);
    } else if (count > 0) {
        send_value(stream);
    }
}

static void next(uv_stream_t *stream, ssize_t count, const uv_buf_t *buffer) {
    (void) buffer;
    peer_require(count >= 0, "the other end is gone");
    if (count > 0 && --values_left == 0) {
        uv_stop(stream->loop);
    } else if (count > 0) {
        send_value(stream);
    }
}

static uv_stream_t *open_end(uv_loop_t *loop, uv_pipe_t *pipe, int fd, uv_read_cb on_data) {
    uv_stream_t *stream = (uv_stream_t *) pipe;
    peer_require(uv_loop_init(loop) == 0 && uv_pipe_init(loop, pipe, 0) == 0 && uv_pipe_open(pipe, fd) == 0, "uv_pipe");
    peer_require(uv_read_start(stream, lend_area, on_data) == 0, "uv_read_start");
    return stream;
}

static void serve(int fd) {
    uv_loop_t loop;
    uv_pipe_t pipe;
    open_end(&loop, &pipe, fd, echo);
    uv_run(&loop, UV_RUN_DEFAULT);
}

static void value(long iterations, char **arguments) {
    (void) arguments;
    int ends[2];
    uv_loop_t loop;
    uv_pipe_t pipe;
    exchange_connect(0, ends);
    const pid_t pid = exchange_serve(ends, serve);
    uv_stream_t *stream = open_end(&loop, &pipe, ends[0], next);
    values_left = iterations;
    sample_begin();
    send_value(stream);
    uv_run(&loop, UV_RUN_DEFAULT);
    sample_end(iterations);
    exchange_end(ends[0], pid);
}

static void ended(uv_process_t *process, int64_t status, int signal) {
    peer_require(status == 0 && signal == 0, "status");
    uv_close((uv_handle_t *) process, NULL);
}

static void start(long iterations, char **arguments) {
    char exit_word[] = "exit";
    char *argv[] = {arguments[0], exit_word, NULL};
    uv_loop_t *loop = uv_default_loop();
    sample_begin();
    for (long i = 0; i < iterations; ++i) {
        uv_process_t process;
        const uv_process_options_t options = {.exit_cb = ended, .file = arguments[0], .args = argv};
        peer_require(uv_spawn(loop, &process, &options) == 0, "uv_spawn");
        uv_run(loop, UV_RUN_DEFAULT);
    }
    sample_end(iterations);
}

static void copy(long iterations, char **arguments) {
    sample_begin();
    for (long i = 0; i < iterations; ++i) {
        uv_fs_t request;
        peer_require(uv_fs_copyfile(NULL, &request, arguments[0], arguments[1], 0, NULL) == 0, "uv_fs_copyfile");
        uv_fs_req_cleanup(&request);
    }
    sample_end(iterations);
}

static void stamp(long iterations, char **arguments) {
    sample_begin();
    for (long i = 0; i < iterations; ++i) {
        uv_fs_t request;
        peer_require(uv_fs_stat(NULL, &request, arguments[0], NULL) == 0, "uv_fs_stat");
        uv_fs_req_cleanup(&request);
    }
    sample_end(iterations);
}

const struct peer_work peer_works[] = {
    {"value", value}, {"start", start}, {"copy", copy}, {"stamp", stamp}, {NULL, NULL}};
