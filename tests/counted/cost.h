// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// What a piece of work asks of the system and of the C library.
//
//   const Cost cost = cost_of([] {
//       print_line(); // settles what is settled once
//       const Counted counted;
//       print_line();
//   });
//   EXPECT_EQ(cost.calls, (Calls{"write"}));
//
// A debugger's view of a child: every system call is seen, whoever makes it. A copy that
// the compiler writes out in place is not seen; the counts of instructions hold it.
#ifndef ZEL_TESTS_COUNTED_COST_H
#define ZEL_TESTS_COUNTED_COST_H

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace zel::test {

// System calls in their order, by the names of call_name.
using Calls = std::vector<std::string>;

struct Cost {
    Calls calls;          // of the process itself
    Calls calls_of_child; // of a child that it forked, up to the exec of its program
    size_t allocations;   // see Meter
    size_t releases;
    size_t copied;
};

// The scope that is counted. There is one in a body.
struct Counted {
    Counted();
    ~Counted();
    Counted(const Counted &) = delete;
    Counted &operator=(const Counted &) = delete;
};

// Runs the body in a child and returns the cost of its Counted scope. A body that does not
// come to its end is a failure. Expectations in the body are not counted: require ends it.
Cost cost_of(const std::function<void()> &body);

// Ends the body, and so fails its test, unless the condition holds.
void require(bool condition, const char *what);

} // namespace zel::test

#endif
