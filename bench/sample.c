/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * The clocks of a program that is one sample. */
#include "sample.h"

#include <stdio.h>
#include <sys/resource.h>
#include <time.h>

static double own_at_begin;
static double children_at_begin;
static double wall_at_begin;

static double seconds_of(clockid_t clock) {
    struct timespec now;
    clock_gettime(clock, &now);
    return (double) now.tv_sec + (double) now.tv_nsec * 1e-9;
}

static double seconds_of_children(void) {
    struct rusage usage;
    getrusage(RUSAGE_CHILDREN, &usage);
    return (double) (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           (double) (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
}

void sample_begin(void) {
    children_at_begin = seconds_of_children();
    wall_at_begin = seconds_of(CLOCK_MONOTONIC);
    own_at_begin = seconds_of(CLOCK_PROCESS_CPUTIME_ID);
}

void sample_end(long iterations) {
    const double own = seconds_of(CLOCK_PROCESS_CPUTIME_ID) - own_at_begin;
    const double wall = seconds_of(CLOCK_MONOTONIC) - wall_at_begin;
    const double children = seconds_of_children() - children_at_begin;
    printf("%.12g %.12g\n", (own + children) / (double) iterations, wall / (double) iterations);
}
