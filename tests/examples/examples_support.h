// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Running the examples. In a test program with this support
// - a process that a program under test leaves becomes a child of the test program, whose listener sees it;
// - sanitized programs keep silent about what the library leaves allocated on purpose.
#ifndef ZEL_TESTS_EXAMPLES_EXAMPLES_SUPPORT_H
#define ZEL_TESTS_EXAMPLES_EXAMPLES_SUPPORT_H

#include <support/child.h>

#include <string>
#include <vector>

namespace zel::test {

// An example, and a program of the folder parts.
std::string example(const std::string &name);
std::string part(const std::string &name);

// Makes this process the one that adopts orphans. Test programs do; a forked child that wants to must ask for it.
void adopt_orphans();

// Runs a program as "env SETTING... PROGRAM ARGUMENT..." does. A setting is NAME=VALUE, or an option of env; options
// stand first.
Outcome run_with(const std::vector<std::string> &settings, const std::vector<std::string> &command);

// A receive or a send on this socket that moves nothing for 20 seconds fails: a test then says what it waited for.
void give_up_in_time(int socket);

} // namespace zel::test

#endif
