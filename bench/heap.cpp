// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Measures the debug heap beside plain malloc and beside other memory debuggers: zel_bench_heap [REPETITIONS].
//
// Each sample is a process of its own, zel_bench_heap_work. A repetition takes one sample of every heap, right after
// the floor's; a row's ratio is the median over the repetitions of the ratio within one.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

namespace {

constexpr int kDefaultRepetitions = 5;
constexpr long kSizes[] = {1000, 10000, 100000};

struct Heap {
    const char *name;
    const char *before; // the command line in front of the program
    const char *how;
    const char *mapped; // the library that must be loaded, or empty
    long rounds;        // in one sample
    long per_live;      // not 0: at most per_live / LIVE rounds, for a call that looks at every live block
    long most;          // live blocks that it can hold
};

constexpr long kAny = 1000000;
constexpr Heap kHeaps[] = {
    {"plain malloc", "", "malloc", "", 200000, 0, kAny},
    {"zel, mode 0", "", "zel0", "", 200000, 0, kAny},
    {"zel, mode 1", "", "zel1", "", 100000, 0, kAny},
    {"zel, mode 2", "", "zel2", "", 20000, 2000000, kAny},
    {"C library, MALLOC_CHECK_=3", "LD_PRELOAD=libc_malloc_debug.so.0 MALLOC_CHECK_=3 ", "malloc",
     "libc_malloc_debug.so", 100000, 0, kAny},
    {"valgrind, memcheck", "valgrind -q ", "malloc", "", 10000, 0, kAny},
    // Two mappings for each block: the kernel grants a process 65530.
    {"Electric Fence", "EF_DISABLE_BANNER=1 LD_PRELOAD=libefence.so.0.0 ", "malloc", "libefence.so", 2000, 0, 10000},
};

struct Row {
    std::vector<double> ratios;
    std::vector<double> nanoseconds;
    bool failed = false;
};

std::string worker() {
    return std::filesystem::read_symlink("/proc/self/exe").replace_filename("zel_bench_heap_work").string();
}

std::string command(const Heap &heap, long live) {
    const long rounds = heap.per_live > 0 ? std::min(heap.rounds, heap.per_live / live) : heap.rounds;
    return std::string(heap.before) + "'" + worker() + "' " + heap.how + " " + std::to_string(live) + " " +
           std::to_string(rounds) + " " + heap.mapped + " 2>/dev/null";
}

// Nanoseconds per round; 0 when the program does not run so.
double sample(const Heap &heap, long live) {
    FILE *output = popen(command(heap, live).c_str(), "r");
    if (output == nullptr) {
        return 0;
    }
    double nanoseconds = 0;
    const bool read = std::fscanf(output, "%lf", &nanoseconds) == 1;
    return pclose(output) == 0 && read ? nanoseconds : 0;
}

void add_sample(Row &row, const Heap &heap, long live, double floor) {
    if (row.failed || live > heap.most) {
        return;
    }
    const double nanoseconds = sample(heap, live);
    row.failed = nanoseconds <= 0;
    row.nanoseconds.push_back(nanoseconds);
    row.ratios.push_back(nanoseconds / floor);
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void print_row(const Heap &heap, const Row &row, long live) {
    std::printf("| %6ld | %-26s | ", live, heap.name);
    if (live > heap.most) {
        std::printf("not measured: holds too few blocks |\n");
    } else if (row.failed) {
        std::printf("not there, or does not run for this target |\n");
    } else {
        const auto [least, most] = std::minmax_element(row.ratios.begin(), row.ratios.end());
        std::printf("%8.2f | %.2f to %.2f | %.0f ns |\n", median(row.ratios), *least, *most, median(row.nanoseconds));
    }
}

// False when a heap that is always there could not be measured.
bool measure(long live, int repetitions) {
    std::vector<Row> rows(std::size(kHeaps));
    for (int repetition = 0; repetition < repetitions; ++repetition) {
        for (size_t i = 1; i < rows.size(); ++i) {
            const double floor = sample(kHeaps[0], live);
            if (floor <= 0) {
                return false;
            }
            add_sample(rows[i], kHeaps[i], live, floor);
        }
    }
    for (size_t i = 1; i < rows.size(); ++i) {
        print_row(kHeaps[i], rows[i], live);
    }
    return std::none_of(rows.begin() + 1, rows.begin() + 4, [](const Row &row) { return row.failed; });
}

} // namespace

int main(int argc, char **argv) {
    const int repetitions = argc > 1 ? std::atoi(argv[1]) : kDefaultRepetitions;
    if (repetitions < 1) {
        return 2;
    }
    std::printf("%zu-bit, %d repetitions\n", 8 * sizeof(void *), repetitions);
    std::printf(
        "|   live | beside plain malloc        |    ratio | least to most | a round |\n|---|---|---|---|---|\n");
    bool whole = true;
    for (const long live : kSizes) {
        whole = measure(live, repetitions) && whole;
    }
    if (!whole) {
        std::fprintf(stderr, "zel_bench_heap: not everything was measured\n");
    }
    return whole ? 0 : 1;
}
