// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Rows of a heap with many live blocks, for the table and for the growth plots.
#ifndef ZEL_BENCH_HEAP_H
#define ZEL_BENCH_HEAP_H

#include "table.h"

#include <cstdint>
#include <string>
#include <vector>

namespace bench {

// work: "off", "on" (mode 1) or "check" (one check of mode 2).
Work heap_row(const std::string &name, const std::string &work, int64_t live);
std::vector<Way> heap_ways(const std::string &work, int64_t live);

} // namespace bench

#endif
