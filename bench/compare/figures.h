// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <vector>

#include "bench/compare/run.h"
#include "bench/percentile.h"

namespace zav_shm::bench::compare {

/// What one system came to in one cell: its rounds, and what is shown of them.
class Figures {
public:
    void add(Run_Result result) { rounds_.push_back(std::move(result)); }
    void add_failure() { ++failures_; }

    /// The rounds that came to something; figures are of these.
    std::size_t rounds() const { return rounds_.size(); }
    int failures() const { return failures_; }

    /// The nearest-rank percentile of that figure over the rounds.
    template <typename Value>
    Value of_rounds(Value Run_Result::*figure, double percent) const {
        std::vector<Value> values;
        for (const Run_Result& round : rounds_) {
            values.push_back(round.*figure);
        }
        return percentile(values, percent);
    }

    template <typename Value>
    Value median_of(Value Run_Result::*figure) const {
        return of_rounds(figure, 50);
    }

    /// Over all rounds.
    std::uint64_t sum_of(std::uint64_t Run_Result::*count) const;

    /// The median over the rounds of a round's percentile; for 100 the greatest of all.
    double latency_us(double percent) const;

    /// 0 .. 100, over all rounds.
    double lost_percent() const;

private:
    std::vector<Run_Result> rounds_;
    int failures_ = 0;
};

}  // namespace zav_shm::bench::compare
