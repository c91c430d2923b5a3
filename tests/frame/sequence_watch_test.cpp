// SPDX-License-Identifier: Apache-2.0
#include "frame/sequence_watch.h"

#include <gtest/gtest.h>

using zav_shm::Received_Frame;
using zav_shm::Sequence_Watch;
using Verdict = zav_shm::Sequence_Watch::Verdict;

namespace {

Received_Frame delta_frame(std::uint64_t epoch, std::uint64_t sequence) {
    Received_Frame made;
    made.verified = true;
    made.header.epoch = epoch;
    made.header.sequence = sequence;
    return made;
}

Received_Frame key_frame(std::uint64_t epoch, std::uint64_t sequence) {
    Received_Frame made = delta_frame(epoch, sequence);
    made.header.flags = zav_shm::frame_flag::key_frame;
    return made;
}

TEST(Sequence_Watch, the_first_frame_lost_nothing_whatever_its_number) {
    Sequence_Watch watch(false, false);
    Received_Frame first = delta_frame(7, 1000);
    EXPECT_EQ(watch.judge(first), Verdict::hand_out);
    EXPECT_EQ(first.lost, 0U);
    EXPECT_FALSE(first.epoch_changed);
}

TEST(Sequence_Watch, a_gap_is_as_many_lost_frames_as_numbers_are_missing) {
    Sequence_Watch watch(false, false);
    Received_Frame before = delta_frame(7, 10);
    Received_Frame after = delta_frame(7, 14);
    watch.judge(before);
    EXPECT_EQ(watch.judge(after), Verdict::hand_out);
    EXPECT_EQ(after.lost, 3U);
    EXPECT_EQ(watch.lost_now(), 3U);
}

TEST(Sequence_Watch, a_number_that_was_taken_before_is_a_repetition) {
    Sequence_Watch watch(false, false);
    Received_Frame taken = delta_frame(7, 10);
    watch.judge(taken);
    Received_Frame again = delta_frame(7, 10);
    Received_Frame older = delta_frame(7, 9);
    EXPECT_EQ(watch.judge(again), Verdict::repeated);
    EXPECT_EQ(watch.judge(older), Verdict::repeated);
}

TEST(Sequence_Watch, another_epoch_is_a_restart_and_no_loss) {
    Sequence_Watch watch(false, false);
    Received_Frame before = delta_frame(7, 10);
    Received_Frame after = delta_frame(8, 5);
    watch.judge(before);
    EXPECT_EQ(watch.judge(after), Verdict::hand_out);
    EXPECT_TRUE(after.epoch_changed);
    EXPECT_EQ(after.lost, 0U);
}

TEST(Sequence_Watch, starting_at_a_key_frame_leaves_out_what_is_before) {
    Sequence_Watch watch(true, false);
    Received_Frame early = delta_frame(7, 1);
    Received_Frame first = key_frame(7, 2);
    Received_Frame second = delta_frame(7, 3);
    EXPECT_EQ(watch.judge(early), Verdict::skipped);
    EXPECT_EQ(watch.judge(first), Verdict::hand_out);
    EXPECT_EQ(first.skipped, 0U);
    EXPECT_EQ(watch.judge(second), Verdict::hand_out);
}

TEST(Sequence_Watch, a_recovery_point_is_as_good_a_start_as_a_key_frame) {
    Sequence_Watch watch(true, true);
    Received_Frame early = delta_frame(7, 1);
    Received_Frame first = delta_frame(7, 2);
    first.header.flags = zav_shm::frame_flag::recovery_point;
    EXPECT_FALSE(first.is_key_frame());
    EXPECT_EQ(watch.judge(early), Verdict::skipped);
    EXPECT_EQ(watch.judge(first), Verdict::hand_out);
    Received_Frame behind_loss = delta_frame(7, 4);
    Received_Frame next = delta_frame(7, 5);
    next.header.flags = zav_shm::frame_flag::recovery_point;
    EXPECT_EQ(watch.judge(behind_loss), Verdict::skipped);
    EXPECT_EQ(watch.judge(next), Verdict::hand_out);
}

TEST(Sequence_Watch, after_a_loss_it_can_go_on_at_the_next_key_frame) {
    Sequence_Watch watch(false, true);
    Received_Frame first = key_frame(7, 1);
    Received_Frame behind_loss = delta_frame(7, 3);
    Received_Frame next = delta_frame(7, 4);
    Received_Frame next_key = key_frame(7, 5);
    watch.judge(first);
    EXPECT_EQ(watch.judge(behind_loss), Verdict::skipped);
    EXPECT_EQ(watch.judge(next), Verdict::skipped);
    EXPECT_EQ(watch.judge(next_key), Verdict::hand_out);
    EXPECT_EQ(next_key.lost, 1U);
    EXPECT_EQ(next_key.skipped, 2U);
}

TEST(Sequence_Watch, frames_of_a_foreign_producer_are_handed_out_as_they_come) {
    Sequence_Watch watch(true, true);
    Received_Frame foreign;
    EXPECT_EQ(watch.judge(foreign), Verdict::hand_out);
    EXPECT_EQ(watch.judge(foreign), Verdict::hand_out);
    EXPECT_EQ(foreign.lost, 0U);
}

}  // namespace
