// SPDX-License-Identifier: Apache-2.0
//
// A center that was away for so long that the pauses between the attempts of its clients have
// grown to seconds.
#include <filesystem>
#include <thread>

#include "control/center_page.h"
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

// The daemon notices within a second, makes everything anew, and its clients register again.
TEST_F(Device, is_back_at_full_rate_after_all_that_the_center_made_was_removed) {
    start_all(60);
    ASSERT_TRUE(becomes_full(10s));
    const auto epoch = [] {
        const auto page = zav_shm::read_center_page("/shm");
        return page ? page->epoch : 0;
    };
    const std::uint64_t former = epoch();
    for (const auto& entry : std::filesystem::directory_iterator("/dev/shm")) {
        std::filesystem::remove_all(entry.path());
    }
    ASSERT_TRUE(becomes_true([&] { return epoch() != 0 && epoch() != former; }));
    std::this_thread::sleep_for(300ms);  // the window that shows the rate
    EXPECT_TRUE(becomes_full(5s));
    end_all();
    EXPECT_EQ(wrong_frames(), 0U);
}

}  // namespace
