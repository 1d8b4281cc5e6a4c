/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * The examples of the public headers, made callable. */
#ifndef ZEL_TESTS_EXAMPLES_HEADER_EXAMPLES_H
#define ZEL_TESTS_EXAMPLES_HEADER_EXAMPLES_H

#include <components/platform/zel_pair_connection.h>

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

void example_of_msg(void);
void example_of_diag_log(void);
void example_of_sinks(void);
void example_of_zel_malloc(void);
void example_of_debug_heap(void);
void example_of_heap_report(void (*handle_request)(void));
void example_of_failures(void (*load)(const char *path), const char *path);
int example_of_environment(const char *path);
void example_of_file_control(void (*read_settings)(const char *path), void (*in_between)(void));
void example_of_file_services(const char *text);
void example_of_process_identity(int32_t pid, void (*work)(void));
void example_of_process_info(void);
void example_of_socket(int socket);
int32_t example_of_pair(void);         /* the value received */
int32_t example_of_pair_control(void); /* the square of 12 */
void example_of_ending(PairHandle *pair, int seconds);

/* Asks the companion for the sum of the values, in that many rounds. Returns the rounds that were answered. */
int example_of_text_and_values(const int32_t *values, int32_t count, int32_t *totals, int rounds);

/* Sends a message and the values right behind it. Returns their total. */
int32_t example_of_values(const int32_t *values, int32_t count);

int example_of_message_lines(int socket, const char *name, const char *text, size_t text_length);
int example_of_message_wait(int client); /* the requests that were answered */

#ifdef __cplusplus
}
#endif

#endif
