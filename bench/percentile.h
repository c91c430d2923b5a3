// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

namespace zav_shm::bench {

/// The nearest-rank percentile: the smallest value that at least `percent` of the values do not
/// exceed, always one that was measured. 50 is the median, 100 the greatest.
///
/// @param percent  0 .. 100
/// @return 0 without any value.
template <typename Value>
Value percentile(std::vector<Value> values, double percent) {
    if (values.empty()) {
        return Value{};
    }
    const double rank = std::ceil(percent / 100.0 * static_cast<double>(values.size()));
    const auto index = static_cast<std::size_t>(std::max(rank, 1.0)) - 1;
    const auto wanted = values.begin() + static_cast<std::ptrdiff_t>(index);
    std::nth_element(values.begin(), wanted, values.end());
    return *wanted;
}

template <typename Value>
Value median(const std::vector<Value>& values) {
    return percentile(values, 50.0);
}

}  // namespace zav_shm::bench
