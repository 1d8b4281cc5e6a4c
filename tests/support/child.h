// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Running code in a process of its own: the library's state is one per process, and fatal calls end it.
#ifndef ZEL_TESTS_SUPPORT_CHILD_H
#define ZEL_TESTS_SUPPORT_CHILD_H

#include <functional>
#include <string>
#include <vector>

namespace zel::test {

// What became of a child, and all it wrote.
struct Outcome {
    int status = -1; // exit status, or -1 when a signal ended it
    int signal = 0;  // that signal, or 0
    std::string out; // standard output
    std::string err; // standard error
};

// Runs the body in a forked child whose standard output and error are caught and whose standard input is empty. A body
// that returns ends the child by exit(0). Expectations inside the body are not counted: return values through
// the output or the exit status. A body that throws ends the child by SIGABRT. A child that runs longer than 60 seconds
// is killed.
Outcome run_in_child(const std::function<void()> &body);

// The same for a program, searched along PATH. Its environment is this process's.
Outcome run_program(const std::vector<std::string> &arguments);

// In a child: no file is refused to root, so the rights of nobody are taken on. Without rights to give up the process
// stays who it is.
void give_up_root();

} // namespace zel::test

#endif
