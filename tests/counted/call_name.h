// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The names of system calls.
#ifndef ZEL_TESTS_COUNTED_CALL_NAME_H
#define ZEL_TESTS_COUNTED_CALL_NAME_H

#include <string>

namespace zel::test {

// The name of a system call as a program writes it: "send" for sendto, "select" for each
// of its forms. A call that the tests do not name is "call" and its number.
// - first: its first argument. One number stands for all calls of sockets in some C
//   libraries; this argument tells them apart.
std::string call_name(long number, long first);

} // namespace zel::test

#endif
