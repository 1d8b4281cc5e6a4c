// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The first step of every companion of the tests, and its echo.
#ifndef ZEL_TESTS_COMPANIONS_COMPANION_H
#define ZEL_TESTS_COMPANIONS_COMPANION_H

#include "pair_values.h"

namespace zel::test {

// Opens this process's end. When that fails, says why and ends the process with kNotOpen.
PairHandle *open_or_exit(int ignore_signals, int blocking);

// Sends every value back until the stream ends, and closes the handle. Returns how the companion ends.
PairExit echo_values(PairHandle *ph);

} // namespace zel::test

#endif
