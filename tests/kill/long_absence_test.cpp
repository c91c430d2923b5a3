// SPDX-License-Identifier: Apache-2.0
//
// A center that was away for so long that the pauses between the attempts of its clients have
// grown to seconds.
#include <thread>

#include "device.h"
#include "support/threads.h"

using namespace std::chrono_literals;

namespace {

TEST_F(Device, is_back_at_full_rate_at_once_behind_a_center_that_was_away_for_long) {
    start_all(60);
    ASSERT_TRUE(becomes_full(10s));
    process_of(Role::center).kill();
    // Attempts 200 ms long with pauses of 50, 100, 200, 400, 800 and 1600 ms end 4.95 s after the
    // kill, the next would begin at 6.55 s.
    std::this_thread::sleep_for(5s);
    start_role(Role::center);
    // The daemon needs 120 ms, the window that shows the rate 300 ms.
    EXPECT_TRUE(becomes_full(1200ms));
    end_all();
    EXPECT_EQ(wrong_frames(), 0U);
}

}  // namespace
