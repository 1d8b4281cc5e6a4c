// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Keeps a number of companions of one program alive and busy.
//
//   supervisor [OPTION...] PROGRAM [ARGUMENT...]
//
//   --companions N    how many companions work at once (4)
//   --time-out MS     an answer that takes longer costs the companion its place (5000)
//   --restarts N      the most companions replaced within ten seconds; more ends the job (20)
//   --grace MS        the time that the companions have to end (1000)
//   --log FILE        what happens to the companions, in files of 1 MiB, three older ones kept
//
// Each line of standard input is a request. Its answer is a line of standard output: the
// number of the request, counted from 1, a blank, and the text of the answer. Answers come
// in the order in which the companions give them.
//
//   parent to companion    NUMBER CR LF TEXT CR LF CR LF    the line TEXT is left out when it is empty
//   companion to parent    NUMBER CR LF TEXT CR LF CR LF    for each request one answer
//
// A companion that ends, is stopped, does not answer in time or answers anything else is
// replaced, and its request is given to its successor. So a request may be worked on
// twice; it is answered once.
//
// SIGTERM and SIGINT end the job: no further request is given out, and the companions end
// within the grace.
//
// Exit status: 0 when every request has its answer, 1 otherwise.
#include "supervisor_crew.h"
#include "supervisor_requests.h"
#include "supervisor_status.h"

#include <components/platform/debug_hooks.h>
#include <msg/msg.h>
#include <msg/sinks.h>

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>

enum { LOG_BYTES = 1 << 20, OLDER_LOGS = 3, MOST_COMPANIONS = 1000 };

// The handler of the signals gets no argument of ours.
static volatile sig_atomic_t asked_to_end;

typedef struct Options {
    CrewOrder crew;
    const char *log;
} Options;

static void on_ending_signal(int number) {
    (void) number;
    asked_to_end = 1;
}

// ---- The command line -----------------------------------------------------------------------------------------------

static const char *const usage = "usage: supervisor [--companions N] [--time-out MS] [--restarts N] [--grace MS] "
                                 "[--log FILE] PROGRAM [ARGUMENT...]";

static int number_option(const char *name, const char *text, int least, int most) {
    char *end = NULL;
    errno = 0;
    long number = text == NULL ? 0 : strtol(text, &end, 10);
    if (text == NULL || end == text || *end != '\0' || errno != 0 || number < least || number > most) {
        msg_fatal("%s wants a number from %d to %d.", name, least, most);
    }
    return (int) number;
}

// Takes one option and its value. Returns 0 when the word is none.
static int take_option(Options *options, const char *name, const char *value) {
    if (strcmp(name, "--companions") == 0) {
        options->crew.count = number_option(name, value, 1, MOST_COMPANIONS);
    } else if (strcmp(name, "--time-out") == 0) {
        options->crew.time_out = number_option(name, value, 1, 1 << 30);
    } else if (strcmp(name, "--restarts") == 0) {
        options->crew.restarts = number_option(name, value, 0, 1 << 30);
    } else if (strcmp(name, "--grace") == 0) {
        options->crew.grace = number_option(name, value, 0, 1 << 30);
    } else if (strcmp(name, "--log") == 0 && value != NULL) {
        options->log = value;
    } else {
        return 0;
    }
    return 1;
}

static Options read_options(char **argv) {
    Options options = {.crew = {.count = 4, .time_out = 5000, .restarts = 20, .grace = 1000}};
    char **word = argv + 1;
    while (*word != NULL && strncmp(*word, "--", 2) == 0) {
        if (!take_option(&options, word[0], word[1])) {
            msg_fatal("%s", usage);
        }
        word += 2;
    }
    if (*word == NULL) {
        msg_fatal("%s", usage);
    }
    options.crew.argv = word;
    return options;
}

// What happens is told to the log alone. What goes wrong stands on standard error too.
static void open_log(const char *path) {
    msg_clear_streams(MSG_INFO);
    if (path == NULL) {
        return;
    }
    FILE *log = msg_open_rotating_file(path, LOG_BYTES, OLDER_LOGS);
    if (log == NULL) {
        msg_fatal_syserr("Cannot open %s.", path);
    }
    msg_add_stream(MSG_INFO | MSG_WARNING | MSG_ERROR, log);
}

// ---- The job --------------------------------------------------------------------------------------------------------

// The signals arrive in ppoll alone: one that comes between the look at the flag and the
// wait is not lost.
static sigset_t catch_ending_signals(void) {
    struct sigaction action = {.sa_handler = on_ending_signal, .sa_flags = SA_RESTART};
    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigaddset(&blocked, SIGINT);
    sigprocmask(SIG_BLOCK, &blocked, &before);
    sigaction(SIGTERM, &action, NULL);
    sigaction(SIGINT, &action, NULL);
    sigdelset(&before, SIGTERM);
    sigdelset(&before, SIGINT);
    return before;
}

// Waits until a companion or the input has something, or a companion is out of time.
static void wait_for_work(Crew *crew, Requests *requests, const sigset_t *while_waiting) {
    struct pollfd *entries = crew_poll_entries(crew);
    int wants_input = crew_has_idle(crew) && requests_want_input(requests);
    entries[crew->order.count] = (struct pollfd){.fd = wants_input ? requests->fd : -1, .events = POLLIN};
    int milliseconds = crew_time_left(crew);
    struct timespec limit = {.tv_sec = milliseconds / 1000, .tv_nsec = milliseconds % 1000 * 1000000L};
    int ready = ppoll(entries, (nfds_t) crew->order.count + 1, milliseconds < 0 ? NULL : &limit, while_waiting);
    if (ready == -1) {
        return; // a signal; the flag is looked at before the next wait
    }
    if (entries[crew->order.count].revents != 0) {
        requests_read(requests);
    }
}

static int is_done(const Crew *crew, const Requests *requests) {
    return asked_to_end || crew->gave_up || requests->failed || (requests_ended(requests) && crew_is_idle(crew));
}

static void work(Crew *crew, Requests *requests, const sigset_t *while_waiting) {
    Status status = status_begin();
    while (!is_done(crew, requests)) {
        crew_feed(crew, requests);
        if (is_done(crew, requests)) {
            break;
        }
        wait_for_work(crew, requests, while_waiting);
        crew_collect(crew);
        status_show(&status, crew);
    }
    status_end(&status);
}

int main(int argc, char **argv) {
    platform_debug_hooks(&argc, argv);
    Options options = read_options(argv);
    open_log(options.log);
    sigset_t while_waiting = catch_ending_signals();
    Requests requests = {.fd = 0};
    Crew crew;
    crew_start(&crew, options.crew);
    work(&crew, &requests, &while_waiting);
    int complete = requests_ended(&requests) && crew_is_idle(&crew) && !crew.gave_up && !requests.failed;
    crew_stop(&crew);
    msg_print("%llu requests answered, %llu companions replaced.", crew.answered, crew.replaced);
    if (fflush(stdout) != 0) {
        msg_fatal_syserr("Cannot write the answers.");
    }
    return complete ? 0 : 1;
}
