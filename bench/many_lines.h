// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A message of very many lines through the library's call, whose lines are its arguments.
#ifndef ZEL_BENCH_MANY_LINES_H
#define ZEL_BENCH_MANY_LINES_H

#include <components/platform/socket.h>

#include <array>
#include <cstddef>

namespace bench {

// The arguments that stand on the stack, the null pointer behind them included.
template <size_t Count>
struct StackArguments {
    std::array<const char *, Count> lines;
};

// Sends Count equal lines, six or more; returns what the library returns.
//
// A compiler takes minutes over a call of 50,000 arguments. A record by value stands on the stack as so many arguments
// do, on both targets: behind six in registers on x86-64, behind the first ones on x86.
template <size_t Count>
int send_lines(int fd, const char *line) {
    using Arguments = StackArguments<Count - 5 + 1>;
    using Call = int (*)(int, const char *, const char *, const char *, const char *, const char *, Arguments);
    static const auto rest = [line] {
        Arguments arguments;
        arguments.lines.fill(line);
        arguments.lines.back() = nullptr;
        return arguments;
    }();
    const auto any = reinterpret_cast<void (*)()>(platform_send_message);
    return reinterpret_cast<Call>(any)(fd, line, line, line, line, line, rest);
}

} // namespace bench

#endif
