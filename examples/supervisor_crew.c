// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The companions of the supervisor.
#include "supervisor_crew.h"

#include <components/platform/message_lines.h>
#include <components/platform/pair_control.h>
#include <malloc/zel_malloc.h>
#include <msg/msg.h>

#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

enum { WINDOW = 10000, ANSWER_MOST = 65536, NUMBER_SIZE = 24 };

long long crew_now(void) {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1000LL + time.tv_nsec / 1000000;
}

static int until(long long deadline) {
    long long left = deadline - crew_now();
    if (left < 0) {
        return 0;
    }
    return left > INT_MAX ? INT_MAX : (int) left;
}

// ---- Requests and answers -------------------------------------------------------------------------------------------

static size_t number_text(const Place *place, char text[NUMBER_SIZE]) {
    return (size_t) snprintf(text, NUMBER_SIZE, "%llu", place->number);
}

// A request that cannot be sent is not answered: the companion is found ended.
static void ask(const Crew *crew, Place *place) {
    char number[NUMBER_SIZE];
    const PlatformLine lines[2] = {{number, number_text(place, number)}, {place->text, place->length}};
    place->deadline = crew_now() + crew->order.time_out;
    platform_send_message_lines(platform_pair_tx_fd(place->pair), lines, place->length == 0 ? 1 : 2);
}

static int is_answer(const Place *place, const PlatformMessage *message) {
    char number[NUMBER_SIZE];
    size_t length = number_text(place, number);
    const PlatformLine *first = message->lines;
    return place->number != 0 && message->count <= 2 && first->length == length &&
           memcmp(first->text, number, length) == 0;
}

static void print_answer(const PlatformMessage *message) {
    fwrite(message->lines[0].text, 1, message->lines[0].length, stdout);
    if (message->count == 2) {
        putchar(' ');
        fwrite(message->lines[1].text, 1, message->lines[1].length, stdout);
    }
    putchar('\n');
}

// Gets each message of a companion.
static int on_message(int socket, const PlatformMessage *message, void *user) {
    (void) socket;
    Place *place = user;
    if (!is_answer(place, message)) {
        return 0;
    }
    print_answer(message);
    place->number = 0;
    return 1;
}

// Takes what a companion has sent. Returns what is wrong with it, null for nothing.
static const char *receive(Place *place) {
    platform_msgbuf_set(place->buffer);
    int result;
    do {
        result = platform_message_wait(platform_pair_rx_fd(place->pair), on_message, place, 0);
    } while (result == PLATFORM_MESSAGE_HANDLED);
    switch (result) {
    case PLATFORM_MESSAGE_TIMED_OUT:
        return NULL;
    case PLATFORM_MESSAGE_STOPPED:
        return "gave a wrong answer";
    case PLATFORM_MESSAGE_TOO_LONG:
        return "gave an answer that is too long";
    default:
        return "ended";
    }
}

// ---- Companions -----------------------------------------------------------------------------------------------------

// The companion has the standard error of the supervisor and no other input or output than
// its pair. The supervisor's blocked signals are not its own.
static void start_companion(Crew *crew, Place *place) {
    const int null_fd = platform_null_fd_open();
    const int standards[3] = {null_fd, null_fd, STDERR_FILENO};
    const PlatformPairSpawnOptions options = {.size = sizeof options,
                                              .stdio_fds = standards,
                                              .flags = PLATFORM_PAIR_SPAWN_IGNORE_SIGPIPE |
                                                       PLATFORM_PAIR_SPAWN_DEFAULT_SIGNALS |
                                                       PLATFORM_PAIR_SPAWN_CLOSE_OTHERS};
    const char *program = crew->order.argv[0];
    PairHandle *pair = platform_pair_spawn("SUPERVISOR_PAIR", program, crew->order.argv, &options);
    platform_null_fd_close(null_fd);
    if (!platform_pair_ok(pair)) {
        msg_error("%s cannot be started: %s.", program, platform_pair_errstr(pair));
        crew->gave_up = 1;
        platform_pair_close(pair);
        return;
    }
    msg_print("Companion %d started.", (int) platform_pair_companion_pid(pair));
    place->pair = pair;
}

static void tell_end(const PairHandle *pair, const char *why) {
    int pid = (int) platform_pair_companion_pid(pair);
    int signal = (int) platform_pair_child_term_signal(pair);
    if (signal != 0) {
        msg_print("Companion %d %s: signal %d.", pid, why, signal);
    } else {
        msg_print("Companion %d %s: exit status %d.", pid, why, (int) platform_pair_child_exit_status(pair));
    }
}

// Ends the companion of a place, whatever it does, and clears the place for another.
static void end_companion(Place *place, int grace, const char *why) {
    platform_pair_stop(place->pair, grace);
    tell_end(place->pair, why);
    platform_pair_close(place->pair);
    place->pair = NULL;
    platform_msgbuf_reset(place->buffer); // half an answer
}

static void count_replacement(Crew *crew) {
    long long now = crew_now();
    if (now - crew->window_begin > WINDOW) {
        crew->window_begin = now;
        crew->recent = 0;
    }
    crew->replaced++;
    crew->recent++;
    if (crew->recent > crew->order.restarts) {
        msg_error("More than %d companions failed within %d seconds.", crew->order.restarts, WINDOW / 1000);
        crew->gave_up = 1;
    }
}

// The successor gets the request that was not answered.
static void replace_companion(Crew *crew, Place *place, const char *why) {
    end_companion(place, 0, why);
    count_replacement(crew);
    if (crew->gave_up) {
        return;
    }
    start_companion(crew, place);
    if (place->pair != NULL && place->number != 0) {
        ask(crew, place);
    }
}

// ---- The crew -------------------------------------------------------------------------------------------------------

void crew_start(Crew *crew, CrewOrder order) {
    const size_t count = (size_t) order.count;
    *crew = (Crew){.order = order, .window_begin = crew_now()};
    crew->places = zel_calloc(count, sizeof *crew->places, "crew_start", "the places");
    crew->entries = zel_calloc(count + 1, sizeof *crew->entries, "crew_start", "the poll entries");
    for (int i = 0; i < order.count && !crew->gave_up; ++i) {
        Place *place = &crew->places[i];
        place->buffer = platform_msgbuf_create(ANSWER_MOST);
        place->text = zel_malloc(REQUEST_MOST, "crew_start", "a request");
        start_companion(crew, place);
    }
}

// The text is kept in the place: a successor may need it.
void crew_feed(Crew *crew, Requests *requests) {
    for (int i = 0; i < crew->order.count; ++i) {
        Place *place = &crew->places[i];
        const char *line;
        if (place->pair == NULL || place->number != 0 || !requests_take(requests, &line, &place->length)) {
            continue;
        }
        memcpy(place->text, line, place->length);
        place->number = ++crew->asked;
        ask(crew, place);
    }
}

struct pollfd *crew_poll_entries(Crew *crew) {
    for (int i = 0; i < crew->order.count; ++i) {
        const PairHandle *pair = crew->places[i].pair;
        crew->entries[i] = (struct pollfd){.fd = pair == NULL ? -1 : platform_pair_rx_fd(pair), .events = POLLIN};
    }
    return crew->entries;
}

static void collect_from(Crew *crew, Place *place, int readable) {
    const unsigned long long asked = place->number;
    const char *failure = readable ? receive(place) : NULL;
    if (asked != 0 && place->number == 0) {
        crew->answered++;
    }
    if (failure == NULL && place->number != 0 && crew_now() >= place->deadline) {
        failure = "did not answer in time";
    }
    if (failure != NULL) {
        replace_companion(crew, place, failure);
    }
}

void crew_collect(Crew *crew) {
    for (int i = 0; i < crew->order.count && !crew->gave_up; ++i) {
        if (crew->places[i].pair != NULL) {
            collect_from(crew, &crew->places[i], crew->entries[i].revents != 0);
        }
    }
}

int crew_time_left(const Crew *crew) {
    int least = -1;
    for (int i = 0; i < crew->order.count; ++i) {
        const Place *place = &crew->places[i];
        const int left = place->number == 0 ? -1 : until(place->deadline);
        least = left != -1 && (least == -1 || left < least) ? left : least;
    }
    return least;
}

int crew_busy(const Crew *crew) {
    int busy = 0;
    for (int i = 0; i < crew->order.count; ++i) {
        busy += crew->places[i].number != 0;
    }
    return busy;
}

int crew_is_idle(const Crew *crew) {
    return crew_busy(crew) == 0;
}

int crew_has_idle(const Crew *crew) {
    return crew_busy(crew) < crew->order.count;
}

// A companion that runs has not been reaped: the number is still its own.
static void ask_to_end(PairHandle *pair) {
    if (pair != NULL && platform_pair_wait(pair, 0) == 0) {
        kill(platform_pair_companion_pid(pair), SIGTERM);
        kill(platform_pair_companion_pid(pair), SIGCONT);
    }
}

// All are asked before the first is waited for: the grace is one for all of them.
void crew_stop(Crew *crew) {
    const long long deadline = crew_now() + crew->order.grace;
    for (int i = 0; i < crew->order.count; ++i) {
        ask_to_end(crew->places[i].pair);
    }
    for (int i = 0; i < crew->order.count; ++i) {
        Place *place = &crew->places[i];
        if (place->pair != NULL) {
            end_companion(place, until(deadline), "ended");
        }
        platform_msgbuf_free(place->buffer);
        zel_free(place->text);
    }
    platform_msgbuf_set(NULL);
    zel_free(crew->places);
    zel_free(crew->entries);
}
