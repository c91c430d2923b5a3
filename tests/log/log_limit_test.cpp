// SPDX-License-Identifier: Apache-2.0
#include "apps/log/log_limit.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace std::chrono_literals;
using zav_shm::Log_Limit;

class Log_Limits : public testing::Test {
protected:
    // How many of so many lines pass at one moment.
    int passed_of(int lines, const std::string& object) {
        int passed = 0;
        for (int i = 0; i < lines; ++i) {
            passed += limit_.pass(object, now_) ? 1 : 0;
        }
        return passed;
    }

    Log_Limit limit_;
    Log_Limit::Time now_{1h};
};

TEST_F(Log_Limits, ten_pass_at_once_and_one_each_second_then) {
    EXPECT_EQ(passed_of(1000, "CAM/0/0"), 10);
    now_ += 1s;
    EXPECT_EQ(passed_of(1000, "CAM/0/0"), 1);
    now_ += 3s;
    EXPECT_EQ(passed_of(1000, "CAM/0/0"), 3);
    now_ += 1h;
    EXPECT_EQ(passed_of(1000, "CAM/0/0"), 10);
}

TEST_F(Log_Limits, the_next_line_tells_how_many_were_left_out_once) {
    passed_of(1000, "CAM/0/0");
    now_ += 2s;
    EXPECT_EQ(limit_.pass("CAM/0/0", now_), 990U);
    EXPECT_EQ(limit_.pass("CAM/0/0", now_), 0U);
    EXPECT_EQ(limit_.pass("CAM/0/0", now_), std::nullopt);
}

TEST_F(Log_Limits, one_object_takes_nothing_from_another) {
    passed_of(1000, "CAM/0/0");
    EXPECT_EQ(limit_.pass("CAM/0/1", now_), 0U);
}

// Somebody who invents names gets what all get together, and no memory beyond that.
TEST_F(Log_Limits, ever_new_objects_have_one_limit_together) {
    int passed = 0;
    for (int i = 0; i < 100'000; ++i) {
        passed += limit_.pass("NAME" + std::to_string(i), now_) ? 1 : 0;
    }
    EXPECT_EQ(passed, 256 + 10);
    for (int second = 0; second < 60; ++second) {
        now_ += 1s;
        for (int i = 0; i < 1000; ++i) {
            passed += limit_.pass("OTHER" + std::to_string(second * 1000 + i), now_) ? 1 : 0;
        }
    }
    EXPECT_LE(passed, 300 + 60 * 10);
}

TEST_F(Log_Limits, a_clock_that_stands_still_or_goes_back_gives_nothing) {
    passed_of(10, "CAM/0/0");
    EXPECT_EQ(passed_of(10, "CAM/0/0"), 0);
    now_ -= 10s;
    EXPECT_EQ(passed_of(10, "CAM/0/0"), 0);
}

}  // namespace
