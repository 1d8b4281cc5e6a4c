// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Running code in a process of its own. The library's state belongs to the process, and
// fatal calls end it.
#ifndef ZEL_TESTS_SUPPORT_CHILD_H
#define ZEL_TESTS_SUPPORT_CHILD_H

#include <functional>
#include <string>
#include <vector>

namespace zel::test {

// How a child ended, and all its output.
struct Outcome {
    int status = -1; // exit status, or -1 when a signal ended it
    int signal = 0;  // that signal, or 0
    std::string out; // standard output
    std::string err; // standard error
};

// Runs the body in a forked child whose standard output and error are caught and whose
// standard input is empty. A body that returns ends the child by exit(0). Expectations
// inside the body are not counted: return values through the output or the exit status. A
// body that throws ends the child by SIGABRT. A child that runs longer than 60 seconds is
// killed.
Outcome run_in_child(const std::function<void()> &body);

// Runs a program, searched along PATH, with this process's environment.
Outcome run_program(const std::vector<std::string> &arguments);

// Gives up the rights of root, to whom no file is refused. A process without them keeps
// its user. For children.
void give_up_root();

} // namespace zel::test

#endif
