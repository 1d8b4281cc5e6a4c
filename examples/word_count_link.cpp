// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Starting, watching, ending and reaping word_count's companion.
#include "word_count_link.h"

#include "word_count_protocol.h"

#include <components/platform/environment.h>
#include <components/platform/message_lines.h>
#include <components/platform/pair_control.h>
#include <components/platform/process_info.h>
#include <components/platform/socket.h>
#include <msg/msg.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <poll.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace word_count {

namespace {

// The ports that the hybrid arrangement may listen on; the first free one is taken.
constexpr int kFirstPort = 20300;
constexpr int kEndPort = 21300;

constexpr int kConnectStep = 1000; // milliseconds between two looks at a companion that has not connected

constexpr int32_t kEndTime = 5000; // milliseconds from "quit" to the companion's end
constexpr int32_t kNoLimit = -1;

// Starts the program with its end of a new pair under that name. SIGPIPE is ignored:
// sending to a companion that has died is an error to report. The companion shares our
// standard descriptors, so that its errors are seen.
bool open_pair(Companion &companion, const char *env_name) {
    const int stdio_fds[3] = {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO};
    const char *program = companion.program.c_str();
    PairHandle *pair =
        platform_pair_parent_open_lp(env_name, 1, 1, program, stdio_fds, program, static_cast<char *>(nullptr));
    if (platform_pair_ok(pair)) {
        companion.pair = pair;
        return true;
    }
    msg_error("The companion cannot be started: %s: %s.", pair->error_text, platform_pair_errstr(pair));
    platform_pair_close(pair);
    return false;
}

// ---- The hybrid arrangement ---------------------------------------------------------------------------------------
//
// The companion reaches us over TCP: its variable holds a port instead of a descriptor.
// platform_pair_parent_open_lp starts it all the same, so that a handle can watch and reap
// it. That call sets the variable that it is given. So it is given a name that nobody
// reads. The two variables that the companion reads are set here, and it inherits them.
// When it has connected, the accepted socket replaces the local one in the handle, and the
// kind becomes hybrid. From then on every operation goes over TCP.

constexpr const char *kStartName = "WORD_COUNT_START";

void announce_port(int port) {
    const std::string value = std::to_string(platform_getpid()) + " " + std::to_string(port) + " pid-rtx_fd_w";
    platform_setenv(kPairName, value.c_str());
    platform_setenv(kHybridName, "1");
}

// A connection that comes within that time, or PLATFORM_SOCKET_NOT_READY.
int accept_within(int listening, int time) {
    pollfd entry = {.fd = listening, .events = POLLIN, .revents = 0};
    return poll(&entry, 1, time) == 1 ? platform_accept_retry(listening, nullptr, nullptr) : PLATFORM_SOCKET_NOT_READY;
}

// Whoever knows the port can connect, and any user of the machine can find it. The
// companion runs as our own user.
bool is_of_own_user(int fd) {
    const int64_t user = platform_peer_user(fd);
    if (user == static_cast<int64_t>(geteuid())) {
        return true;
    }
    if (user == -1) {
        msg_warn("A connection was refused: its user cannot be told: %s.", strerror(errno));
    } else {
        msg_warn("A connection of user %s was refused: the companion runs as user %s.", std::to_string(user).c_str(),
                 std::to_string(geteuid()).c_str());
    }
    return false;
}

// Waits for the connection as long as the companion lives: it may stand in a debugger.
// Strangers are refused, and the wait goes on. Returns PLATFORM_SOCKET_FAILED when the
// companion did not connect.
int accept_companion(PairHandle *pair, int listening) {
    int fd = PLATFORM_SOCKET_NOT_READY;
    for (bool alive = true; fd != PLATFORM_SOCKET_FAILED && alive;) {
        alive = platform_pair_companion_alive(pair) == 1;
        fd = accept_within(listening, alive ? kConnectStep : 0);
        if (fd >= 0 && is_of_own_user(fd)) {
            return fd;
        }
        if (fd >= 0) {
            platform_socket_close(fd);
        }
    }
    return PLATFORM_SOCKET_FAILED;
}

void use_connection(PairHandle *pair, int fd) {
    close(pair->rx_fd);
    pair->rx_fd = fd;
    pair->tx_fd = fd;
    pair->kind = PLATFORM_PAIR_KIND_HYBRID;
    pair->hybrid_environment = 1;
}

bool connect_companion(Companion &companion, int listening) {
    const int fd = accept_companion(companion.pair, listening);
    platform_socket_close(listening);
    if (fd == PLATFORM_SOCKET_FAILED) {
        give_up_companion(companion, "The companion did not connect.");
        return false;
    }
    use_connection(companion.pair, fd);
    return true;
}

bool start_hybrid(Companion &companion) {
    int port;
    const int listening = platform_server_socket_open(kFirstPort, kEndPort, &port);
    if (listening == -1) {
        msg_error("No port from %d to %d can be opened on localhost.", kFirstPort, kEndPort - 1);
        return false;
    }
    announce_port(port);
    if (!open_pair(companion, kStartName)) {
        platform_socket_close(listening);
        return false;
    }
    return connect_companion(companion, listening);
}

// ---- The end ------------------------------------------------------------------------------------------------------

// A companion under a debugger ends when the developer lets it.
int32_t end_time() {
    const char *request = platform_getenv("ZEL_DEBUG");
    const bool debugged = request != nullptr && *request != '\0';
    return debugged ? kNoLimit : kEndTime;
}

// Waits for the end, and sends SIGKILL when it takes too long. True when no signal was
// needed.
bool wait_or_kill(PairHandle *pair) {
    if (platform_pair_wait(pair, end_time()) == 1) {
        return true;
    }
    kill(platform_pair_companion_pid(pair), SIGKILL);
    platform_pair_wait(pair, kNoLimit);
    return false;
}

std::string describe_ending(const PairHandle *pair) {
    const int32_t signal = platform_pair_child_term_signal(pair);
    if (signal == 0) {
        return "exit status " + std::to_string(platform_pair_child_exit_status(pair));
    }
    const char *name = sigdescr_np(signal);
    return "signal " + std::to_string(signal) + " (" + (name == nullptr ? "unnamed" : name) + ")";
}

// A program that could not be executed leaves exit status 1, and its reason with the
// handle.
void explain_failed_start(const Companion &companion) {
    const int32_t error = platform_pair_exec_error(companion.pair);
    if (error != 0) {
        MSG_CONT("%s: %s.", visible(companion.program, kVisibleName).c_str(),
                 std::generic_category().message(error).c_str());
    }
}

void close_pair(Companion &companion) {
    platform_pair_close(companion.pair);
    companion.pair = nullptr;
}

// The error message about a companion that has ended: what happened, and how it ended.
void report_loss(Companion &companion, const std::string &what, bool by_itself) {
    msg_error("%s", what.c_str());
    MSG_CONT("It ended with %s%s.", describe_ending(companion.pair).c_str(), by_itself ? "" : ", sent by its parent");
    explain_failed_start(companion);
    close_pair(companion);
}

} // namespace

// SIGCHLD may be ignored by inheritance: the system would reap the companion, and its
// exit status would be lost. An inherited hybrid variable would send a local companion to
// a port.
bool start_companion(Companion &companion, bool hybrid) {
    signal(SIGCHLD, SIG_DFL);
    if (hybrid) {
        return start_hybrid(companion);
    }
    platform_setenv(kHybridName, "0");
    return open_pair(companion, kPairName);
}

bool end_companion(Companion &companion) {
    PairHandle *pair = companion.pair;
    send_message(pair, {kQuit});
    const bool by_itself = wait_or_kill(pair);
    if (platform_pair_child_exit_status(pair) != 0 || platform_pair_child_term_signal(pair) != 0) {
        report_loss(companion, by_itself ? "The companion failed." : "The companion did not end when it was asked to.",
                    by_itself);
        return false;
    }
    msg_print("The companion ended with %s.", describe_ending(pair).c_str());
    close_pair(companion);
    return true;
}

// The shutdown is the end of the stream for a companion that still lives and waits for
// more of a text.
void give_up_companion(Companion &companion, const std::string &what) {
    shutdown(platform_pair_tx_fd(companion.pair), SHUT_RDWR);
    report_loss(companion, what, wait_or_kill(companion.pair));
}

} // namespace word_count
