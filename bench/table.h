// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The measurements as rows: the library beside one or more ways by hand, and the table of their ratios.
#ifndef ZEL_BENCH_TABLE_H
#define ZEL_BENCH_TABLE_H

#include <benchmark/benchmark.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace bench {

using Body = std::function<void(benchmark::State &)>;

// own: the time that this process computes; other load does not count. wall: for work that another process shares in.
enum class Clock { own, wall };

// What is measured, under the name of a way of doing it: "zel", or a floor.
struct Way {
    const char *name;
    Body body;
};

// One row: the library's way first, then the floors. iterations: in one sample of one way.
void add_row(const std::string &name, Clock clock, int64_t iterations, const std::vector<Way> &ways);

// Collects one sample of every way in each round; prints a line for each floor.
class Table : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context &context) override;
    void ReportRuns(const std::vector<Run> &runs) override;
    // False when nothing was measured, or not all of it.
    bool print() const;
    size_t samples() const { return samples_; }

private:
    struct Samples {
        std::vector<double> seconds;
        double bytes_per_iteration = 0;
    };
    struct Row {
        std::string name;
        std::vector<std::string> ways;
        std::map<std::string, Samples> samples;
    };
    Row &row(const std::string &name);
    static void print_line(const Row &row, const std::string &floor);

    std::vector<Row> rows_;
    std::vector<std::string> errors_;
    size_t samples_ = 0;
};

} // namespace bench

#endif
