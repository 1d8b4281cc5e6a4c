// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Rings: what they keep, and writing it out on demand.
#include "msg_support.h"
#include "sinks_support.h"

#include <support/interpose.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <random>
#include <sys/wait.h>
#include <unistd.h>

using namespace zel::test;

namespace {

std::string written_out(FILE *ring) {
    FILE *file = open_scratch_stream();
    EXPECT_EQ(msg_write_ring(ring, fileno(file)), 1);
    std::string text = contents(file);
    fclose(file);
    return text;
}

// What a ring of that size keeps of the texts.
std::string kept_of(size_t size, const std::vector<std::string> &texts) {
    FILE *ring = msg_open_ring(size, -1);
    for (const std::string &text : texts) {
        fputs(text.c_str(), ring);
    }
    std::string text = written_out(ring);
    fclose(ring);
    return text;
}

} // namespace

TEST(Ring, AnEmptyOneGivesNothing) {
    EXPECT_EQ(kept_of(10, {}), "");
    EXPECT_EQ(kept_of(10, {""}), "");
}

TEST(Ring, WhatFitsIsKeptWhole) {
    EXPECT_EQ(kept_of(10, {"one\n", "two"}), "one\ntwo");
    EXPECT_EQ(kept_of(8, {"one\n", "two\n"}), "one\ntwo\n");
}

TEST(Ring, WhatIsWrittenOutBeginsWithAWholeLine) {
    EXPECT_EQ(kept_of(8, {"one\n", "two\n", "t"}), "two\nt");
    EXPECT_EQ(kept_of(8, {"one\n", "two\n", "six\n"}), "two\nsix\n");
    EXPECT_EQ(kept_of(8, {"one\ntwo\nsix\nten\n"}), "six\nten\n");
    EXPECT_EQ(kept_of(9, {"one\ntwo\nsix\nten\n"}), "six\nten\n");
    EXPECT_EQ(kept_of(9, {"longer\nten\nx"}), "ten\nx");
}

TEST(Ring, TheEndOfOneLineIsBetterThanNothing) {
    EXPECT_EQ(kept_of(4, {"abcdefgh"}), "efgh");
    EXPECT_EQ(kept_of(4, {"abcdefgh\n"}), "fgh\n");
    EXPECT_EQ(kept_of(1, {"ab"}), "b");
}

TEST(Ring, WritingItOutKeepsIt) {
    FILE *ring = msg_open_ring(100, -1);
    fputs("one\n", ring);
    EXPECT_EQ(written_out(ring), "one\n");
    fputs("two\n", ring);
    EXPECT_EQ(written_out(ring), "one\ntwo\n");
    fclose(ring);
}

// Compared with a string from which the front is cut.
TEST(Ring, ThousandsOfTextsAreKeptAsANaiveRingKeepsThem) {
    std::mt19937 random(7);
    for (const size_t size : {1U, 2U, 7U, 64U}) {
        FILE *ring = msg_open_ring(size, -1);
        std::string all;
        for (int count = 0; count < 1000; ++count) {
            std::string text(random() % (2 * size), 'a');
            std::generate(text.begin(), text.end(), [&random] { return "abc\n"[random() % 4]; });
            fputs(text.c_str(), ring);
            all += text;
            const size_t start = all.size() > size ? all.size() - size : 0;
            const size_t newline = all.find('\n', start);
            const bool whole = start == 0 || all[start - 1] == '\n';
            const bool has_line = newline != std::string::npos && newline + 1 < all.size();
            ASSERT_EQ(written_out(ring), all.substr(whole || !has_line ? start : newline + 1)) << size;
        }
        fclose(ring);
    }
}

TEST(Ring, MessagesReachItPieceByPieceWithoutAFlush) {
    const Outcome outcome = run_messages([] {
        FILE *ring = msg_open_ring(100, -1);
        msg_clear_streams(MSG_WARNING);
        msg_add_stream(MSG_WARNING, ring);
        msg_warn("one");
        msg_warn_raw("two");
        msg_write_ring(ring, STDOUT_FILENO);
    });
    EXPECT_EQ(outcome.out, "Warning: one\nWarning: two");
}

TEST(Ring, WhatIsNoRingIsRefused) {
    FILE *closed = msg_open_ring(10, -1);
    FILE *ring = msg_open_ring(10, -1);
    const auto address = reinterpret_cast<uintptr_t>(closed);
    fclose(closed);
    for (const uintptr_t stream : {uintptr_t{0}, reinterpret_cast<uintptr_t>(stdout), address}) {
        errno = 0;
        EXPECT_EQ(msg_write_ring(reinterpret_cast<FILE *>(stream), STDOUT_FILENO), 0);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(written_out(ring), "");
    fclose(ring);
}

TEST(Ring, OddSizesAndDescriptorsAreRefused) {
    errno = 0;
    EXPECT_EQ(msg_open_ring(0, -1), nullptr);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(msg_open_ring(10, -2), nullptr);
    EXPECT_EQ(errno, EINVAL);
    for (const size_t size : {SIZE_MAX, SIZE_MAX - 16}) {
        errno = 0;
        EXPECT_EQ(msg_open_ring(size, -1), nullptr);
        EXPECT_EQ(errno, ENOMEM);
    }
}

TEST(Ring, AnOpeningThatFailsLeavesNothing) {
    {
        const Interposed failing(hook::malloc, fail_always(hook::malloc, ENOMEM, nullptr));
        EXPECT_EQ(msg_open_ring(10, -1), nullptr);
    }
    const Interposed failing(hook::fopencookie, fail_always(hook::fopencookie, EMFILE, nullptr));
    errno = 0;
    EXPECT_EQ(msg_open_ring(10, -1), nullptr);
    EXPECT_EQ(errno, EMFILE);
}

TEST(Ring, ItNeedsNoMemoryOnceItIsOpen) {
    FILE *ring = msg_open_ring(10, -1);
    const int fd = dup(STDERR_FILENO);
    {
        const Interposed failing(hook::malloc, [](size_t) -> void * { abort(); });
        fputs("text\n", ring);
        EXPECT_EQ(msg_write_ring(ring, -1), 0);
    }
    EXPECT_EQ(errno, EBADF);
    close(fd);
    fclose(ring);
}

// ---- The descriptor -------------------------------------------------------------------------------------------------

TEST(RingDescriptor, InterruptionsAndShortWritesLoseNothing) {
    FILE *ring = msg_open_ring(10, -1);
    fputs("one\ntwo\nsix\nt", ring);
    FILE *file = open_scratch_stream();
    const Interposed storm(hook::write, [count = 0](int fd, const void *text, size_t) mutable -> ssize_t {
        if (++count % 2 == 1) {
            errno = EINTR;
            return -1;
        }
        return hook::write.real(fd, text, 1);
    });
    EXPECT_EQ(msg_write_ring(ring, fileno(file)), 1);
    EXPECT_EQ(contents(file), "two\nsix\nt");
    fclose(ring);
    fclose(file);
}

TEST(RingDescriptor, AFullNonBlockingPipeIsWaitedFor) {
    constexpr size_t kSize = 300000;
    FILE *ring = msg_open_ring(kSize, -1);
    fputs(std::string(kSize, 'x').c_str(), ring);
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
    const pid_t reader = fork();
    if (reader == 0) {
        close(ends[1]);
        fcntl(ends[0], F_SETFL, 0);
        size_t total = 0;
        std::array<char, 4096> part;
        for (ssize_t count; (count = read(ends[0], part.data(), part.size())) > 0;) {
            total += static_cast<size_t>(count);
        }
        _exit(total == kSize ? 0 : 1);
    }
    close(ends[0]);
    EXPECT_EQ(msg_write_ring(ring, ends[1]), 1);
    close(ends[1]);
    int status = -1;
    waitpid(reader, &status, 0);
    EXPECT_EQ(status, 0);
    fclose(ring);
}

TEST(RingDescriptor, APipeThatNobodyReadsIsAnErrorAndNoSignal) {
    const Outcome outcome = run_in_child([] {
        signal(SIGPIPE, SIG_DFL);
        FILE *ring = msg_open_ring(10, -1);
        fputs("text\n", ring);
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        close(ends[0]);
        const int result = msg_write_ring(ring, ends[1]);
        const int error = errno;
        sigset_t mask;
        sigset_t pending;
        sigprocmask(SIG_SETMASK, nullptr, &mask);
        sigpending(&pending);
        printf("%d %d %d%d", result, error == EPIPE ? 1 : 0, sigismember(&mask, SIGPIPE),
               sigismember(&pending, SIGPIPE));
    });
    EXPECT_EQ(outcome.out, "0 1 00");
    EXPECT_EQ(outcome.signal, 0);
}

TEST(RingDescriptor, AFullDeviceIsAnError) {
    FILE *ring = msg_open_ring(10, -1);
    fputs("text\n", ring);
    const int fd = open("/dev/full", O_WRONLY | O_CLOEXEC);
    errno = 0;
    EXPECT_EQ(msg_write_ring(ring, fd), 0);
    EXPECT_EQ(errno, ENOSPC);
    close(fd);
    const Interposed nothing(hook::write, [](int, const void *, size_t) -> ssize_t { return 0; });
    EXPECT_EQ(msg_write_ring(ring, STDERR_FILENO), 0);
    EXPECT_EQ(errno, EIO);
    fclose(ring);
}
