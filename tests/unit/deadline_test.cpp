// SPDX-License-Identifier: Apache-2.0
#include "ipc/deadline.h"

#include <gtest/gtest.h>

#include <climits>

namespace {

void expect_deadline(timespec now, long ms, time_t seconds, long nanoseconds) {
    const timespec deadline = zav_shm::deadline_after(now, ms);
    EXPECT_EQ(deadline.tv_sec, seconds) << ms << " ms";
    EXPECT_EQ(deadline.tv_nsec, nanoseconds) << ms << " ms";
}

TEST(Deadline, carries_nanoseconds_into_seconds) {
    expect_deadline({12, 800'000'000}, 1500, 14, 300'000'000);
}

TEST(Deadline, of_zero_milliseconds_is_now) {
    expect_deadline({7, 999'999'999}, 0, 7, 999'999'999);
}

TEST(Deadline, carries_at_exactly_one_second) {
    expect_deadline({1, 999'000'000}, 1, 2, 0);
    expect_deadline({1, 998'999'999}, 1, 1, 999'999'999);
}

TEST(Deadline, adds_whole_seconds) { expect_deadline({5, 0}, 3000, 8, 0); }

TEST(Deadline, in_the_past_stays_normalised) {
    expect_deadline({5, 0}, -1, 4, 999'000'000);
    expect_deadline({5, 500'000'000}, -1500, 4, 0);
}

TEST(Deadline, of_the_longest_time_has_valid_nanoseconds) {
    const timespec deadline = zav_shm::deadline_after({1, 999'999'999}, LONG_MAX);
    EXPECT_GE(deadline.tv_nsec, 0);
    EXPECT_LT(deadline.tv_nsec, 1'000'000'000);
    EXPECT_GT(deadline.tv_sec, LONG_MAX / 1000);
}

TEST(Deadline, of_the_wall_clock_follows_the_wall_clock) {
    timespec before{};
    clock_gettime(CLOCK_REALTIME, &before);
    const timespec deadline = zav_shm::wall_clock_deadline(60'000);
    EXPECT_GE(deadline.tv_sec, before.tv_sec + 60);
}

TEST(Deadline, of_a_wait_without_end_is_far_away_and_does_not_overflow) {
    using std::chrono::milliseconds;
    const auto now = std::chrono::steady_clock::now();
    EXPECT_GT(zav_shm::moment_after(milliseconds::max()), now + std::chrono::hours(24 * 365));
    EXPECT_LT(zav_shm::moment_after(milliseconds::min()), now);
    EXPECT_GE(zav_shm::moment_after(milliseconds(500)), now + milliseconds(500));
    const auto at_once = zav_shm::moment_after(milliseconds(0));
    EXPECT_LE(at_once, std::chrono::steady_clock::now());
}

}  // namespace
