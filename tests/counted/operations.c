// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The operations whose instructions are counted: counted_operations off|on TIMES FILE.
//
// "off" carries out those that need no debug heap, and "on" those of its two modes. Lines
// go to FILE. Each operation is a function, by whose name valgrind tells them apart: it
// runs TIMES times in one call, and is called twice. The second call counts, for the first
// one settles what is settled once.
#include <components/platform/socket.h>
#include <components/platform/zel_pair_connection.h>
#include <malloc/debug_heap.h>
#include <malloc/zel_malloc.h>
#include <msg/msg.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

enum { kTextLength = 400, kLines = 51, kMessageSize = 4096, kBufferSize = 65536, kLive = 100 };

// What the operations work on.
static struct {
    int times;
    char text[kTextLength + 1];
    char message[kMessageSize]; // kLines lines, as they travel
    int32_t message_length;
    char *line_table[PLATFORM_MAX_MESSAGE_LINES + 1];
    PairHandle *pair; // stands on one of two connected sockets
    int peer;         // the other one
} world;

static void require(int condition, const char *what) {
    if (!condition) {
        fprintf(stderr, "counted_operations: failed: %s\n", what);
        exit(1);
    }
}

// ---- The operations -------------------------------------------------------------------------------------------------

static void operation_short_line(void) {
    for (int i = 0; i < world.times; ++i) {
        msg_print("%s: %d of %d files, now in %s", "backup", 12, 40, "/home/guest");
    }
}

static void operation_wrapped_text_of_400_characters(void) {
    for (int i = 0; i < world.times; ++i) {
        msg_print("%s", world.text);
    }
}

static void operation_diagnostic_line(void) {
    for (int i = 0; i < world.times; ++i) {
        msg_diag("%s: request %d answered in %d us\n", "server", 4711, 83);
    }
}

static void allocate_and_release(void) {
    for (int i = 0; i < world.times; ++i) {
        zel_free(zel_malloc(64, "allocate_and_release", "a block"));
    }
}

static void operation_block_with_debug_off(void) {
    allocate_and_release();
}

static void operation_block_in_mode_1_beside_100(void) {
    allocate_and_release();
}

static void operation_block_in_mode_2_beside_100(void) {
    allocate_and_release();
}

static void operation_message_of_51_lines_found(void) {
    static char data[kMessageSize];
    for (int i = 0; i < world.times; ++i) {
        memcpy(data, world.message, (size_t) world.message_length); // the parser cuts the lines in place
        require(platform_parse_message(data, world.message_length, world.line_table) == world.message_length, "parse");
    }
}

static void operation_value_of_4_bytes_there_and_back(void) {
    int32_t value = 4711;
    for (int i = 0; i < world.times; ++i) {
        require(platform_pair_send(world.pair, &value, sizeof value) == sizeof value, "platform_pair_send");
        require(recv(world.peer, &value, sizeof value, 0) == sizeof value, "recv");
        require(send(world.peer, &value, sizeof value, 0) == sizeof value, "send");
        require(platform_pair_recv(world.pair, &value, sizeof value) == sizeof value, "platform_pair_recv");
    }
}

static int accept_message(int socket, char *first_line, char **lines) {
    (void) socket;
    return strcmp(first_line, "copy") == 0 && lines[2] == NULL;
}

static void operation_message_of_3_lines_sent_and_received(void) {
    const int end = platform_pair_tx_fd(world.pair);
    for (int i = 0; i < world.times; ++i) {
        require(platform_send_message(end, "copy", "/home/guest/notes.txt", "/tmp/notes.txt", (char *) NULL), "send");
        require(platform_get_one_message(world.peer, accept_message, NULL, 1), "platform_get_one_message");
    }
}

// ---- The program ----------------------------------------------------------------------------------------------------

static void set_up_output(const char *file) {
    FILE *stream = fopen(file, "w");
    require(stream != NULL, file);
    msg_clear_streams(MSG_INFO);
    msg_add_stream(MSG_INFO | MSG_DIAG, stream);
    while (strlen(world.text) < kTextLength) {
        strncat(world.text, "words, some short and some considerably longer ", kTextLength - strlen(world.text));
    }
}

static void set_up_message(void) {
    char *end = world.message;
    for (int line = 0; line < kLines; ++line) {
        end += snprintf(end, 64, "line %d: the quick brown fox jumps over it\r\n", line);
    }
    end += snprintf(end, 64, "\r\n");
    world.message_length = (int32_t) (end - world.message);
}

static void set_up_pair(void) {
    int fds[2];
    char end[64];
    require(socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0, "socketpair");
    snprintf(end, sizeof end, "%d %d pid-rtx_fd", (int) getppid(), fds[0]);
    require(setenv("ZEL_COUNTED_PAIR", end, 1) == 0, "setenv");
    world.pair = platform_pair_child_open("ZEL_COUNTED_PAIR", 0, 1);
    world.peer = fds[1];
    require(platform_pair_ok(world.pair), "platform_pair_child_open");
    platform_msgbuf_set(platform_msgbuf_create(kBufferSize));
}

static void run_twice(void (*operation)(void)) {
    operation();
    operation();
}

static void run_without_debug_heap(const char *file) {
    set_up_output(file);
    set_up_message();
    set_up_pair();
    run_twice(operation_short_line);
    run_twice(operation_wrapped_text_of_400_characters);
    run_twice(operation_diagnostic_line);
    run_twice(operation_block_with_debug_off);
    run_twice(operation_message_of_51_lines_found);
    run_twice(operation_value_of_4_bytes_there_and_back);
    run_twice(operation_message_of_3_lines_sent_and_received);
}

static void run_with_debug_heap(void) {
    zel_enable_malloc_debug(ZEL_MALLOC_CHECK_PTR);
    for (int block = 0; block < kLive; ++block) {
        zel_malloc(64, "run_with_debug_heap", "a block that lives");
    }
    run_twice(operation_block_in_mode_1_beside_100);
    zel_enable_malloc_debug(ZEL_MALLOC_VERIFY_HEAP);
    run_twice(operation_block_in_mode_2_beside_100);
}

int main(int argc, char **argv) {
    require(argc == 4, "usage: counted_operations off|on TIMES FILE");
    world.times = atoi(argv[2]);
    if (strcmp(argv[1], "on") == 0) {
        run_with_debug_heap();
    } else {
        run_without_debug_heap(argv[3]);
    }
    return 0;
}
