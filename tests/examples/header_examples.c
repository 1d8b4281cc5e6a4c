// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The examples of the public headers, as they stand there. A test compares them line by line.
#include "header_examples.h"

#include <msg/sinks.h>
#include <zel.h>

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

void example_of_msg(void) {
    msg_set_print_prefix("backup: ");
    msg_print("%d files in %s", 12, "/home/guest"); // backup: 12 files in /home/guest
    msg_warn("%s is not readable", "core");         // Warning: core is not readable
    MSG_CONT("It was left out.");                   //          It was left out.
}

void example_of_sinks(void) {
    FILE *log = msg_open_rotating_file("server.log", 1 << 20, 3); // older ones: server.log.1 to .3
    if (log == NULL) {
        msg_fatal_syserr("server.log");
    }
    msg_add_stream(MSG_WARNING | MSG_ERROR, log);
    msg_add_stream(MSG_DEBUG | MSG_ERROR, msg_open_ring(65536, STDERR_FILENO)); // seen when it matters
    msg_debug("%d clients", 12);
}

void example_of_diag_log(void) {
    msg_open_diag_log(NULL);    // the directory comes from the environment
    msg_sync_mode(MSG_DIAG, 1); // each line is on disk before the next begins
    msg_diag("request %d\n", 12);
}

void example_of_zel_malloc(void) {
    int32_t *table = ZEL_MALLOC_ARRAY(int32_t, 64);
    char *path = zel_printf_strdup("%s/%s", "/tmp", "index");
    zel_free(path);
    zel_free(table);
}

void example_of_debug_heap(void) {
    zel_enable_malloc_debug(ZEL_MALLOC_CHECK_PTR);
    char *name = zel_strdup("guest", "main", "user name");
    name[8] = '!';                 // past the end, into the trailer
    zel_malloc_describe_ptr(name); // ... referenced data that was corrupted at the end. ...
    zel_free(name);                // the same as an error; the process ends
}

void example_of_heap_report(void (*handle_request)(void)) {
    uint64_t mark = zel_malloc_mark();
    handle_request();
    zel_malloc_report_since(mark); // a row for each block that the request left
}

void example_of_failures(void (*load)(const char *path), const char *path) {
    long left = -1;
    for (long n = 0; left < 0; ++n) { // ends when the operation makes no n-th request
        zel_malloc_fail_after(n);
        load(path);                       // one request fails: nothing must be lost
        left = zel_malloc_fail_after(-1); // -1: the failure has come
    }
}

int example_of_environment(const char *path) {
    int fd = open(path, O_RDONLY);
    if (fd == -1) {
        platform_perror("open index"); // "open index: No such file or directory" as a diagnostic line
        return 0;
    }
    close(fd);
    return 1;
}

void example_of_file_control(void (*read_settings)(const char *path), void (*in_between)(void)) {
    FileStamp stamp = platform_file_stamp("settings");
    read_settings("settings");
    in_between();
    if (platform_file_changed("settings", stamp)) {
        read_settings("settings");
    }
}

void example_of_file_services(const char *text) {
    if (!platform_replace_file("settings", text, strlen(text), 0600)) {
        platform_perror("settings"); // the old settings stand as they were
    }
}

void example_of_process_identity(int32_t pid, void (*work)(void)) {
    PlatformProcess server;
    if (platform_process_identify(pid, &server)) {
        work();
        if (!platform_process_is_same(&server)) {
            msg_warn("the server %s has gone", server.name);
        }
    }
}

void example_of_process_info(void) {
    uint64_t virtual_kb;
    uint64_t resident_kb;
    if (platform_process_memory(-1, &virtual_kb, &resident_kb)) {
        msg_print("%llu KiB in use", (unsigned long long) resident_kb);
    }
}

static int on_message(int socket, char *first_line, char **lines) {
    if (strcmp(first_line, "quit") == 0) {
        return 0;
    }
    int empty = lines[0] == NULL || *lines[0] == '\0'; // a line that begins with NUL is empty too
    return platform_send_message(socket, "you said", empty ? "nothing" : lines[0], (char *) NULL);
}

void example_of_socket(int socket) {
    MsgBuf *buffer = platform_msgbuf_create(65536);
    platform_msgbuf_set(buffer);
    platform_message_loop(socket, on_message, NULL, 0);
    platform_msgbuf_set(NULL);
    platform_msgbuf_free(buffer);
}

static void end_companion(PairHandle *pair, int seconds) {
    int32_t pid = platform_pair_companion_pid(pair);
    struct timespec pause = {0, 10000000}; // 10 ms
    platform_pair_close(pair);             // the companion sees the end of the stream
    for (int left = 100 * seconds; left > 0 && platform_wait_nohang(pid, NULL, NULL) == 0; --left) {
        nanosleep(&pause, NULL);
    }
    if (platform_wait_nohang(pid, NULL, NULL) == 0) { // not reaped: the number is still its own
        kill(pid, SIGKILL);
        platform_wait_child(pid, NULL);
    }
}

int32_t example_of_pair(void) {
    PairHandle *pair = platform_pair_parent_open_lp("ECHO_PAIR", 1, 1, "./echo", NULL, "echo", (char *) NULL);
    if (!platform_pair_ok(pair)) {
        msg_fatal("%s: %s", pair->error_text, platform_pair_errstr(pair));
    }
    int32_t value = 42;
    platform_pair_send(pair, &value, sizeof value);
    platform_pair_recv(pair, &value, sizeof value);
    end_companion(pair, 5);
    return value;
}

void example_of_ending(PairHandle *pair, int seconds) {
    end_companion(pair, seconds);
}

static int receive_all(PairHandle *pair, void *buffer, int32_t length) {
    for (int32_t done = 0; done < length;) {
        int32_t count = platform_pair_recv(pair, (char *) buffer + done, length - done);
        if (count == 0) { // the end of the stream, or an error
            return 0;
        }
        done += count;
    }
    return 1;
}

static int sum(PairHandle *pair, const int32_t *values, int32_t count, int32_t *total) {
    int fd = platform_pair_tx_fd(pair);
    int32_t ready;
    char text[16];
    snprintf(text, sizeof text, "%d", (int) count);
    return platform_send_message(fd, "sum", text, (char *) NULL) &&                 // text
           receive_all(pair, &ready, sizeof ready) &&                               // acknowledged
           platform_send_all(fd, values, count * (int32_t) sizeof *values) != -1 && // values
           receive_all(pair, total, sizeof *total);
}

int example_of_text_and_values(const int32_t *values, int32_t count, int32_t *totals, int rounds) {
    PairHandle *pair = platform_pair_parent_open_lp("SUM_PAIR", 1, 1, "./adder", NULL, "adder", (char *) NULL);
    int done = 0;
    while (done < rounds && sum(pair, values, count, &totals[done])) {
        ++done;
    }
    end_companion(pair, 5);
    return done;
}

int32_t example_of_pair_control(void) {
    char name[] = "square";
    char *argv[] = {name, NULL};
    PairHandle *pair = platform_pair_spawn("SQUARE_PAIR", "./square", argv, NULL);
    if (!platform_pair_ok(pair)) { // execvp failed: No such file or directory
        msg_fatal("%s: %s", pair->error_text, platform_pair_errstr(pair));
    }
    int32_t number = 12;
    int32_t square = 0;
    if (platform_pair_exchange(pair, &number, sizeof number, &square, sizeof square, 5000) != PLATFORM_PAIR_DONE) {
        msg_warn("no answer within five seconds");
    }
    platform_pair_stop(pair, 1000); // whatever the companion does, it has ended after this
    platform_pair_close(pair);
    return square;
}
