// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A companion for word_count that fails in the way that FAULT names. Until then it behaves.
#include <components/platform/socket.h>
#include <components/platform/zel_pair_connection.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

namespace {

enum ExitStatus { kNoFault = 90, kNoPair = 91, kParentGone = 92, kFault = 3 };

std::string fault;
PairHandle *pair;

void receive(void *data, size_t length) {
    if (recv(platform_pair_rx_fd(pair), data, length, MSG_WAITALL) != static_cast<ssize_t>(length)) {
        exit(kParentGone);
    }
}

void send_ready(int32_t value) {
    platform_pair_send(pair, &value, sizeof value);
}

// Stays alive for as long as it is let.
[[noreturn]] void linger() {
    signal(SIGTERM, SIG_IGN);
    for (;;) {
        pause();
    }
}

void receive_text() {
    std::array<char, 65536> chunk;
    int32_t length;
    for (receive(&length, sizeof length); length > 0; receive(&length, sizeof length)) {
        receive(chunk.data(), static_cast<size_t>(length));
    }
}

void fail_in_text() {
    char byte;
    receive(&byte, 1);
    if (fault == "exit in text") {
        exit(kFault);
    }
    if (fault == "killed in text") {
        raise(SIGKILL);
    }
    if (fault == "hangs up in text") {
        platform_pair_close(pair);
        linger();
    }
}

int on_request(int socket, char *first_line, char ** /*lines*/) {
    if (strcmp(first_line, "quit") == 0) {
        if (fault == "deaf") {
            linger();
        }
        exit(fault == "exit after quit" ? kFault : 0);
    }
    if (fault == "exit before ready") {
        exit(kFault);
    }
    send_ready(fault == "not ready" ? 7 : 1);
    if (fault.ends_with(" in text")) {
        fail_in_text();
    }
    receive_text();
    if (fault == "exit before answer") {
        exit(kFault);
    }
    const char *first = fault.starts_with("answer ") ? fault.c_str() + strlen("answer ") : "counted 1 2 3";
    return platform_send_message(socket, first, fault == "bad row" ? "x y" : "2 a", static_cast<char *>(nullptr));
}

} // namespace

int main() {
    const char *name = getenv("FAULT");
    if (name == nullptr) {
        return kNoFault;
    }
    fault = name;
    if (fault == "exit at once") {
        return kFault;
    }
    pair = platform_pair_child_open("WORD_COUNT_PAIR", 0, 1);
    if (platform_pair_rx_fd(pair) == -1) {
        return kNoPair;
    }
    platform_msgbuf_set(platform_msgbuf_create(65536));
    platform_message_loop(platform_pair_rx_fd(pair), on_request, nullptr, 0);
    return kParentGone;
}
