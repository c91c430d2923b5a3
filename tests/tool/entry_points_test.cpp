// SPDX-License-Identifier: Apache-2.0
//
// Where decoding may begin, and pictures that are fields: what the NAL units behind their heads
// say.
#include <gtest/gtest.h>

#include "tool/crafted_streams.h"

namespace crafted {

namespace {

using zav_shm::media::Unit_Inspector;
using zav_shm::media::Video_Codec;

std::vector<Kept_Unit> split_h264(const Bytes& stream) { return split(Video_Codec::h264, stream); }

std::size_t recovery_points(const std::vector<Kept_Unit>& units) {
    std::size_t count = 0;
    for (const Kept_Unit& unit : units) {
        count += unit.is_recovery_point ? 1U : 0U;
    }
    return count;
}

// ---- recovery point messages ----

TEST(Recovery_Point, is_told_by_a_message_and_told_apart_from_idr_pictures) {
    const auto units = split_h264(sps_frames + pps + idr + p_slice + recovery + p_slice + p_slice +
                                  recovery + idr);
    ASSERT_EQ(units.size(), 5U);
    EXPECT_TRUE(units[0].is_key && !units[0].is_recovery_point);
    EXPECT_FALSE(units[1].is_key || units[1].is_recovery_point);
    EXPECT_TRUE(!units[2].is_key && units[2].is_recovery_point);
    EXPECT_FALSE(units[3].is_key || units[3].is_recovery_point);
    EXPECT_TRUE(units[4].is_key && !units[4].is_recovery_point) << "IDR with a message, too";
}

TEST(Recovery_Point, is_found_behind_other_messages_of_any_length) {
    const Bytes long_message = bytes({5, 255, 255, 2}) + Bytes(512, std::byte{0x77});
    const Bytes zeros_escaped = bytes({5, 4, 0, 0, 3, 0, 0});  // four zero bytes
    for (const Bytes& before : {Bytes{}, long_message, zeros_escaped, bytes({255, 1, 1, 9})}) {
        const Bytes message = start + bytes({0x06}) + before + bytes({6, 1, 0xC4, 0x80});
        EXPECT_EQ(recovery_points(split_h264(p_slice + message + p_slice)), 1U) << before.size();
    }
}

TEST(Recovery_Point, is_not_what_merely_looks_like_one) {
    for (const Bytes& message :
         {bytes({0x06, 5, 3, 6, 1, 0xC4, 0x80}), bytes({0x06, 6, 9, 0xC4, 0x80}), bytes({0x06, 6}),
          bytes({0x06, 255, 6, 1, 0xC4, 0x80}), bytes({0x86, 6, 1, 0xC4, 0x80}),
          bytes({0x0C, 6, 1, 0xC4, 0x80})}) {
        EXPECT_EQ(recovery_points(split_h264(p_slice + start + message + p_slice)), 0U);
    }
}

TEST(Recovery_Point, message_of_200_KiB_is_part_of_its_picture) {
    const std::size_t length = 200 * 1024;
    Bytes message = start + bytes({0x06, 5});
    message.resize(message.size() + length / 255, std::byte{255});
    message.push_back(static_cast<std::byte>(length % 255));
    message.resize(message.size() + length, std::byte{0x33});
    const auto units =
        split_h264(p_slice + message + bytes({6, 1, 0xC4, 0x80}) + p_slice + p_slice);
    ASSERT_EQ(units.size(), 3U);
    EXPECT_GT(units[1].bytes.size(), length);
    EXPECT_TRUE(units[1].is_recovery_point);
}

TEST(Recovery_Point, of_h265_is_a_cra_or_bla_picture_or_a_message) {
    const Bytes trail = bytes({0, 0, 1, 0x02, 0x01, 0xD0, 0x22});
    const Bytes message = bytes({0, 0, 1, 0x4E, 0x01, 6, 1, 0xC4, 0x80});
    const auto units = split(Video_Codec::h265, bytes({0, 0, 1, 0x26, 0x01, 0xAF}) +      // IDR
                                                    bytes({0, 0, 1, 0x2A, 0x01, 0xAF}) +  // CRA
                                                    bytes({0, 0, 1, 0x20, 0x01, 0xAF}) +  // BLA
                                                    trail + message + trail + trail);
    ASSERT_EQ(units.size(), 6U);
    EXPECT_TRUE(units[0].is_key);
    EXPECT_EQ(recovery_points(units), 3U);
    EXPECT_TRUE(units[1].is_recovery_point && units[2].is_recovery_point &&
                units[4].is_recovery_point);
}

// ---- weaker signs ----

Bytes pictures_with_an_i_picture_each(std::size_t period, std::size_t count) {
    Bytes stream;
    for (std::size_t i = 0; i < count; ++i) {
        stream = stream + (i % period == 0 ? i_slice + i_next_slice : p_slice + p_next_slice);
    }
    return stream;
}

TEST(Recovery_Point, is_an_i_picture_where_nothing_better_comes) {
    const std::size_t patience = Unit_Inspector::patience_pictures;
    const auto units =
        split_h264(sps_frames + pps + idr + pictures_with_an_i_picture_each(20, patience + 100));
    ASSERT_EQ(units.size(), patience + 101);
    EXPECT_EQ(recovery_points({units.begin(), units.begin() + 300}), 0U)
        << "an IDR picture may still come";
    EXPECT_EQ(recovery_points(units), 5U);
    EXPECT_TRUE(units[301].is_recovery_point);
}

TEST(Recovery_Point, is_no_i_picture_of_a_stream_with_idr_pictures) {
    Bytes stream;
    for (int i = 0; i < 4; ++i) {
        stream = stream + idr + pictures_with_an_i_picture_each(20, 250);
    }
    EXPECT_EQ(recovery_points(split_h264(stream)), 0U);
}

TEST(Recovery_Point, is_no_picture_with_one_other_slice) {
    Bytes stream = idr;
    for (int i = 0; i < 400; ++i) {
        stream = stream + i_slice + p_next_slice;
    }
    EXPECT_EQ(recovery_points(split_h264(stream)), 0U);
}

TEST(Recovery_Point, is_a_repeated_parameter_set_where_nothing_better_comes) {
    const Bytes sps265 = bytes({0, 0, 1, 0x42, 0x01, 0x01, 0x55});
    const Bytes trail265 = bytes({0, 0, 1, 0x02, 0x01, 0xD0, 0x22});
    Bytes h264;
    Bytes h265;
    for (int i = 0; i < 400; ++i) {
        h264 = h264 + (i % 50 == 0 ? sps_frames + pps + p_slice : p_slice);
        h265 = h265 + (i % 50 == 0 ? sps265 + trail265 : trail265);
    }
    EXPECT_EQ(recovery_points(split_h264(h264)), 2U);
    EXPECT_EQ(recovery_points(split(Video_Codec::h265, h265)), 2U);
}

// ---- fields ----

TEST(Field, is_told_by_the_slice_of_a_stream_that_has_fields) {
    const auto units =
        split_h264(sps_fields + pps + field_frame + top_field + bottom_field + field_frame);
    ASSERT_EQ(units.size(), 4U);
    EXPECT_FALSE(units[0].is_field);
    EXPECT_TRUE(units[1].is_field && units[2].is_field);
    EXPECT_FALSE(units[3].is_field);
    for (const Kept_Unit& unit :
         split_h264(sps_frames + pps + field_frame + top_field + bottom_field)) {
        EXPECT_FALSE(unit.is_field) << "the bit is another field's in a stream of frames";
    }
    for (const Kept_Unit& unit : split_h264(field_frame + top_field + bottom_field)) {
        EXPECT_FALSE(unit.is_field) << "without its sets nobody can tell";
    }
}

}  // namespace

}  // namespace crafted
