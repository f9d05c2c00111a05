// SPDX-License-Identifier: Apache-2.0
#include "bench_util.h"

#include <algorithm>

namespace bench {
Stats stats_of(std::vector<double> s) {
    std::sort(s.begin(), s.end());
    Stats r;
    if (s.empty()) return r;
    r.min = s.front();
    r.max = s.back();
    r.median = s.size() % 2 ? s[s.size() / 2] : (s[s.size() / 2 - 1] + s[s.size() / 2]) / 2;
    return r;
}

}  // namespace bench
