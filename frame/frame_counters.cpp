// SPDX-License-Identifier: Apache-2.0
#include "frame/frame_counters.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <iterator>
#include <numeric>

// Microseconds below 8 have a bucket each; from there on each power of two has 8 buckets.

namespace zav_shm {

namespace {
constexpr unsigned sub_bits = 3;
constexpr std::uint64_t sub_count = 1U << sub_bits;
constexpr std::int64_t ns_per_us = 1000;
}  // namespace

std::size_t Latency_Histogram::bucket_of(std::int64_t ns) {
    const auto us = static_cast<std::uint64_t>(std::max<std::int64_t>(ns, 0) / ns_per_us);
    if (us < sub_count) {
        return static_cast<std::size_t>(us);
    }
    const auto exponent = static_cast<unsigned>(std::bit_width(us)) - sub_bits - 1;
    const std::uint64_t bucket = exponent * sub_count + (us >> exponent);
    return static_cast<std::size_t>(std::min<std::uint64_t>(bucket, bucket_count - 1));
}

std::int64_t Latency_Histogram::upper_bound_ns(std::size_t bucket) {
    if (bucket < sub_count) {
        return static_cast<std::int64_t>(bucket + 1) * ns_per_us;
    }
    const auto exponent = static_cast<unsigned>(bucket / sub_count - 1);
    const std::uint64_t mantissa = sub_count + bucket % sub_count;
    return static_cast<std::int64_t>((mantissa + 1) << exponent) * ns_per_us;
}

void Latency_Histogram::add(std::int64_t ns) { ++buckets[bucket_of(ns)]; }

std::uint64_t Latency_Histogram::count() const {
    return std::accumulate(buckets.begin(), buckets.end(), std::uint64_t{0});
}

std::int64_t Latency_Histogram::percentile_ns(double share) const {
    const std::uint64_t total = count();
    if (total == 0) {
        return 0;
    }
    const double wanted = std::ceil(std::clamp(share, 0.0, 1.0) * static_cast<double>(total));
    const auto rank = std::max<std::uint64_t>(static_cast<std::uint64_t>(wanted), 1);
    std::uint64_t seen = 0;
    for (std::size_t bucket = 0; bucket < bucket_count; ++bucket) {
        seen += buckets[bucket];
        if (seen >= rank) {
            return upper_bound_ns(bucket);
        }
    }
    return upper_bound_ns(bucket_count - 1);
}

Latency_Histogram& Latency_Histogram::operator-=(const Latency_Histogram& earlier) {
    for (std::size_t bucket = 0; bucket < bucket_count; ++bucket) {
        buckets[bucket] -= earlier.buckets[bucket];
    }
    return *this;
}

void Subscriber_Counters::take_from(const Reader_Card& card) {
    static_cast<Reader_Card::Counters&>(*this) = card.counters;
    std::copy(std::begin(card.latency), std::end(card.latency), latency.buckets.begin());
}

}  // namespace zav_shm
