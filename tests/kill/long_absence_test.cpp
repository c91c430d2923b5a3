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

TEST_F(Device, registers_at_once_with_a_center_that_was_away_for_long) {
    start_all(60);
    ASSERT_TRUE(becomes_full(10s));
    const auto before = registrations();
    process_of(Role::center).kill();
    for (int i = 0; i < 10; ++i) {
        std::this_thread::sleep_for(500ms);
        EXPECT_TRUE(becomes_full(1s)) << "frames need no center; " << i;
    }
    start_role(Role::center);
    EXPECT_TRUE(all_register_again(before, 1200ms));
    end_all();
    EXPECT_EQ(wrong_frames(), 0U);
    EXPECT_EQ(frames_that_were_lost(), 0U);
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
