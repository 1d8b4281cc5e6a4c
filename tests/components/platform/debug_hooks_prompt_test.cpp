// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The request "prompt": what it writes, and how much of standard input it takes.
#include "debug_hooks_support.h"

#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <unistd.h>

using namespace zel::test;

namespace {

// In a child: standard input is a pipe that holds this text.
struct Pipe {
    explicit Pipe(const std::string &text) {
        int ends[2];
        if (pipe(ends) != 0 || dup2(ends[0], STDIN_FILENO) == -1) {
            exit(2);
        }
        writer = ends[1];
        add(text);
    }
    void add(const std::string &text) const {
        if (write(writer, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
            exit(2);
        }
    }
    // The rest of the pipe, read from the descriptor.
    std::string rest() const {
        close(writer);
        std::string text;
        char byte;
        while (read(STDIN_FILENO, &byte, 1) == 1) {
            text += byte;
        }
        return text;
    }
    int writer = -1;
};

// Carries out the prompt while signals interrupt its first three reads.
void prompt_under_signals() {
    int calls = 0;
    const Interposed interrupted(hook::read, [&calls](int fd, void *buffer, size_t size) -> ssize_t {
        if (calls++ < 3) {
            errno = EINTR;
            return -1;
        }
        return hook::read.real(fd, buffer, size);
    });
    carry_out("prompt");
}

// Carries out the prompt. The lines arrive after the first read that finds nothing. Returns how many reads found
// nothing.
int prompt_with_late_lines(const Pipe &input) {
    int refused = 0;
    const Interposed counting(hook::read, [&](int fd, void *buffer, size_t size) {
        const ssize_t count = hook::read.real(fd, buffer, size);
        if (count == -1 && refused++ == 0) {
            input.add("first\nsecond\n");
            errno = EAGAIN;
        }
        return count;
    });
    carry_out("prompt");
    return refused;
}

} // namespace

TEST(DebugPrompt, APromptWithWordsWritesEachAndABlank) {
    EXPECT_EQ(run_hook({"prog"}, "prompt attach \t now").err, "attach now \n");
}

TEST(DebugPrompt, APromptReadsAtMost254Characters) {
    const ScratchFolder folder;
    write_file(folder.path + "/input", std::string(300, 'x') + "\n");
    const Outcome outcome = run_in_child([&folder] {
        if (freopen((folder.path + "/input").c_str(), "r", stdin) == nullptr) {
            exit(2);
        }
        carry_out("prompt");
        int left = 0;
        while (getchar() != EOF) {
            ++left;
        }
        printf("%d", left);
    });
    EXPECT_EQ(outcome.out, std::to_string(301 - 254));
}

TEST(DebugPrompt, APromptTakesOneLineFromAPipeAndNotAByteMore) {
    const Outcome outcome = run_in_child([] {
        const Pipe input("first\nsecond\n");
        carry_out("prompt");
        printf("%s", input.rest().c_str());
    });
    EXPECT_EQ(outcome.out, "second\n");
}

TEST(DebugPrompt, OfALineThatIsTooLongThePromptLeavesTheRest) {
    const Outcome outcome = run_in_child([] {
        const Pipe input(std::string(254, 'x') + "rest\nsecond\n");
        carry_out("prompt");
        printf("%s", input.rest().c_str());
    });
    EXPECT_EQ(outcome.out, "rest\nsecond\n");
}

TEST(DebugPrompt, APromptTakesWhatStdioHasReadAlreadyFirst) {
    const Outcome outcome = run_in_child([] {
        const Pipe input("1\nfirst\nsecond\n");
        printf("%c ", getchar());
        printf("%c", getchar());
        carry_out("prompt");
        printf("%s", input.rest().c_str());
        for (int byte = getchar(); byte != EOF; byte = getchar()) {
            printf("%c", byte);
        }
    });
    EXPECT_EQ(outcome.out, "1 \nsecond\n");
}

// The line begins in what stdio has read and ends in what the pipe holds.
TEST(DebugPrompt, APromptTakesALineOfWhichStdioHasReadAPart) {
    const Outcome outcome = run_in_child([] {
        const Pipe input("1fir");
        printf("%c ", getchar());
        input.add("st\nsecond\n");
        carry_out("prompt");
        printf("%s", input.rest().c_str());
        printf("%s", getchar() == EOF ? "nothing else" : "more");
    });
    EXPECT_EQ(outcome.out, "1 second\nnothing else");
}

TEST(DebugPrompt, ASignalDoesNotAnswerAPrompt) {
    const Outcome outcome = run_in_child([] {
        const Pipe input("first\nsecond\n");
        prompt_under_signals();
        printf("%s", input.rest().c_str());
    });
    EXPECT_EQ(outcome.out, "second\n");
}

TEST(DebugPrompt, APromptWaitsForInputThatSomebodyMadeNonBlocking) {
    const Outcome outcome = run_in_child([] {
        const Pipe input("");
        fcntl(STDIN_FILENO, F_SETFL, O_NONBLOCK);
        const int refused = prompt_with_late_lines(input);
        printf("%d %s", refused, input.rest().c_str());
    });
    EXPECT_EQ(outcome.out, "1 second\n");
}

TEST(DebugPrompt, AnInputThatCannotBeReadIsAnAnswerToo) {
    const Outcome outcome = run_in_child([] {
        close(STDIN_FILENO);
        carry_out("prompt");
        printf("on");
    });
    EXPECT_EQ(outcome.out, "on");
    EXPECT_EQ(outcome.status, 0);
}

TEST(DebugPrompt, APromptIsWrittenOutBeforeTheLineIsRead) {
    for (const std::string request : {"prompt", "prompt attach now"}) {
        const Outcome outcome = run_in_child([&request] {
            hold_back_errors();
            const Interposed reading(hook::read, [](int fd, void *, size_t size) -> ssize_t {
                printf("%zu from %d, written %ld", size, fd, errors_written());
                return 0;
            });
            carry_out(request);
        });
        EXPECT_EQ(outcome.out, "1 from 0, written " + std::to_string(outcome.err.size()));
        EXPECT_EQ(outcome.err, request == "prompt" ? "ZEL_DEBUG prompt>\n" : "attach now \n");
    }
}
