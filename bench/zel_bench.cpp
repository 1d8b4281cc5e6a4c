// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Measures the library beside floors written by hand and beside peers:
//
//   zel_bench [--rounds=N] [--peers] [--growth] [--filter=EXPRESSION] [--commit=TEXT] [--json=FILE]
//
// A round takes one short sample of every contender of every work, those of one work one right after the other. A ratio
// is the median over the rounds of the ratio within a round, so that whatever slows the machine for a while slows both
// sides. --growth measures the works of the growth plots in place of the table's.
#include "growth.h"
#include "outside.h"
#include "rows.h"
#include "table.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sched.h>
#include <string>

namespace {

constexpr int kDefaultRounds = 21;
constexpr int kDefaultGrowthRounds = 5;

struct Options {
    bench::Setting setting = {.rounds = 0, .filter = "", .commit = "unknown"};
    bool peers = false;
    bool growth = false;
    std::string json;
};

// The value of an argument NAME=VALUE, or null.
const char *value_of(const char *argument, const char *name) {
    const size_t length = std::strlen(name);
    return std::strncmp(argument, name, length) == 0 && argument[length] == '=' ? argument + length + 1 : nullptr;
}

// False for an argument that there is not.
bool take(Options &options, const char *argument) {
    if (std::strcmp(argument, "--peers") == 0) {
        options.peers = true;
    } else if (std::strcmp(argument, "--growth") == 0) {
        options.growth = true;
    } else if (const char *rounds = value_of(argument, "--rounds")) {
        options.setting.rounds = std::atoi(rounds);
        return options.setting.rounds > 0;
    } else if (const char *filter = value_of(argument, "--filter")) {
        options.setting.filter = filter;
    } else if (const char *commit = value_of(argument, "--commit")) {
        options.setting.commit = commit;
    } else if (const char *json = value_of(argument, "--json")) {
        options.json = json;
    } else {
        return false;
    }
    return true;
}

bool take_all(Options &options, int argc, char **argv) {
    for (int i = 1; i < argc; ++i) {
        if (!take(options, argv[i])) {
            std::fprintf(stderr, "zel_bench: there is no argument like %s\n", argv[i]);
            return false;
        }
    }
    if (options.setting.rounds == 0) {
        options.setting.rounds = options.growth ? kDefaultGrowthRounds : kDefaultRounds;
    }
    return true;
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
    bench::add_output_rows();
    bench::add_memory_rows();
    bench::add_heap_rows();
    bench::add_parse_rows();
    bench::add_message_rows();
    bench::add_value_rows();
    bench::add_file_rows();
    bench::add_removal_rows();
    bench::add_start_rows();
    bench::add_hook_rows();
    bench::add_word_rows();
}

} // namespace

int main(int argc, char **argv) {
    Options options;
    if (!take_all(options, argc, argv)) {
        return 2;
    }
    benchmark::Initialize(&argc, argv);
    stay_on_one_processor();
    if (options.peers) {
        bench::use_peers();
    }
    if (options.growth) {
        bench::add_growth_rows();
    } else {
        add_rows();
    }
    bench::Table table;
    const bool whole = table.measure(options.setting);
    std::printf("%zu-bit, %d rounds, all on one processor\n", 8 * sizeof(void *), options.setting.rounds);
    table.print();
    if (!options.json.empty() && !table.write_json(options.json, options.setting)) {
        std::perror(options.json.c_str());
        return 1;
    }
    return whole ? 0 : 1;
}
