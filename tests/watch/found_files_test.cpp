// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "apps/watch/found_files.h"

namespace {

using zav_shm::watch::stream_named;

TEST(Stream_Named, takes_channel_and_stream_off_the_end) {
    const auto id = stream_named("CAM_LOOP_2_1");
    ASSERT_TRUE(id);
    EXPECT_EQ(id->producer, "CAM_LOOP");
    EXPECT_EQ(id->channel, 2);
    EXPECT_EQ(id->stream, 1);
    EXPECT_EQ(stream_named("A_1_0_10_11")->producer, "A_1_0");
}

TEST(Stream_Named, is_no_other_file_beside_the_rings) {
    for (const char* name :
         {"", "_", "__", "_0_0", "CAM", "CAM_0", "CAM_0_", "CAM__0", "CAM_0_x", "CAM_00_0",
          "CAM_0_+1", "CAM_0_-1", "CAM_0_99999999999", "CAM_0_0.lock", "CAM_0_0.request",
          "CAM_0_0.new", "PLAYER_0_0.route", "0123456789abcdef.reader", ".hidden_0_0"}) {
        EXPECT_FALSE(stream_named(name)) << name;
    }
}

}  // namespace
