// SPDX-License-Identifier: Apache-2.0
#include "frame/frame_counters.h"

#include <gtest/gtest.h>

using zav_shm::Latency_Histogram;

namespace {

TEST(Latency_Histogram, every_latency_is_within_an_eighth_of_its_bucket) {
    for (std::int64_t us = 1; us < 4'000'000'000; us += us / 5 + 1) {
        const std::size_t bucket = Latency_Histogram::bucket_of(us * 1000);
        const std::int64_t bound = Latency_Histogram::upper_bound_ns(bucket);
        EXPECT_GT(bound, us * 1000);
        EXPECT_LE(bound, us * 1000 + us * 1000 / 8 + 1000) << us;
    }
}

TEST(Latency_Histogram, buckets_follow_each_other_without_a_gap) {
    for (std::size_t bucket = 0; bucket + 1 < Latency_Histogram::bucket_count; ++bucket) {
        const std::int64_t bound = Latency_Histogram::upper_bound_ns(bucket);
        EXPECT_EQ(Latency_Histogram::bucket_of(bound - 1), bucket);
        EXPECT_EQ(Latency_Histogram::bucket_of(bound), bucket + 1);
    }
}

TEST(Latency_Histogram, what_no_bucket_can_hold_is_in_the_outermost) {
    EXPECT_EQ(Latency_Histogram::bucket_of(-5), 0U);
    EXPECT_EQ(Latency_Histogram::bucket_of(INT64_MAX), Latency_Histogram::bucket_count - 1);
}

TEST(Latency_Histogram, percentiles_count_frames) {
    Latency_Histogram latency;
    EXPECT_EQ(latency.percentile_ns(0.5), 0);
    for (int i = 0; i < 99; ++i) {
        latency.add(3'500);
    }
    latency.add(1'000'000);
    EXPECT_EQ(latency.percentile_ns(0.5), 4'000);
    EXPECT_EQ(latency.percentile_ns(0.99), 4'000);
    EXPECT_GE(latency.percentile_ns(1.0), 1'000'000);
}

TEST(Latency_Histogram, the_difference_of_two_is_what_came_between) {
    Latency_Histogram earlier;
    earlier.add(1'000'000);
    Latency_Histogram later = earlier;
    later.add(2'000);
    later -= earlier;
    EXPECT_EQ(later.count(), 1U);
    EXPECT_EQ(later.percentile_ns(1.0), 3'000);
}

}  // namespace
