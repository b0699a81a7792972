// SPDX-License-Identifier: MIT
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

// The nearest-rank percentile `q` (0 to 1) of `values`; 0 when there are none. One definition
// for every benchmark, so their p50/p95 figures compare.
inline double percentile(std::vector<double> values, double q) {
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    const auto rank = std::size_t(std::ceil(q * double(values.size())));
    return values[std::clamp<std::size_t>(rank, 1, values.size()) - 1];
}
