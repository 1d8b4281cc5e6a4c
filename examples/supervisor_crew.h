// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The companions of the supervisor: each has a place, and a successor takes the place of
// one that fails, with the request that was not answered.
#ifndef ZEL_EXAMPLES_SUPERVISOR_CREW_H
#define ZEL_EXAMPLES_SUPERVISOR_CREW_H

#include "supervisor_requests.h"

#include <components/platform/socket.h>
#include <components/platform/zel_pair_connection.h>

#include <poll.h>

// Times are in milliseconds.
typedef struct CrewOrder {
    char **argv; // the program and its arguments
    int count;
    int time_out;
    int restarts;
    int grace;
} CrewOrder;

// A companion's place. Its request is kept until it is answered.
typedef struct Place {
    PairHandle *pair;
    MsgBuf *buffer;
    unsigned long long number; // of the request; 0 when there is none
    size_t length;
    char *text;         // REQUEST_MOST bytes
    long long deadline; // of the answer
} Place;

typedef struct Crew {
    CrewOrder order;
    Place *places;
    struct pollfd *entries;
    unsigned long long asked;    // requests given out
    unsigned long long answered; // requests with their answer
    unsigned long long replaced; // companions
    int recent;                  // companions replaced since window_begin
    long long window_begin;
    int gave_up; // too many were replaced, or one could not be started
} Crew;

// The monotonic clock.
long long crew_now(void);

// Starts the companions. One that cannot be started makes the crew give up.
void crew_start(Crew *crew, CrewOrder order);

// Gives each idle companion a request, as far as there are any.
void crew_feed(Crew *crew, Requests *requests);

// Returns an entry for each companion, and room for one more after them.
struct pollfd *crew_poll_entries(Crew *crew);

// Takes the answers that are there and prints them. Replaces the companions that failed.
void crew_collect(Crew *crew);

// The time until a companion is late with its answer; -1 when none is asked.
int crew_time_left(const Crew *crew);

// How many companions work on a request.
int crew_busy(const Crew *crew);

int crew_is_idle(const Crew *crew);
int crew_has_idle(const Crew *crew);

// Ends and releases all companions within the grace.
void crew_stop(Crew *crew);

#endif
