// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/gap_finder.h"

#include <gtest/gtest.h>

namespace {

using zav_shm::Frame_Losses;
using zav_shm::Received_Frame;
using zav_shm::tool::Gap_Finder;

constexpr std::uint16_t end_flag = zav_shm::frame_flag::end_of_stream;

struct Sent {
    std::uint64_t sequence = 1;
    std::uint16_t flags = 0;
    Frame_Losses before = {};
    std::uint64_t epoch = 7;
};

struct Gaps : testing::Test {
    Gap_Finder::Gap before(const Sent& sent) {
        Received_Frame frame;
        frame.verified = true;
        frame.header.epoch = sent.epoch;
        frame.header.sequence = sent.sequence;
        frame.header.flags = sent.flags;
        frame.before = sent.before;
        return finder.before(frame);
    }

    Gap_Finder finder;
};

TEST_F(Gaps, are_none_before_the_first_frame) {
    EXPECT_TRUE(before({.sequence = 7, .before = {.skipped = 6}}).is_none());
    EXPECT_TRUE(before({.sequence = 8}).is_none());
}

TEST_F(Gaps, are_what_was_lost_and_left_out) {
    before({.sequence = 1});
    const auto gap = before(
        {.sequence = 9,
         .before = {.overtaken = 1, .left_out = 1, .no_memory = 1, .dropped = 1, .skipped = 3}});
    EXPECT_EQ(gap.lost, 3U);
    EXPECT_EQ(gap.dropped, 1U);
    EXPECT_EQ(gap.skipped, 3U);
    EXPECT_FALSE(gap.other_producer);
    EXPECT_TRUE(before({.sequence = 10}).is_none());
}

TEST_F(Gaps, are_where_another_producer_begins) {
    before({.sequence = 1});
    EXPECT_TRUE(before({.sequence = 1, .epoch = 8}).other_producer);
    EXPECT_TRUE(before({.sequence = 2, .epoch = 8}).is_none());
}

TEST_F(Gaps, are_none_where_a_stream_follows_the_end_of_another) {
    before({.sequence = 1, .flags = end_flag});
    EXPECT_TRUE(before({.sequence = 1, .epoch = 8}).is_none());
    EXPECT_TRUE(before({.sequence = 1, .epoch = 9}).other_producer) << "that one had not ended";
    EXPECT_TRUE(before({.sequence = 2, .flags = end_flag, .epoch = 9}).is_none());
    EXPECT_TRUE(before({.sequence = 3, .epoch = 10}).other_producer)
        << "the beginning of the new one is missing";
}

TEST_F(Gaps, are_not_between_frames_without_a_header) {
    const Received_Frame foreign;
    EXPECT_TRUE(finder.before(foreign).is_none());
    EXPECT_TRUE(finder.before(foreign).is_none());
    EXPECT_TRUE(before({.sequence = 1}).other_producer);
}

}  // namespace
