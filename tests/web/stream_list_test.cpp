// SPDX-License-Identifier: Apache-2.0
#include "apps/web/stream_list.h"

#include <gtest/gtest.h>

namespace {

using zav_shm::web::key_of_file;

TEST(Stream_List, reads_keys_from_the_names_of_rings) {
    const auto key = key_of_file("CAM_LOOP_2_1");
    ASSERT_TRUE(key);
    EXPECT_EQ(key->name, "CAM_LOOP");
    EXPECT_EQ(key->channel, 2);
    EXPECT_EQ(key->stream, 1);
    EXPECT_EQ(key_of_file("A_0_10")->stream, 10);
}

TEST(Stream_List, passes_over_other_files) {
    for (const char* file : {"", "CAM", "CAM_1", "_1_2", "CAM_1_2.lock", "CAM_1_2.request",
                             "CAM_1_2.0123456789abcdef.card", "CAM_x_1", "CAM_1_", "CAM_-1_0",
                             "CAM_1_99999999999", ".CAM_0_0", "CAM_00_0", "CAM_0_+1"}) {
        EXPECT_FALSE(key_of_file(file)) << file;
    }
}

}  // namespace
