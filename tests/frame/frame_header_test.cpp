// SPDX-License-Identifier: Apache-2.0
#include "frame/frame_header.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

TEST(Frame_Header, begins_with_its_four_characters) {
    EXPECT_EQ(std::memcmp(&zav_shm::frame_magic, "ZAVF", 4), 0);
}

TEST(Frame_Header, commit_of_a_complete_frame_is_never_zero) {
    EXPECT_EQ(zav_shm::commit_of(1), 1U);
    EXPECT_EQ(zav_shm::commit_of(0x1'0000'0000), 1U);
    EXPECT_EQ(zav_shm::commit_of(0x1'0000'0002), 2U);
    EXPECT_EQ(zav_shm::commit_of(0xFFFF'FFFF), 0xFFFF'FFFFU);
}

TEST(Frame_Header, codec_is_four_characters_filled_up_with_blanks) {
    EXPECT_EQ(std::memcmp(&zav_shm::codec::h264, "H264", 4), 0);
    EXPECT_EQ(std::memcmp(&zav_shm::codec::aac, "AAC ", 4), 0);
    EXPECT_EQ(zav_shm::codec_name(zav_shm::codec::aac), "AAC");
    EXPECT_EQ(zav_shm::codec_name(zav_shm::codec::opus), "OPUS");
    EXPECT_EQ(zav_shm::codec_name(0), "????");
}

}  // namespace
