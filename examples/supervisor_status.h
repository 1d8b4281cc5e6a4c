// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The line of the supervisor on a terminal: answers so far, companions that work, and
// those that were replaced. It goes to standard error, and only when that is a terminal.
#ifndef ZEL_EXAMPLES_SUPERVISOR_STATUS_H
#define ZEL_EXAMPLES_SUPERVISOR_STATUS_H

#include "supervisor_crew.h"

typedef struct Status {
    int on_terminal;
    int shown;
    long long next; // the line stays as it is until then
} Status;

Status status_begin(void);

// Shows the line, at most five times a second.
void status_show(Status *status, const Crew *crew);

// Wipes the line out.
void status_end(const Status *status);

#endif
