// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The line of the supervisor on a terminal.
#include "supervisor_status.h"

#include <stdio.h>
#include <unistd.h>

enum { PAUSE = 200, WIDTH = 60 };

// The cursor rests at the beginning of the line: a warning stands over it.
static void write_line(const char *text) {
    fprintf(stderr, "%-*.*s\r", WIDTH, WIDTH, text);
}

Status status_begin(void) {
    return (Status){.on_terminal = isatty(STDERR_FILENO) == 1, .next = crew_now() + PAUSE};
}

void status_show(Status *status, const Crew *crew) {
    if (!status->on_terminal || crew_now() < status->next) {
        return;
    }
    char text[WIDTH + 1];
    snprintf(text, sizeof text, "%llu answered, %d at work, %llu replaced", crew->answered, crew_busy(crew),
             crew->replaced);
    write_line(text);
    status->shown = 1;
    status->next = crew_now() + PAUSE;
}

void status_end(const Status *status) {
    if (status->shown) {
        write_line("");
    }
}
