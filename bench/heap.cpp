// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The memory library with many live blocks, its debug heap off, in mode 1 and in mode 2.
//
// Each sample is a process of its own, since a debugger is chosen when a program starts; see heap_work.h.
#include "heap.h"

#include "outside.h"
#include "rows.h"

#include <algorithm>

namespace bench {

namespace {

constexpr int64_t kRounds = 100000;
constexpr int64_t kLooks = 4000000; // at live blocks, in a sample of checks
constexpr int64_t kFewestChecks = 20;

std::string program(const std::string &name, const std::string &work) {
    return "'" + beside(name) + "' %n " + work;
}

} // namespace

Work heap_row(const std::string &name, const std::string &work, int64_t live) {
    const bool checks = work == "check";
    const int64_t iterations = checks ? std::max(kLooks / live / 2 * 2, kFewestChecks) : kRounds;
    return {.name = name + ", " + std::to_string(live) + " live",
            .clock = Clock::own,
            .iterations = std::min(iterations, kRounds),
            .every = 2,
            .x = static_cast<double>(live)};
}

std::vector<Way> heap_ways(const std::string &work, int64_t live) {
    const std::string arguments = work + " " + std::to_string(live);
    const char *floor = work == "check" ? "zel_bench_heap_table" : "zel_bench_heap_malloc";
    return {{"zel", command(program("zel_bench_heap_zel", arguments), Clock::own)},
            {"floor", command(program(floor, arguments), Clock::own)}};
}

void add_heap_rows() {
    for (const HeapWork &work : kHeapWorks) {
        for (const int64_t live : {1000, 10000, 100000}) {
            const std::string arguments = std::string(work.word) + " " + std::to_string(live);
            add_row(heap_row(work.row, work.word, live), with_peers(arguments, Clock::own, heap_ways(work.word, live)));
        }
    }
}

} // namespace bench
