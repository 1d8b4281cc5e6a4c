// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Ways of starting a companion that leaves at once and reaping it, for the table and for the growth plots.
#ifndef ZEL_BENCH_START_H
#define ZEL_BENCH_START_H

#include "table.h"

namespace bench {

// Each returns the status of the companion as wait gives it: 0 when all went well.
int start_by_library(); // platform_pair_parent_open_lp
int start_by_spawn();   // platform_pair_spawn
// The next three have all that the library's interface promises.
int start_with_fork();
int start_pair_with_vfork();
int start_pair_with_posix_spawn();
int start_alone();      // fork and exec, and nothing else
int start_with_vfork(); // the same by vfork

Body starting(int (*start)());

} // namespace bench

#endif
