// SPDX-License-Identifier: Apache-2.0
#include "bench/compare/figures.h"

namespace zav_shm::bench::compare {

std::uint64_t Figures::sum_of(std::uint64_t Run_Result::*count) const {
    std::uint64_t sum = 0;
    for (const Run_Result& round : rounds_) {
        sum += round.*count;
    }
    return sum;
}

double Figures::latency_us(double percent) const {
    std::vector<std::int64_t> of_each_round;
    for (const Run_Result& round : rounds_) {
        of_each_round.push_back(percentile(round.latencies_ns, percent));
    }
    const double over_rounds = percent == 100 ? 100 : 50;
    return static_cast<double>(percentile(of_each_round, over_rounds)) / 1e3;
}

double Figures::lost_percent() const {
    const auto offered = static_cast<double>(sum_of(&Run_Result::offered));
    return offered > 0 ? 100 * static_cast<double>(sum_of(&Run_Result::lost)) / offered : 0;
}

}  // namespace zav_shm::bench::compare
