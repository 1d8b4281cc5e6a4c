// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The rows and their table.
#include "table.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

namespace bench {

namespace {

constexpr double kGiB = 1024.0 * 1024.0 * 1024.0;

// The value below which that part of the values lies.
double quantile(std::vector<double> values, double part) {
    std::sort(values.begin(), values.end());
    return values[static_cast<size_t>(std::lround(part * static_cast<double>(values.size() - 1)))];
}

std::vector<double> ratios(const std::vector<double> &zel, const std::vector<double> &floor) {
    std::vector<double> result(std::min(zel.size(), floor.size()));
    std::transform(zel.begin(), zel.begin() + static_cast<std::ptrdiff_t>(result.size()), floor.begin(), result.begin(),
                   [](double a, double b) { return a / b; });
    return result;
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

} // namespace

void add_row(const std::string &name, Clock clock, int64_t iterations, const std::vector<Way> &ways) {
    for (const Way &way : ways) {
        auto *run = new OneWay(name + "/" + way.name, way.body);
        benchmark::internal::RegisterBenchmarkInternal(run);
        run->Iterations(iterations);
        if (clock == Clock::wall) {
            run->UseRealTime();
        }
    }
}

bool Table::ReportContext(const Context &) {
    return true;
}

Table::Row &Table::row(const std::string &name) {
    const auto known = std::find_if(rows_.begin(), rows_.end(), [&name](const Row &r) { return r.name == name; });
    if (known != rows_.end()) {
        return *known;
    }
    rows_.push_back({.name = name, .ways = {}, .samples = {}});
    return rows_.back();
}

void Table::ReportRuns(const std::vector<Run> &runs) {
    for (const Run &run : runs) {
        const std::string &name = run.run_name.function_name;
        const size_t slash = name.rfind('/');
        const std::string way = name.substr(slash + 1);
        if (run.error_occurred) {
            errors_.push_back(name + ": " + run.error_message);
            continue;
        }
        const bool wall = run.run_name.time_type == "real_time";
        const double seconds = wall ? run.real_accumulated_time : run.cpu_accumulated_time;
        Row &target = row(name.substr(0, slash));
        if (!target.samples.contains(way)) {
            target.ways.push_back(way);
        }
        Samples &samples = target.samples[way];
        samples.seconds.push_back(seconds / static_cast<double>(run.iterations));
        const auto bytes = run.counters.find("bytes");
        samples.bytes_per_iteration = bytes == run.counters.end() ? 0 : bytes->second.value;
        ++samples_;
    }
}

void Table::print_line(const Row &row, const std::string &floor) {
    const Samples &zel = row.samples.at("zel");
    const Samples &other = row.samples.at(floor);
    const std::vector<double> each = ratios(zel.seconds, other.seconds);
    std::printf("%-34s %-17s %11s %11s   %5.2f   %.2f to %.2f\n", row.name.c_str(), floor.c_str(),
                text_of(quantile(zel.seconds, 0.5), zel.bytes_per_iteration).c_str(),
                text_of(quantile(other.seconds, 0.5), other.bytes_per_iteration).c_str(), quantile(each, 0.5),
                quantile(each, 0.25), quantile(each, 0.75));
}

bool Table::print() const {
    std::printf("%-34s %-17s %11s %11s   %5s   %s\n", "measurement", "beside", "zel", "by hand", "ratio",
                "middle half");
    for (const Row &row : rows_) {
        for (const std::string &way : row.ways) {
            if (way != "zel" && row.samples.contains("zel")) {
                print_line(row, way);
            }
        }
    }
    for (const std::string &error : errors_) {
        std::fprintf(stderr, "zel_bench: %s\n", error.c_str());
    }
    return errors_.empty() && !rows_.empty();
}

} // namespace bench
