// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Measures the library beside floors written by hand: zel_bench [--rounds=N] [GOOGLE BENCHMARK OPTION...].
//
// A round takes one short sample of every way of doing every thing, the ways of one thing one right after the other.
// The ratio of a row is the median over the rounds of the ratio within a round, so that whatever slows the machine for
// a while slows both sides of a ratio.
#include "rows.h"
#include "table.h"

#include <cstdio>
#include <cstdlib>
#include <sched.h>
#include <string_view>

namespace {

constexpr int kDefaultRounds = 51;

// Takes --rounds=N out of the arguments.
int take_rounds(int &argc, char **argv) {
    constexpr std::string_view option = "--rounds=";
    int rounds = kDefaultRounds;
    int kept = 1;
    for (int i = 1; i < argc; ++i) {
        if (std::string_view(argv[i]).starts_with(option)) {
            rounds = std::atoi(argv[i] + option.size());
        } else {
            argv[kept++] = argv[i];
        }
    }
    argc = kept;
    argv[argc] = nullptr;
    return rounds;
}

// Everything, companions included, runs on one processor: then nothing that the library does is hidden behind the
// waiting of the other process, and no sample depends on where the two were placed.
void stay_on_one_processor() {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<size_t>(sched_getcpu()), &set);
    if (sched_setaffinity(0, sizeof set, &set) != 0) {
        std::perror("zel_bench: not bound to one processor");
    }
}

void add_rows() {
    bench::add_value_rows();
    bench::add_message_rows();
    bench::add_start_rows();
    bench::add_output_rows();
    bench::add_memory_rows();
    bench::add_parse_rows();
}

} // namespace

int main(int argc, char **argv) {
    const int rounds = take_rounds(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (rounds < 1 || benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    stay_on_one_processor();
    add_rows();
    bench::Table table;
    for (int round = 0; round < rounds && (round == 0 || table.samples() > 0); ++round) {
        benchmark::RunSpecifiedBenchmarks(&table);
    }
    std::printf("%zu-bit, %d rounds, all on one processor\n", 8 * sizeof(void *), rounds);
    return table.print() ? 0 : 1;
}
