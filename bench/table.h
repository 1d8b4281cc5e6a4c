// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The measurements as rows: contenders that do one work, and the table of their ratios to the floor.
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

// own: the processor time of the process that does the work; other load does not count.
// wall: for work that another process shares in.
enum class Clock { own, wall };

// One contender: "zel", "floor", or another way of doing the work.
struct Way {
    std::string name;
    Body body;
};

struct Work {
    std::string name;
    Clock clock;
    int64_t iterations;      // in one sample
    int every = 1;           // a sample in one round of so many, for work that takes long
    std::string series = {}; // of a growth plot; empty for a row of the table
    double x = 0;            // the place in the series
};

// Adds a row. The floor is measured a second time as "floor, again": what it differs from itself by, no other ratio
// can tell from 1.
void add_row(const Work &work, std::vector<Way> ways);

// How the program was run, for the table and its JSON.
struct Setting {
    int rounds;
    std::string filter; // a regular expression that the names of the rows are searched for; empty for all
    std::string commit;
};

// Collects one sample of every way in each round.
class Table : public benchmark::BenchmarkReporter {
public:
    // Takes the samples of all rounds. False when nothing was measured, or not all of it.
    bool measure(const Setting &setting);
    void print() const;
    // False when the file cannot be written.
    bool write_json(const std::string &path, const Setting &setting) const;

    bool ReportContext(const Context &context) override;
    void ReportRuns(const std::vector<Run> &runs) override;

    struct Samples {
        std::vector<double> seconds; // of one iteration
        std::map<std::string, double> counters;
    };
    struct Row {
        Work work;
        std::vector<std::string> ways;
        std::map<std::string, Samples> samples;
    };

private:
    void add_sample(const Run &run);

    std::vector<Row> rows_;
    std::vector<std::string> errors_;
};

} // namespace bench

#endif
