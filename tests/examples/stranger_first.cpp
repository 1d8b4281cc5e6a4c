// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A companion for word_count --hybrid before which somebody else connects; then it becomes the companion that
// STRANGER_THEN names. STRANGER is "another user", which only root can play, or "gone": closed before it is accepted.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr uid_t kStranger = 54321;

int connect_to_parent() {
    int port = 0;
    sscanf(getenv("WORD_COUNT_PAIR"), "%*d %d", &port);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<in_port_t>(port));
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    return connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 ? fd : -1;
}

// Stays until it is refused: 0 then, else another exit status.
int play_another_user() {
    if (setuid(kStranger) != 0) {
        return 1;
    }
    const int fd = connect_to_parent();
    char byte;
    return fd != -1 && recv(fd, &byte, 1, 0) <= 0 ? 0 : 2;
}

bool is_stopped(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    std::getline(file, text);
    const size_t name_end = text.rfind(") ");
    return name_end != std::string::npos && text[name_end + 2] == 'T';
}

// The parent stands still meanwhile, so that it finds the connection closed.
void play_gone() {
    const pid_t parent = getppid();
    kill(parent, SIGSTOP);
    while (!is_stopped(parent)) {
    }
    close(connect_to_parent());
    kill(parent, SIGCONT);
}

} // namespace

int main() {
    if (strcmp(getenv("STRANGER"), "gone") == 0) {
        play_gone();
    } else {
        const pid_t stranger = fork();
        if (stranger == 0) {
            _exit(play_another_user());
        }
        int status = -1;
        if (waitpid(stranger, &status, 0) != stranger || status != 0) {
            return 90;
        }
    }
    execl(getenv("STRANGER_THEN"), "word_count_companion", nullptr);
    return 91;
}
