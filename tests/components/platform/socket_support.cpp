// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The support of the tests of the socket unit.
#include "socket_support.h"

#include <msg/msg.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <unistd.h>

namespace zel::test {

namespace {

void require(bool condition, const char *what) {
    if (!condition) {
        perror(what);
        abort();
    }
}

int tcp_socket() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    require(fd != -1, "socket");
    return fd;
}

} // namespace

std::function<int(int, char *, char **)> on_message;
std::function<void()> on_idle;

void Descriptor::close() {
    if (fd != -1) {
        ::close(fd);
    }
    fd = -1;
}

SocketPair::SocketPair() {
    std::array<int, 2> fds = {};
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds.data()) == 0, "socketpair");
    ours.fd = fds[0];
    theirs.fd = fds[1];
}

CurrentBuffer::CurrentBuffer(int32_t size) : buffer(platform_msgbuf_create(size)) {
    platform_msgbuf_set(buffer);
}

CurrentBuffer::~CurrentBuffer() {
    platform_msgbuf_set(nullptr);
    platform_msgbuf_free(buffer);
}

testing::AssertionResult buffer_holds(std::string_view text) {
    const std::string_view held(gMsgBuf->p1, static_cast<size_t>(gMsgBuf->p2 - gMsgBuf->p1));
    if (gMsgBuf->p1 != gMsgBuf->pBuf || held != text) {
        return testing::AssertionFailure() << "at " << gMsgBuf->p1 - gMsgBuf->pBuf << ": " << held;
    }
    return testing::AssertionSuccess();
}

Listener::Listener() {
    fd.fd = tcp_socket();
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    require(bind(fd.fd, reinterpret_cast<sockaddr *>(&address), length) == 0, "bind");
    require(listen(fd.fd, 8) == 0, "listen");
    require(getsockname(fd.fd, reinterpret_cast<sockaddr *>(&address), &length) == 0, "getsockname");
    port = ntohs(address.sin_port);
}

sockaddr_in refusing_address() {
    return Listener().address;
}

int connect_to(const sockaddr_in &address) {
    const int fd = tcp_socket();
    require(connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0, "connect");
    return fd;
}

addrinfo entry_of(sockaddr_in &address, addrinfo *next) {
    addrinfo entry = {};
    entry.ai_family = AF_INET;
    entry.ai_socktype = SOCK_STREAM;
    entry.ai_protocol = IPPROTO_TCP;
    entry.ai_addr = reinterpret_cast<sockaddr *>(&address);
    entry.ai_addrlen = sizeof address;
    entry.ai_next = next;
    return entry;
}

void send_text(int fd, std::string_view text) {
    require(send(fd, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size()), "send");
}

void put_into_buffer(std::string_view text) {
    require(gMsgBuf->p2 - gMsgBuf->pBuf + static_cast<int32_t>(text.size()) < gMsgBuf->len, "room in the buffer");
    memcpy(gMsgBuf->p2, text.data(), text.size());
    gMsgBuf->p2 += text.size();
}

std::string waiting_on(int fd) {
    std::string text;
    std::array<char, 4096> piece;
    for (;;) {
        const ssize_t count = recv(fd, piece.data(), piece.size(), MSG_DONTWAIT);
        if (count <= 0) {
            return text;
        }
        text.append(piece.data(), static_cast<size_t>(count));
    }
}

bool is_open(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

bool is_close_on_exec(int fd) {
    return fcntl(fd, F_GETFD) == FD_CLOEXEC;
}

bool has_no_delay(int fd) {
    int on = 0;
    socklen_t length = sizeof on;
    return getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, &length) == 0 && on != 0;
}

int handle_message(int socket, char *first_line, char **lines) {
    return on_message(socket, first_line, lines);
}

int run_idle() {
    on_idle();
    return 0;
}

Message message_of(char *first_line, char **lines) {
    Message message = {first_line};
    for (; *lines != nullptr; ++lines) {
        message.emplace_back(*lines);
    }
    return message;
}

std::string numbered(int lines) {
    std::string text;
    for (int line = 0; line < lines; ++line) {
        text += std::to_string(line) + "\r\n";
    }
    return text + "\r\n";
}

Message numbers(int lines) {
    Message message;
    for (int line = 0; line < lines; ++line) {
        message.push_back(std::to_string(line));
    }
    return message;
}

Dispatched::Dispatched() {
    on_message = [this](int /*socket*/, char *first_line, char **lines) {
        messages.push_back(message_of(first_line, lines));
        return result;
    };
}

Idle::Idle(std::function<void(int call)> body) {
    on_idle = [this, body = std::move(body)] {
        ++calls;
        if (body) {
            body(calls);
        }
    };
}

Outcome run_with_reports(const std::function<void()> &body) {
    return run_in_child([&body] {
        unsetenv("ZEL_PERROR");
        unsetenv("ZEL_MSGERR_WRAP");
        msg_add_stream(MSG_DIAG, stdout);
        body();
    });
}

std::string assertion_text(const std::string &function, const std::string &condition) {
    return "components/platform/socket: " + function + ": Assertion `" + condition + "' failed.\n";
}

} // namespace zel::test
