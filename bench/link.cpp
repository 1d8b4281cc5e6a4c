// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Starting companions and connecting to them.
#include "link.h"

#include <components/platform/socket.h>

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace bench {

namespace {

constexpr int kAcceptSeconds = 10;

[[noreturn]] void give_up(const char *step) {
    std::perror(step);
    std::exit(1);
}

int require(int result, const char *step) {
    if (result < 0) {
        give_up(step);
    }
    return result;
}

int port_of(int listening) {
    sockaddr_in address = {};
    socklen_t size = sizeof address;
    require(getsockname(listening, reinterpret_cast<sockaddr *>(&address), &size), "getsockname");
    return ntohs(address.sin_port);
}

int listen_by_hand() {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int fd = require(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0), "socket");
    require(bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), "bind");
    require(listen(fd, 1), "listen");
    return fd;
}

int accept_by_hand(int listening) {
    const int on = 1;
    pollfd readable = {.fd = listening, .events = POLLIN, .revents = 0};
    poll(&readable, 1, kAcceptSeconds * 1000);
    const int fd = require(accept4(listening, nullptr, nullptr, SOCK_CLOEXEC), "accept");
    require(setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on), "TCP_NODELAY");
    close(listening);
    return fd;
}

void stand_on_null() {
    const int input = open("/dev/null", O_RDONLY);
    const int output = open("/dev/null", O_WRONLY);
    dup2(input, STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    close(input);
    close(output);
}

} // namespace

const std::string &companion_path() {
    static const std::string path =
        std::filesystem::read_symlink("/proc/self/exe").parent_path().append("zel_bench_companion").string();
    return path;
}

pid_t start_by_hand(const std::vector<const char *> &argv) {
    const pid_t pid = require(fork(), "fork");
    if (pid != 0) {
        return pid;
    }
    stand_on_null();
    execv(companion_path().c_str(), const_cast<char *const *>(argv.data()));
    _exit(1);
}

Link Link::by_library(Route route, const char *service) {
    const char *program = companion_path().c_str();
    if (route == Route::pair) {
        PairHandle *pair = platform_pair_parent_open_lp("ZEL_BENCH_PAIR", 1, 1, program, nullptr, program, service,
                                                        "pair", static_cast<char *>(nullptr));
        return {platform_pair_rx_fd(pair), platform_pair_companion_pid(pair), pair};
    }
    const int listening = require(platform_server_socket_open(0, 1, nullptr), "listen");
    const std::string port = std::to_string(port_of(listening));
    const pid_t pid = start_by_hand({program, service, "connect", port.c_str(), nullptr});
    return {require(platform_accept_timeout(listening, kAcceptSeconds), "accept"), pid, nullptr};
}

Link Link::by_hand(Route route, const char *service) {
    const char *program = companion_path().c_str();
    if (route == Route::pair) {
        int ends[2];
        require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), "socketpair");
        require(fcntl(ends[1], F_SETFD, 0), "fcntl");
        const std::string number = std::to_string(ends[1]);
        const pid_t pid = start_by_hand({program, service, "fd", number.c_str(), nullptr});
        close(ends[1]);
        return {ends[0], pid, nullptr};
    }
    const int listening = listen_by_hand();
    const std::string port = std::to_string(port_of(listening));
    const pid_t pid = start_by_hand({program, service, "bare-connect", port.c_str(), nullptr});
    return {accept_by_hand(listening), pid, nullptr};
}

Link::~Link() {
    if (pair_ != nullptr) {
        platform_pair_close(pair_);
    } else {
        close(fd_);
    }
    waitpid(pid_, nullptr, 0);
}

} // namespace bench
