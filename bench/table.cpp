// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The rows, their samples and their table.
#include "table.h"

#include "json.h"
#include "statistics.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <regex>

namespace bench {

namespace {

constexpr const char *kFloor = "floor";
constexpr double kGiB = 1024.0 * 1024.0 * 1024.0;

// The works in the order in which they were added.
std::vector<Work> &works() {
    static std::vector<Work> added;
    return added;
}

std::string text_of(double seconds, double bytes) {
    struct Unit {
        double size;
        const char *name;
    };
    constexpr std::array<Unit, 4> units = {{{1, "s"}, {1e-3, "ms"}, {1e-6, "us"}, {1e-9, "ns"}}};
    std::array<char, 32> text;
    if (bytes > 0) {
        std::snprintf(text.data(), text.size(), "%.2f GiB/s", bytes / seconds / kGiB);
        return text.data();
    }
    const auto *unit = std::find_if(units.begin(), units.end() - 1, [seconds](Unit u) { return seconds >= u.size; });
    std::snprintf(text.data(), text.size(), "%.1f %s", seconds / unit->size, unit->name);
    return text.data();
}

// One way of one row, as Google Benchmark runs it.
class OneWay : public benchmark::Fixture {
public:
    OneWay(const std::string &name, Body body) : body_(std::move(body)) { SetName(name.c_str()); }

protected:
    void BenchmarkCase(benchmark::State &state) override { body_(state); }

private:
    Body body_;
};

void print_line(const Table::Row &row, const std::string &way) {
    const Table::Samples &samples = row.samples.at(way);
    const std::vector<double> each = ratios(samples.seconds, row.samples.at(kFloor).seconds);
    const auto bytes = samples.counters.find("bytes");
    const std::string time =
        text_of(quantile(samples.seconds, 0.5), bytes == samples.counters.end() ? 0 : bytes->second);
    std::printf("%-40s %-22s %11s   %6.2f   %.2f to %.2f\n", row.work.name.c_str(), way.c_str(), time.c_str(),
                quantile(each, 0.5), quantile(each, 0.25), quantile(each, 0.75));
}

} // namespace

void add_row(const Work &work, std::vector<Way> ways) {
    const auto floor = std::find_if(ways.begin(), ways.end(), [](const Way &way) { return way.name == kFloor; });
    ways.push_back({"floor, again", floor->body});
    works().push_back(work);
    for (const Way &way : ways) {
        auto *run = new OneWay(work.name + "/" + way.name, way.body);
        benchmark::internal::RegisterBenchmarkInternal(run);
        run->Iterations(work.iterations);
        if (work.clock == Clock::wall) {
            run->UseRealTime();
        }
    }
}

bool Table::measure(const Setting &setting) {
    const std::regex filter(setting.filter);
    for (const Work &work : works()) {
        if (std::regex_search(work.name, filter)) {
            rows_.push_back({.work = work, .ways = {}, .samples = {}});
        }
    }
    for (int round = 0; round < setting.rounds; ++round) {
        for (const Row &row : rows_) {
            if (round % row.work.every == 0) {
                benchmark::RunSpecifiedBenchmarks(this, "^" + row.work.name + "/");
            }
        }
    }
    return errors_.empty() && !rows_.empty();
}

bool Table::ReportContext(const Context &) {
    return true;
}

// What another process did comes with the time that it took itself.
void Table::add_sample(const Run &run) {
    const std::string &name = run.run_name.function_name;
    const size_t slash = name.rfind('/');
    const auto row = std::find_if(rows_.begin(), rows_.end(),
                                  [&](const Row &one) { return name.compare(0, slash, one.work.name) == 0; });
    const std::string way = name.substr(slash + 1);
    if (!row->samples.contains(way)) {
        row->ways.push_back(way);
    }
    Samples &samples = row->samples[way];
    const double whole = row->work.clock == Clock::wall ? run.real_accumulated_time : run.cpu_accumulated_time;
    double seconds = whole / static_cast<double>(run.iterations);
    for (const auto &[counter, value] : run.counters) {
        if (counter == "seconds") {
            seconds = value;
        } else {
            samples.counters[counter] = value;
        }
    }
    samples.seconds.push_back(seconds);
}

void Table::ReportRuns(const std::vector<Run> &runs) {
    for (const Run &run : runs) {
        if (run.error_occurred) {
            errors_.push_back(run.run_name.function_name + ": " + run.error_message);
        } else {
            add_sample(run);
        }
    }
}

void Table::print() const {
    std::printf("%-40s %-22s %11s   %6s   %s\n", "work", "contender", "time", "ratio", "quartiles");
    for (const Row &row : rows_) {
        for (const std::string &way : row.ways) {
            if (row.samples.contains(kFloor)) {
                print_line(row, way);
            }
        }
    }
    for (const std::string &error : errors_) {
        std::fprintf(stderr, "zel_bench: %s\n", error.c_str());
    }
}

bool Table::write_json(const std::string &path, const Setting &setting) const {
    return bench::write_json(path, setting, rows_);
}

} // namespace bench
