// SPDX-License-Identifier: Apache-2.0
// Timing and statistics for the benchmark driver.
#pragma once

#include <chrono>
#include <vector>

namespace bench {

using Clock = std::chrono::steady_clock;

struct Stats {
    double median = 0, min = 0, max = 0;
};
Stats stats_of(std::vector<double> samples);

}  // namespace bench
