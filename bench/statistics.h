// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// What the samples of a way come to.
#ifndef ZEL_BENCH_STATISTICS_H
#define ZEL_BENCH_STATISTICS_H

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

namespace bench {

// The value below which that part of the values lies.
inline double quantile(std::vector<double> values, double part) {
    std::sort(values.begin(), values.end());
    return values[static_cast<size_t>(std::lround(part * static_cast<double>(values.size() - 1)))];
}

// The ratio within each round.
inline std::vector<double> ratios(const std::vector<double> &way, const std::vector<double> &floor) {
    std::vector<double> result(std::min(way.size(), floor.size()));
    for (size_t round = 0; round < result.size(); ++round) {
        result[round] = way[round] / floor[round];
    }
    return result;
}

} // namespace bench

#endif
