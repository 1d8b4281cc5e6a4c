// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The support of the tests of the socket unit: connected sockets, a handler and an idle function that a test fills in.
#ifndef ZEL_TESTS_COMPONENTS_PLATFORM_SOCKET_SUPPORT_H
#define ZEL_TESTS_COMPONENTS_PLATFORM_SOCKET_SUPPORT_H

#include <components/platform/socket.h>
#include <support/child.h>

#include <functional>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <string>
#include <string_view>
#include <vector>

namespace zel::test {

// The first line and the further ones.
using Message = std::vector<std::string>;

// A descriptor that is closed where its scope ends.
struct Descriptor {
    explicit Descriptor(int number) : fd(number) {}
    ~Descriptor() { close(); }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    void close();
    int fd;
};

// A connected pair of stream sockets: the library works on one end, the test on the other.
struct SocketPair {
    SocketPair();
    Descriptor ours{-1};
    Descriptor theirs{-1};
};

// A buffer that is current in its scope.
struct CurrentBuffer {
    explicit CurrentBuffer(int32_t size = 4096);
    ~CurrentBuffer();
    CurrentBuffer(const CurrentBuffer &) = delete;
    CurrentBuffer &operator=(const CurrentBuffer &) = delete;
    MsgBuf *buffer;
};

// Whether the current buffer holds no more than this text, unparsed, at its start.
testing::AssertionResult buffer_holds(std::string_view text);

// A listening TCP socket on a free port of the loopback address.
struct Listener {
    Listener();
    Descriptor fd{-1};
    int port = 0;
    sockaddr_in address = {};
};

// A free port on which nobody listens: a connection to it is refused.
sockaddr_in refusing_address();

// A TCP connection to that address, not made by the library.
int connect_to(const sockaddr_in &address);

// An entry of an address list.
addrinfo entry_of(sockaddr_in &address, addrinfo *next = nullptr);

// send_text and put_into end the test when they fail.
void send_text(int fd, std::string_view text);
// Text as if it had been received.
void put_into_buffer(std::string_view text);

// All that waits on a socket, without waiting for it.
std::string waiting_on(int fd);
bool is_open(int fd);
bool is_close_on_exec(int fd);
bool has_no_delay(int fd);

// The callbacks that are handed to the library run these; each test sets what it needs.
extern std::function<int(int, char *, char **)> on_message;
extern std::function<void()> on_idle;
int handle_message(int socket, char *first_line, char **lines);
int run_idle();

Message message_of(char *first_line, char **lines);

// A message of that many lines, "0", "1", "2" and so on: as it travels, and as a handler gets it.
std::string numbered(int lines);
Message numbers(int lines);

// Keeps every message that is dispatched in its scope; the handler's result is for the test to choose.
struct Dispatched {
    Dispatched();
    ~Dispatched() { on_message = nullptr; }
    Dispatched(const Dispatched &) = delete;
    Dispatched &operator=(const Dispatched &) = delete;
    std::vector<Message> messages;
    int result = 1;
};

// Runs an idle function in its scope and counts its calls.
struct Idle {
    explicit Idle(std::function<void(int call)> body = {});
    ~Idle() { on_idle = nullptr; }
    Idle(const Idle &) = delete;
    Idle &operator=(const Idle &) = delete;
    int calls = 0;
};

// Runs the body in a child whose diagnostic lines go to standard output.
Outcome run_with_reports(const std::function<void()> &body);

// The text of an assertion of the unit.
std::string assertion_text(const std::string &function, const std::string &condition);

inline constexpr const char *kRoomCondition = "gMsgBuf->p2 + len - gMsgBuf->pBuf < gMsgBuf->len";

} // namespace zel::test

#endif
