// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Rows of a heap with many live blocks, for the table and for the growth plots.
#ifndef ZEL_BENCH_HEAP_H
#define ZEL_BENCH_HEAP_H

#include "table.h"

#include <cstdint>
#include <string>
#include <vector>

namespace bench {

// A work on a heap, as the table, the growth plots and the programs that do it call it.
struct HeapWork {
    const char *row;
    const char *series;
    const char *word;
};

inline constexpr HeapWork kHeapWorks[] = {
    {"debug heap off", "live blocks, debug heap off", "off"},
    {"debug heap, mode 1", "live blocks, mode 1", "on"},
    {"debug heap, mode 2, one check", "live blocks, mode 2, one check", "check"},
};

// work: the word of a heap work.
Work heap_row(const std::string &name, const std::string &work, int64_t live);
std::vector<Way> heap_ways(const std::string &work, int64_t live);

} // namespace bench

#endif
