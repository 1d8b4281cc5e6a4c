// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The line table of the message loop: it grows with a message, and is gone with it.
#include "socket_support.h"

#include <support/interpose.h>

#include <algorithm>
#include <csetjmp>
#include <msg/base/limits.h>

namespace {

using namespace zel::test;
namespace hook = zel::test::hook;

// Blocks of the C library's taken and given back in its scope. One that is held when the scope begins does not count.
struct Blocks {
    std::vector<size_t> taken;
    int released = 0;
    Blocks() { taken.reserve(64); }
    Interposed<void *(size_t)> taking{hook::malloc, [this](size_t size) {
                                          taken.push_back(size);
                                          return hook::malloc.real(size);
                                      }};
    Interposed<void(void *)> releasing{hook::free, [this](void *pointer) {
                                           released += pointer == nullptr ? 0 : 1;
                                           hook::free.real(pointer);
                                       }};
};

// A handler that allocates nothing counts the lines.
int line_count = 0;

int count_lines(int /*socket*/, char * /*first_line*/, char **lines) {
    line_count = 1;
    for (; *lines != nullptr; ++lines) {
        ++line_count;
    }
    return 1;
}

TEST(LineTable, HoldsEveryLineHoweverOftenItGrows) {
    const CurrentBuffer buffer(65536);
    const Dispatched dispatched;
    for (int lines = 1; lines <= 300; ++lines) {
        put_into_buffer(numbered(lines));
        ASSERT_EQ(platform_get_one_message(-1, handle_message, nullptr, 0), 1);
        put_into_buffer(numbered(lines));
        platform_process_messages(-1, handle_message);
        ASSERT_EQ(dispatched.messages.size(), static_cast<size_t>(2 * lines));
        ASSERT_EQ(dispatched.messages[static_cast<size_t>(2 * lines - 2)], numbers(lines));
        ASSERT_EQ(dispatched.messages.back(), numbers(lines));
    }
}

TEST(LineTable, GrowsWhileTheMessageArrives) {
    const SocketPair pair;
    const CurrentBuffer buffer(65536);
    const Dispatched dispatched;
    const Interposed stingy(hook::recv, [](int fd, void *to, size_t length, int flags) {
        return hook::recv.real(fd, to, std::min<size_t>(length, 7), flags);
    });
    send_text(pair.theirs.fd, numbered(500));
    EXPECT_EQ(platform_get_one_message(pair.ours.fd, handle_message, nullptr, 1), 1);
    EXPECT_EQ(dispatched.messages, std::vector<Message>{numbers(500)});
}

TEST(LineTable, TheLinesOfADroppedMessageAreForgotten) {
    const SocketPair pair;
    const CurrentBuffer buffer;
    const Dispatched dispatched;
    put_into_buffer(numbered(200).substr(0, 600));
    send_text(pair.theirs.fd, "new\r\n\r\n");
    const Idle idle([](int call) {
        if (call == 1) {
            platform_msgbuf_reset(gMsgBuf);
        }
    });
    EXPECT_EQ(platform_get_one_message(pair.ours.fd, handle_message, run_idle, 1), 1);
    EXPECT_EQ(dispatched.messages, std::vector<Message>{{"new"}});
}

// Runs both ways to hand over messages of that many lines; whatever they took must have been given back.
std::vector<size_t> taken_for(int lines, int messages) {
    const CurrentBuffer buffer(1 << 20);
    std::vector<size_t> taken;
    for (const bool one_at_a_time : {true, false}) {
        for (int message = 0; message < messages; ++message) {
            put_into_buffer(numbered(lines));
        }
        line_count = 0;
        const Blocks blocks;
        for (int message = 0; one_at_a_time && message < messages; ++message) {
            platform_get_one_message(-1, count_lines, nullptr, 0);
        }
        platform_process_messages(-1, count_lines);
        EXPECT_EQ(line_count, lines);
        EXPECT_EQ(static_cast<size_t>(blocks.released), blocks.taken.size());
        EXPECT_TRUE(one_at_a_time || blocks.taken == taken);
        taken = blocks.taken;
    }
    return taken;
}

#ifndef ZEL_SMALL_CONSTANTS // holds the size of the table
TEST(LineTableSize, AMessageOf63LinesTakesNoMemory) {
    EXPECT_EQ(taken_for(63, 3), std::vector<size_t>());
}

TEST(LineTableSize, ALineMoreIsKeptOnTheHeapInATableOfTwiceTheSize) {
    EXPECT_EQ(taken_for(64, 1), std::vector<size_t>{128 * sizeof(char *)});
    EXPECT_EQ(taken_for(127, 1), std::vector<size_t>{128 * sizeof(char *)});
    EXPECT_EQ(taken_for(128, 1), (std::vector<size_t>{128 * sizeof(char *), 256 * sizeof(char *)}));
}

TEST(LineTableSize, TheTableOfTheLongestMessageHasNoEntryTooMany) {
    EXPECT_EQ(taken_for(PLATFORM_MAX_MESSAGE_LINES, 1).back(), (PLATFORM_MAX_MESSAGE_LINES + 1) * sizeof(char *));
}
#endif

TEST(LineTable, IsReleasedAfterEachMessage) {
    const size_t for_one = taken_for(1000, 1).size();
    EXPECT_GT(for_one, 0U);
    EXPECT_EQ(taken_for(1000, 3).size(), 3 * for_one);
}

TEST(LineTable, IsReleasedWhenTheMessageDoesNotEnd) {
    SocketPair pair;
    const CurrentBuffer buffer(65536);
    put_into_buffer(numbered(1000).substr(0, 3000));
    pair.theirs.close();
    const Blocks blocks;
    EXPECT_EQ(platform_get_one_message(pair.ours.fd, count_lines, nullptr, 1), 0);
    EXPECT_EQ(platform_process_messages(pair.ours.fd, count_lines), 0);
    EXPECT_GE(blocks.taken.size(), 2U);
    EXPECT_EQ(static_cast<size_t>(blocks.released), blocks.taken.size());
}

TEST(LineTable, TheCallersOwnTakesNoMemory) {
    std::string data = numbered(PLATFORM_MAX_MESSAGE_LINES);
    std::vector<char *> table(PLATFORM_MAX_MESSAGE_LINES + 1);
    const Blocks blocks;
    EXPECT_EQ(platform_parse_message(data.data(), static_cast<int32_t>(data.size()), table.data()),
              static_cast<int>(data.size()));
    EXPECT_TRUE(blocks.taken.empty());
}

TEST(LineTable, LeavesErrnoAlone) {
    const CurrentBuffer buffer(65536);
    put_into_buffer(numbered(1000));
    const Interposed untidy(hook::malloc, [](size_t size) {
        errno = ENOMEM;
        return hook::malloc.real(size);
    });
    const Interposed releasing(hook::free, [](void *pointer) {
        hook::free.real(pointer);
        errno = EINVAL;
    });
    errno = E2BIG;
    EXPECT_EQ(platform_get_one_message(-1, count_lines, nullptr, 0), 1);
    EXPECT_EQ(errno, E2BIG);
}

// The error of a process that finds no memory for the n-th table, while the call hands over the longest message.
std::string error_without_memory(int nth, const std::function<void()> &call) {
    const Outcome outcome = run_in_child([&] {
        const CurrentBuffer buffer(1 << 20);
        put_into_buffer(numbered(PLATFORM_MAX_MESSAGE_LINES));
        const Interposed failing(hook::malloc, fail_nth(hook::malloc, nth, ENOMEM, nullptr));
        call();
    });
    EXPECT_EQ(outcome.signal, 0);
    EXPECT_EQ(outcome.status, 1);
    return outcome.err;
}

std::string no_memory_for(const std::string &function, size_t entries) {
    return "Error: " + function + ": Not enough memory to allocate " + std::to_string(entries * sizeof(char *)) +
           " bytes.\n";
}

TEST(LineTable, NoMemoryForItEndsTheProcessWithAnError) {
    const auto get_one = [] { platform_get_one_message(-1, count_lines, nullptr, 0); };
    const auto process = [] { platform_process_messages(-1, count_lines); };
    size_t entries = zel::kLineTableSize;
    for (int nth = 0; entries <= PLATFORM_MAX_MESSAGE_LINES; ++nth) {
        entries = std::min<size_t>(2 * entries, PLATFORM_MAX_MESSAGE_LINES + 1);
        EXPECT_EQ(error_without_memory(nth, get_one), no_memory_for("platform_get_one_message", entries));
        EXPECT_EQ(error_without_memory(nth, process), no_memory_for("platform_process_messages", entries));
    }
}

jmp_buf way_out;

int leave(int /*socket*/, char * /*first_line*/, char ** /*lines*/) {
    longjmp(way_out, 1);
}

TEST(LineTable, AHandlerThatIsLeftByALongJumpHarmsNothingElse) {
    const CurrentBuffer buffer(65536);
    const Dispatched dispatched;
    put_into_buffer(numbered(zel::kLineTableSize) + "A\r\nB\r\n\r\nrest");
    void *volatile table = nullptr;
    {
        const Interposed taking(hook::malloc, [&table](size_t size) {
            void *block = hook::malloc.real(size);
            table = block;
            return block;
        });
        if (setjmp(way_out) == 0) {
            platform_get_one_message(-1, leave, nullptr, 0);
        }
    }
    EXPECT_NE(table, nullptr);
    EXPECT_EQ(platform_get_one_message(-1, handle_message, nullptr, 0), 1);
    EXPECT_EQ(dispatched.messages, (std::vector<Message>{{"A", "B"}}));
    EXPECT_TRUE(buffer_holds("rest"));
    free(table); // lost by the jump: it was the last that was taken
}

} // namespace
