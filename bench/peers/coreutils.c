/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * The system's tools: wrapping a file of texts, removing a folder of files, and copying a file. */
#include "files_by_hand.h"
#include "peers/peer.h"
#include "sample.h"

#include <fcntl.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

enum { MOST_WORDS = 8 };

/* Runs the tool with its output in a file, or where it was. */
static void run_tool(const char *const *words, const char *output) {
    static char *argv[MOST_WORDS];
    int status = -1;
    for (int i = 0; words[i] != NULL; ++i) {
        argv[i] = strdup(words[i]);
    }
    const pid_t pid = fork();
    if (pid == 0) {
        if (output != NULL) {
            dup2(open(output, O_WRONLY | O_CREAT | O_TRUNC, 0666), STDOUT_FILENO);
        }
        execvp(argv[0], argv);
        _exit(127);
    }
    waitpid(pid, &status, 0);
    peer_require(status == 0, words[0]);
}

/* The file holds as many texts as there are iterations. */
static void fold(long iterations, char **arguments) {
    const char *const argv[] = {"fold", "-s", "-w", "78", arguments[0], NULL};
    sample_begin();
    run_tool(argv, arguments[1]);
    sample_end(iterations);
}

static void fmt(long iterations, char **arguments) {
    const char *const argv[] = {"fmt", "-w", "78", arguments[0], NULL};
    sample_begin();
    run_tool(argv, arguments[1]);
    sample_end(iterations);
}

/* What is removed was made right before: mkdir takes no folder that is there already. */
static void rm(long iterations, char **arguments) {
    const char *const argv[] = {"rm", "-rf", "--", arguments[1], NULL};
    peer_require(make_folder(arguments[1], atoi(arguments[0])), "make_folder");
    sample_begin();
    run_tool(argv, NULL);
    sample_end(iterations);
}

static void cp(long iterations, char **arguments) {
    const char *const argv[] = {"cp", "--", arguments[0], arguments[1], NULL};
    sample_begin();
    for (long i = 0; i < iterations; ++i) {
        run_tool(argv, NULL);
    }
    sample_end(iterations);
}

const struct peer_work peer_works[] = {{"fold", fold}, {"fmt", fmt}, {"rm", rm}, {"cp", cp}, {NULL, NULL}};
