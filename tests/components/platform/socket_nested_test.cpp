// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Handlers and idle functions that receive messages themselves, and the stack that this takes.
#include "socket_support.h"

#include <support/interpose.h>

#include <sys/mman.h>
#include <sys/resource.h>
#include <ucontext.h>

namespace {

using namespace zel::test;
namespace hook = zel::test::hook;

TEST(NestedLoops, TheLinesOfAMessageStayWhileAnotherBufferServesTheHandler) {
    const CurrentBuffer inner;
    const CurrentBuffer outer;
    put_into_buffer(numbered(300));
    std::vector<Message> messages;
    on_message = [&](int, char *first_line, char **lines) {
        if (messages.empty()) {
            messages.emplace_back();
            platform_msgbuf_set(inner.buffer);
            put_into_buffer(numbered(200));
            platform_process_messages(-1, handle_message);
            platform_msgbuf_set(outer.buffer);
        }
        messages.push_back(message_of(first_line, lines));
        return 1;
    };
    EXPECT_EQ(platform_get_one_message(-1, handle_message, nullptr, 0), 1);
    EXPECT_EQ(messages, (std::vector<Message>{{}, numbers(200), numbers(300)}));
    EXPECT_TRUE(buffer_holds(""));
    on_message = nullptr;
}

#ifndef __SANITIZE_ADDRESS__ // makes every frame larger, and watches over the stacks itself
constexpr int kDeep = 1000;

// How deep the receiving goes. These handlers allocate nothing.
int depth = 0;

int get_one_more(int socket, char * /*first_line*/, char ** /*lines*/) {
    return ++depth == kDeep ? 1 : platform_get_one_message(socket, get_one_more, nullptr, 1);
}

int process_more(int socket, char * /*first_line*/, char ** /*lines*/) {
    return ++depth == kDeep ? 1 : platform_process_messages(socket, process_more);
}

int loop_more(int socket, char * /*first_line*/, char ** /*lines*/) {
    if (++depth < kDeep) {
        platform_message_loop(socket, loop_more, nullptr, 1);
    }
    return 0;
}

// Runs a body in a process whose stack has 8 MiB, and returns how deep it went.
std::string depth_reached(const std::function<void(int fd)> &body) {
    const Outcome outcome = run_in_child([&body] {
        const rlimit limit = {.rlim_cur = 8U << 20U, .rlim_max = 8U << 20U};
        if (setrlimit(RLIMIT_STACK, &limit) != 0) {
            abort();
        }
        const SocketPair pair;
        const CurrentBuffer buffer(16384);
        for (int message = 0; message < kDeep; ++message) {
            put_into_buffer("A\r\n\r\n");
        }
        body(pair.ours.fd);
        printf("%d", depth);
    });
    return outcome.signal == 0 ? outcome.out : "ended by signal " + std::to_string(outcome.signal);
}

TEST(NestedLoops, AHandlerGetsOneMessageAThousandLevelsDeep) {
    EXPECT_EQ(depth_reached([](int fd) { platform_get_one_message(fd, get_one_more, nullptr, 1); }), "1000");
}

TEST(NestedLoops, AHandlerProcessesMessagesAThousandLevelsDeep) {
    EXPECT_EQ(depth_reached([](int fd) { platform_process_messages(fd, process_more); }), "1000");
}

TEST(NestedLoops, AHandlerRunsLoopsAThousandLevelsDeep) {
    EXPECT_EQ(depth_reached([](int fd) { platform_message_loop(fd, loop_more, nullptr, 1); }), "1000");
}

// Takes one message at each level, through an idle function that hands over what is complete.
int idle_more(int socket, char * /*first_line*/, char ** /*lines*/) {
    if (++depth < kDeep) {
        put_into_buffer("A");
        platform_get_one_message(
            socket, idle_more,
            [] {
                if (depth < kDeep) {
                    put_into_buffer("\r\n\r\n");
                    platform_process_messages(77, idle_more);
                }
                return 0;
            },
            0);
    }
    return 1;
}

TEST(NestedLoops, AnIdleFunctionHandsOverMessagesAThousandLevelsDeep) {
    const auto body = [](int) {
        platform_msgbuf_reset(gMsgBuf);
        const Interposed nothing(hook::select, [](int, fd_set *, fd_set *, fd_set *, timeval *) { return 0; });
        idle_more(77, nullptr, nullptr);
    };
    EXPECT_EQ(depth_reached(body), "1000");
}

// A stack of that size, with memory below it that nobody may touch.
struct Stack {
    explicit Stack(size_t bytes) : size(bytes) {
        auto *whole = static_cast<char *>(
            mmap(nullptr, kGuard + size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        if (whole == MAP_FAILED || mprotect(whole, kGuard, PROT_NONE) != 0) {
            abort();
        }
        start = whole + kGuard;
    }
    ~Stack() { munmap(start - kGuard, kGuard + size); }
    Stack(const Stack &) = delete;
    Stack &operator=(const Stack &) = delete;
    static constexpr size_t kGuard = size_t{1} << 20U; // a frame does not step over it
    size_t size;
    char *start;
};

ucontext_t outside;
std::function<void()> inside;

void run_inside() {
    inside();
}

void run_on_stack(const Stack &stack, std::function<void()> body) {
    inside = std::move(body);
    ucontext_t context;
    getcontext(&context);
    context.uc_stack.ss_sp = stack.start;
    context.uc_stack.ss_size = stack.size;
    context.uc_link = &outside;
    makecontext(&context, run_inside, 0);
    swapcontext(&outside, &context);
}

int answer_with_lines(int socket, char *first_line, char **lines) {
    const size_t count = message_of(first_line, lines).size();
    return platform_send_message(socket, "lines", std::to_string(count).c_str(), static_cast<char *>(nullptr));
}

TEST(NestedLoops, OneLoopRunsOnAStackOf64KiB) {
    const Outcome outcome = run_in_child([] {
        const Stack stack(65536);
        const SocketPair pair;
        const CurrentBuffer buffer(65536);
        send_text(pair.theirs.fd, numbered(2000));
        shutdown(pair.theirs.fd, SHUT_WR);
        const Idle idle;
        run_on_stack(stack, [&pair] { platform_message_loop(pair.ours.fd, answer_with_lines, run_idle, 0); });
        printf("%s", waiting_on(pair.theirs.fd).c_str());
    });
    EXPECT_EQ(outcome.signal, 0);
    EXPECT_EQ(outcome.out, "lines\r\n2000\r\n\r\n");
}

TEST(NestedLoops, AFailedWaitIsReportedOnAStackOf64KiB) {
    const Outcome outcome = run_with_reports([] {
        const Stack stack(65536);
        const CurrentBuffer buffer;
        run_on_stack(stack, [] { platform_message_loop(-1, answer_with_lines, nullptr, 0); });
    });
    EXPECT_EQ(outcome.signal, 0);
    EXPECT_EQ(outcome.out, "select failed: Bad file descriptor\n");
}
#endif

} // namespace
