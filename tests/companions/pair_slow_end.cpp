// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A companion that takes its time to end: it sends 0 when it is ready, and when SIGTERM has come it goes on for the
// milliseconds of its first argument, then sends the number of SIGTERMs that it got and ends.
#include "companion.h"

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <poll.h>

namespace {

volatile sig_atomic_t terminations = 0;

void count(int /*signal*/) {
    terminations = terminations + 1;
}

void go_on_for(long milliseconds) {
    struct timespec rest = {.tv_sec = milliseconds / 1000, .tv_nsec = milliseconds % 1000 * 1000000};
    while (nanosleep(&rest, &rest) == -1) {
    }
}

// SIGTERM gets through only while the process waits here, so that none is missed. False when the stream has ended.
bool wait_for_termination(int fd, const sigset_t *unblocked) {
    struct pollfd entry = {.fd = fd, .events = POLLIN, .revents = 0};
    while (terminations == 0) {
        if (ppoll(&entry, 1, nullptr, unblocked) > 0) {
            return false;
        }
    }
    return true;
}

} // namespace

int main(int argc, char **argv) {
    sigset_t blocked;
    sigset_t unblocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigprocmask(SIG_BLOCK, &blocked, &unblocked);
    struct sigaction action = {};
    action.sa_handler = count;
    sigaction(SIGTERM, &action, nullptr);

    PairHandle *ph = zel::test::open_or_exit(0, 1);
    if (argc < 2 || !zel::test::send_value(ph, 0)) {
        return zel::test::kSendFailed;
    }
    if (!wait_for_termination(platform_pair_rx_fd(ph), &unblocked)) {
        return zel::test::kNotInterrupted;
    }
    sigprocmask(SIG_SETMASK, &unblocked, nullptr);
    go_on_for(strtol(argv[1], nullptr, 10));
    if (!zel::test::send_value(ph, terminations)) {
        return zel::test::kSendFailed;
    }
    platform_pair_close(ph);
    return zel::test::kServed;
}
